// The program, on a document of 100,000 ports on hosts.
//
//   agent/run      `vnagent run` on the document: parsed, checked, applied, printed as JSON
//   agent/patches  the same with 100,000 patches, each of which moves one port to another host:
//                  so many that they take several times as long as the rest
//   agent/parse    the bare parse of the document's bytes, with a JSON library
//
//   agent/changes/PORTS/none  `vnagent run --each --changes` on a document of so many ports
//   agent/changes/PORTS/all   the same with 100,000 such patches; the change that each makes is
//                             printed, and its cost must not grow with the cloud
//
// Each is a process of its own, which reads the document from a file. Time is the processor time of
// the whole process, user and system.
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
constexpr std::uint32_t kPatches = 100000;

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

// Moves a port from its host to that of the port 40 numbers on, or back.
json patch(const Cloud& cloud, std::uint32_t port, bool back) {
  const std::string id(cloud.portId(port));
  std::string from(cloud.host(port));
  std::string to(cloud.host((port + Cloud::kPortsPerHost) % cloud.ports()));
  if (back) from.swap(to);
  const json moved = {{from, nullptr}, {to, levels(cloud, port)}};
  const json binding = {{"portBinding", {{id, {{"portToHostBinding", moved}}}}}};
  return {{"patch", {{"region", {{std::string(Cloud::region()), binding}}}}}};
}

// The input of the program, as files beside the results.
class Files {
 public:
  Files(const std::filesystem::path& folder, std::uint32_t ports)
      : cloud_((folder / ("cloud-" + std::to_string(ports) + ".json")).string()),
        events_((folder / ("events-" + std::to_string(ports) + ".jsonl")).string()) {
    const Cloud cloud(ports, Shape::spread);
    std::ofstream(cloud_) << document(cloud).dump(1);
    std::ofstream events(events_);
    const auto order = cloud.shuffled(1);
    for (std::uint32_t i = 0; i < kPatches; ++i) {
      events << patch(cloud, order[i % ports], i / ports % 2 != 0).dump() << '\n';
    }
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

// `vnagent`, and where its input goes.
class Program {
 public:
  explicit Program(const Suite& suite)
      : program_(suite.options().vnagent),
        folder_(std::filesystem::path(suite.options().results).parent_path()) {
    if (program_.empty()) throw std::invalid_argument("--vnagent=PROGRAM is needed");
  }
  const std::filesystem::path& folder() const { return folder_; }
  // The command `vnagent run` on a document, with options.
  std::vector<std::string> run(const Files& files, std::vector<std::string> options) const {
    std::vector<std::string> command{program_, "run", files.cloud()};
    command.insert(command.end(), options.begin(), options.end());
    return command;
  }

 private:
  std::string program_;
  std::filesystem::path folder_;
};

// Adds a process as a benchmark; its time is divided by kPorts.
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
  const Program program(suite);
  const Files files(program.folder(), kPorts);
  const int repetitions = suite.quick() ? 3 : 10;
  addProcess(suite, "agent/run", 10, program.run(files, {"--format", "json"}));
  addProcess(suite, "agent/parse", 10, {"/proc/self/exe", "--parse=" + files.cloud()});
  addProcess(suite, "agent/patches", repetitions,
             program.run(files, {"--format", "json", "--events", files.events()}));
}

void addAgentChanges(Suite& suite) {
  for (const std::uint32_t ports : {1000U, kPorts}) {
    const std::string name = "agent/changes/" + std::to_string(ports);
    if (!suite.wanted(name + "/none") && !suite.wanted(name + "/all")) continue;
    const Program program(suite);
    const Files files(program.folder(), ports);
    const int repetitions = suite.quick() ? 3 : 10;
    addProcess(suite, name + "/none", repetitions, program.run(files, {"--each", "--changes"}));
    addProcess(suite, name + "/all", repetitions,
               program.run(files, {"--each", "--changes", "--events", files.events()}));
  }
}

}  // namespace bench
