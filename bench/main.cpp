// openstacksm_bench: what the machines, the framework and the agent cost. See README.md.
#include <cstring>
#include <exception>
#include <iostream>
#include <string_view>
#include <vector>

#include "bench/groups.h"
#include "bench/limit/Limit.h"
#include "bench/machines/World.h"

namespace {

// The value of an option "--name=value"; null when the argument is another.
const char* value(const char* argument, std::string_view name) {
  return std::string_view(argument).starts_with(name) ? argument + name.size() : nullptr;
}

bench::Options optionsOf(int argc, char** argv) {
  bench::Options options;
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--quick") {
      options.quick = true;
    } else if (const char* filter = value(argv[i], "--filter=")) {
      options.filter = filter;
    } else if (const char* results = value(argv[i], "--results=")) {
      options.results = results;
    } else if (const char* program = value(argv[i], "--vnagent=")) {
      options.vnagent = program;
    } else {
      throw std::invalid_argument(std::string("unknown option ") + argv[i]);
    }
  }
  if (options.results.empty()) throw std::invalid_argument("--results=FILE is needed");
  return options;
}

// Tells Google Benchmark to interleave the repetitions of what is registered together.
void interleave() {
  std::vector<std::string> arguments{"openstacksm_bench",
                                     "--benchmark_enable_random_interleaving=true"};
  std::vector<char*> pointers;
  for (auto& argument : arguments) pointers.push_back(argument.data());
  int count = static_cast<int>(pointers.size());
  benchmark::Initialize(&count, pointers.data());
}

// The limit is a yardstick only while it makes the writes that the machines make: holds its entries
// against theirs, port by port.
void compareWrites(bench::Shape shape) {
  const bench::Cloud cloud(1000, shape);
  bench::InternLimit limit(cloud);
  bench::Machines machines(cloud);
  const auto order = cloud.shuffled(3);
  for (const auto port : order) {
    limit.bind(port);
    machines.bind(port);
  }
  for (std::size_t i = 0; i < order.size(); i += 3) {
    limit.unbind(order[i]);
    machines.unbind(order[i]);
  }
  std::size_t entries = 0;
  std::size_t missing = 0;
  const auto& hosts = machines.agent().resources()->resourcesForHostname();
  const auto count = [&](bool there) { ++(there ? entries : missing); };
  const auto hostOf = [&](const auto& name) { return hosts[Kiv::Name(name.view())]; };
  limit.requested().forEach(
      [&](const auto& host, const auto& region, const auto& port) {
        const auto* domain = hostOf(host)->domain()[Kiv::Name(region.view())];
        count(domain != nullptr && domain->referrer()[Kiv::Name(port.view())]);
      },
      [&](const auto& host, std::uint32_t id, const auto& port) {
        const auto* vlan = hostOf(host)->vlan()[id];
        count(vlan != nullptr && vlan->referrer()[Kiv::String(port.view())]);
      },
      [&](const auto& host, std::uint32_t id, std::uint32_t vniId, const auto& port) {
        const auto* vni = hostOf(host)->vlan()[id]->mappedVni()[vniId];
        count(vni != nullptr && vni->referrer()[Kiv::String(port.view())]);
      });
  std::size_t published = 0;
  for (const auto& host : hosts) {
    for (const auto& domain : host->domain()) published += domain->referrer().size();
    for (const auto& vlan : host->vlan()) {
      published += vlan->referrer().size();
      for (const auto& vni : vlan->mappedVni()) published += vni->referrer().size();
    }
  }
  if (missing != 0 || entries != published) {
    throw std::logic_error("the limit does not make the machines' writes");
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 2) {
      if (const char* what = value(argv[1], "--memory=")) return bench::measureMemory(what);
      if (const char* path = value(argv[1], "--parse=")) return bench::parseFile(path);
    }
    const bench::Options options = optionsOf(argc, argv);
    bench::loop();
    compareWrites(bench::Shape::spread);
    compareWrites(bench::Shape::packed);
    interleave();
    bench::Suite suite(options);
    bench::benchBinding(suite);
    bench::benchMemory(suite);
    bench::benchRegions(suite);
    bench::benchDispatch(suite);
    bench::benchDelivery(suite);
    bench::benchPointers(suite);
    bench::benchMaps(suite);
    bench::benchNames(suite);
    bench::benchTrace(suite);
    bench::benchAgent(suite);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "openstacksm_bench: " << error.what() << '\n';
    return 1;
  }
}
