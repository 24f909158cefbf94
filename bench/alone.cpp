// What is measured in a process of its own, because the framework's pool keeps its memory for the
// next object.
//
//   memory/SHAPE/PORTS/SIDE      the memory of the data of the binding benchmarks, in bytes a port
//   load/SHAPE/PORTS/machines    a region with all its ports is added by one change; counters:
//                                load, and teardown, the end of the machines (ns a port)
//
// Sides: intern; outputs, the output entities alone; machines, with the counters inputs (the input
// entities), machines (machines and reactors with their collections), outputs (the output entities,
// with the texts that they share with the inputs not counted again) and objects (the machine and
// reactor objects alone, as the type tracker counts them: exact, the same in every build).
//
// Memory is the rise of what malloc has allocated, with its overhead, and so counted alike for
// every side, and of what the framework's pool has taken of the system, in use or not.
#include <malloc.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "bench/groups.h"
#include "bench/limit/Limit.h"
#include "bench/machines/World.h"
#include "framework/Allocation.h"

namespace bench {
namespace {

double allocated() {
  const auto info = ::mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd + Kiv::kivMemTaken());
}

// Prints by how many bytes a port the memory in use has risen since it was made.
class Meter {
 public:
  explicit Meter(const Cloud& cloud) : ports_(cloud.ports()), before_(allocated()) {}
  void print(const char* what) const {
    std::cout << what << ' ' << (allocated() - before_) / ports_ << '\n';
  }

 private:
  double ports_;
  double before_;
};

template <class Limit>
void measureLimit(const Cloud& cloud) {
  const Meter meter(cloud);
  Limit limit(cloud);
  for (std::uint32_t port = 0; port < cloud.ports(); ++port) limit.bind(port);
  meter.print("total");
}

// The output entities of a cloud, made through their own mutators from text.
void measureOutputs(const Cloud& cloud) {
  const Meter meter(cloud);
  const auto resources = Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  publish(
      cloud, *resources, [&](std::uint32_t port) { return Kiv::String(cloud.portId(port)); },
      [&](std::uint32_t port) { return Kiv::Name(cloud.host(port)); });
  meter.print("total");
}

// The outputs beside inputs, as far as they are not the same texts.
void measureSharingOutputs(const Cloud& cloud) {
  const auto region = boundRegion(cloud);
  const auto boundTo = [&](std::uint32_t port) -> const OpenStack::PortBinding& {
    return *region->portBinding()[Kiv::String(cloud.portId(port))];
  };
  const Meter meter(cloud);
  const auto resources = Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  publish(
      cloud, *resources, [&](std::uint32_t port) { return boundTo(port).port()->id(); },
      [&](std::uint32_t port) { return (*boundTo(port).portToHostBinding().begin())->host(); });
  meter.print("total");
}

// Whether a type of the tracker is a machine, or a reactor, which is a class of its machine: their
// names are "OpenStack::SomethingSm" and "OpenStack::SomethingSm::KivSomething".
bool ofMachines(std::string_view typeName) {
  const std::string_view machine = typeName.substr(0, typeName.find("::Kiv"));
  return machine.starts_with("OpenStack::") && machine.ends_with("Sm");
}

double bytesOfMachines() {
  double bytes = 0;
  for (const Kiv::AllocTrackRecord& record : Kiv::AllocTrackTypeInfo::report()) {
    if (ofMachines(record.typeName)) bytes += static_cast<double>(record.liveBytes);
  }
  return bytes;
}

void measureMachines(const Cloud& cloud) {
  Agent agent;
  const Meter meter(cloud);
  agent.cloud()->regionIs(boundRegion(cloud));
  meter.print("inputs");
  agent.start();
  meter.print("total");
  std::cout << "objects " << bytesOfMachines() / cloud.ports() << '\n';
}

void measureLoad(const Cloud& cloud) {
  Agent agent;
  agent.start();
  const auto region = boundRegion(cloud);
  const double nanoseconds = 1e9 / cloud.ports();
  const Stopwatch load;
  agent.cloud()->regionIs(region);
  loop().run();
  std::cout << "load " << load.seconds() * nanoseconds << '\n';
  const Stopwatch teardown;
  agent.stop();
  std::cout << "teardown " << teardown.seconds() * nanoseconds << '\n';
}

using Figures = std::map<std::string, double>;

// The figures that this program prints when it is asked for `what`.
Figures measured(const std::string& what) {
  const std::string command = "/proc/" + std::to_string(::getpid()) + "/exe --alone=" + what;
  const std::unique_ptr<FILE, int (*)(FILE*)> output(::popen(command.c_str(), "r"), ::pclose);
  if (!output) throw std::runtime_error("cannot run " + command);
  std::string text;
  std::array<char, 256> buffer{};
  while (std::fgets(buffer.data(), buffer.size(), output.get()) != nullptr) text += buffer.data();
  Figures figures;
  std::istringstream in(text);
  std::string name;
  for (double value = 0; in >> name >> value;) figures[name] = value;
  if (figures.empty()) throw std::runtime_error(command + " printed no figure");
  return figures;
}

// A benchmark of one such process after the other, whose counters are the figures. Its time, which
// Google Benchmark wants, is their sum.
void addFigures(Suite& suite, const std::string& name, int repetitions,
                std::function<Figures()> figures) {
  suite.addBatch(name, 1, repetitions, [figures](benchmark::State& state) {
    double sum = 0;
    for (const auto& [what, figure] : figures()) {
      state.counters[what] = figure;
      sum += figure;
    }
    while (state.KeepRunning()) state.SetIterationTime(1e-9 * sum);
  });
}

}  // namespace

int measureAlone(const std::string& what) {
  std::istringstream in(what);
  std::string side;
  std::string shape;
  std::uint32_t ports = 0;
  std::getline(in, side, '/');
  std::getline(in, shape, '/');
  if (!(in >> ports)) return 2;
  const Cloud cloud(ports, shape == "packed" ? Shape::packed : Shape::spread);
  if (side == "intern") measureLimit<InternLimit>(cloud);
  if (side == "ids") measureLimit<IdsLimit>(cloud);
  if (side == "std") measureLimit<StdLimit>(cloud);
  if (side == "outputs") measureOutputs(cloud);
  if (side == "sharing-outputs") measureSharingOutputs(cloud);
  if (side == "machines") measureMachines(cloud);
  if (side == "load") measureLoad(cloud);
  return 0;
}

void addLoads(Suite& suite) {
  for (const Shape shape : {Shape::spread, Shape::packed}) {
    for (const std::uint32_t ports : {1000U, 10000U, 100000U, 1000000U}) {
      if (ports > 10000 && suite.quick()) continue;
      const std::string data = "load/" + std::string(name(shape)) + "/" + std::to_string(ports);
      addFigures(suite, data + "/machines", ports > 100000 ? 3 : 10,
                 [=] { return measured(data); });
    }
  }
}

void addMemory(Suite& suite) {
  for (const Shape shape : {Shape::spread, Shape::packed}) {
    for (const std::uint32_t ports : {1000U, 10000U, 100000U, 1000000U}) {
      if (ports > 100000 && suite.quick()) continue;
      const std::string data = "/" + std::string(name(shape)) + "/" + std::to_string(ports);
      for (const std::string side : {"intern", "ids", "std", "outputs"}) {
        addFigures(suite, "memory" + data + "/" + side, 1, [=] { return measured(side + data); });
      }
      addFigures(suite, "memory" + data + "/machines", 1, [=] {
        Figures figures = measured("machines" + data);
        figures["outputs"] = measured("sharing-outputs" + data)["total"];
        figures["machines"] = figures["total"] - figures["inputs"] - figures["outputs"];
        return figures;
      });
    }
  }
}

}  // namespace bench
