// The program, on a document of 100,000 ports on hosts.
//
//   agent/run      `vnagent run` on the document: parsed, checked, applied, printed as JSON
//   agent/patches  the same with 10,000 patches, each of which moves one port to another host
//   agent/parse    the bare parse of the document's bytes, with the same JSON library
//
// Each is a process of its own, which reads the document from a file: none is spared the start of a
// process, and none finds the memory of another. Time is the processor time of the whole
// process, of its own and of the system on its behalf.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "bench/data/Cloud.h"
#include "bench/groups.h"

extern char** environ;

namespace bench {
namespace {

using nlohmann::json;

constexpr std::uint32_t kPorts = 100000;
constexpr std::uint32_t kPatches = 10000;

json levels(const Cloud& cloud, std::uint32_t port) {
  const std::string network = std::to_string(cloud.network(port));
  return {{"segment", {{"0", "vxlan-" + network}, {"1", "vlan-" + network}}}};
}

json document(const Cloud& cloud) {
  json region = {{"segment", json::object()}, {"port", json::object()}};
  for (std::uint32_t network = 0; network < cloud.networks(); ++network) {
    const std::string number = std::to_string(network);
    region["segment"]["vxlan-" + number] = {{"segmentationType", "vxlan"},
                                            {"segmentationId", Cloud::vni(network)}};
    region["segment"]["vlan-" + number] = {{"segmentationType", "vlan"},
                                           {"segmentationId", Cloud::vlan(network)}};
  }
  for (std::uint32_t port = 0; port < cloud.ports(); ++port) {
    const std::string id(cloud.portId(port));
    region["port"][id] = json::object();
    region["portBinding"][id]["portToHostBinding"][std::string(cloud.host(port))] =
        levels(cloud, port);
  }
  return {{"region", {{std::string(Cloud::region()), std::move(region)}}}};
}

// Moves a port from its host to that of the port 40 numbers on.
json patch(const Cloud& cloud, std::uint32_t port) {
  const std::string id(cloud.portId(port));
  const std::string to(cloud.host((port + Cloud::kPortsPerHost) % cloud.ports()));
  const json moved = {{std::string(cloud.host(port)), nullptr}, {to, levels(cloud, port)}};
  const json binding = {{"portBinding", {{id, {{"portToHostBinding", moved}}}}}};
  return {{"patch", {{"region", {{std::string(Cloud::region()), binding}}}}}};
}

// The input of the program, as files beside the results.
class Files {
 public:
  explicit Files(const std::filesystem::path& folder)
      : cloud_((folder / "cloud.json").string()), events_((folder / "events.jsonl").string()) {
    const Cloud cloud(kPorts, Shape::spread);
    std::ofstream(cloud_) << document(cloud).dump(1);
    std::ofstream events(events_);
    const auto order = cloud.shuffled(1);
    for (std::uint32_t i = 0; i < kPatches; ++i) events << patch(cloud, order[i]).dump() << '\n';
  }
  const std::string& cloud() const { return cloud_; }
  const std::string& events() const { return events_; }

 private:
  std::string cloud_;
  std::string events_;
};

// Runs a program without its output, and says how many seconds of processor time it took.
double run(std::vector<std::string> command) {
  std::vector<char*> arguments;
  for (auto& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t process = 0;
  const int fault =
      ::posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  rusage usage{};
  if (fault != 0 || ::wait4(process, &status, 0, &usage) != process || status != 0) {
    throw std::runtime_error("cannot run " + command[0]);
  }
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void addProcess(Suite& suite, const std::string& name, int repetitions,
                std::vector<std::string> command) {
  suite.addBatch(name, kPorts, repetitions, [=](benchmark::State& state) {
    while (state.KeepRunningBatch(kPorts)) state.SetIterationTime(run(command));
  });
}

}  // namespace

int parseFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  return json::parse(bytes).empty() ? 1 : 0;
}

void addAgent(Suite& suite) {
  if (!suite.wanted("agent/run") && !suite.wanted("agent/patches") &&
      !suite.wanted("agent/parse")) {
    return;
  }
  const std::string program = suite.options().vnagent;
  if (program.empty()) throw std::invalid_argument("--vnagent=PROGRAM is needed");
  const Files files(std::filesystem::path(suite.options().results).parent_path());
  const std::vector<std::string> runCloud{program, "run", files.cloud(), "--format", "json"};
  auto runPatches = runCloud;
  runPatches.insert(runPatches.end(), {"--events", files.events()});
  addProcess(suite, "agent/run", 10, runCloud);
  addProcess(suite, "agent/parse", 10, {"/proc/self/exe", "--parse=" + files.cloud()});
  addProcess(suite, "agent/patches", suite.quick() ? 3 : 10, runPatches);
}

}  // namespace bench
