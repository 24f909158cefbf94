// vnagent watch, wait and trace: what happens in the live agent.
#include <algorithm>

#include <fmt/format.h>
#include <unistd.h>

#include "agent/cli/client_support.h"

namespace vnagent {
namespace {

void printEvent(const LiveEvent& event, Json& document, bool json) {
  if (json) {
    printJson({{"id", event.id}, {"event", event.name}, {"data", event.json()}}, true);
    return;
  }
  const std::string revision = event.id.substr(0, event.id.find('-'));
  if (event.name == "snapshot") {
    printOut(fmt::format("revision {}\n", revision));
    document = event.json();
    printJson(document, false);
  } else if (event.name == "patch") {
    printOut(fmt::format("revision {}\n", revision));
    const Json patch = event.json();
    printChanges(document, patch);
    if (!document.is_null()) document.merge_patch(patch);
  }
}

}  // namespace

ExitStatus watch(const WatchOptions& options) {
  std::string target = "/v1/watch?of=" + options.of;
  for (const std::string& pointer : options.at) target += "&at=" + percentEncoded(pointer);
  Json document;  // unknown until there is a snapshot
  uint64_t printed = 0;
  connected(options).follow(
      {.target = target, .since = options.since, .patience = options.deadline},
      [&](const LiveEvent& event) {
        printEvent(event, document, options.json);
        if (event.name != "bookmark") ++printed;
        return options.count == 0 || printed < options.count;
      });
  return ExitStatus::kOk;
}

ExitStatus wait(const WaitOptions& options) {
  const LiveAgent agent = connected(options);
  // The agent waits for at most so long at a time.
  constexpr double kLongest = 300;
  double left = options.seconds;
  while (true) {
    const double now = std::min(left, kLongest);
    left -= now;
    try {
      const auto response = agent.request(
          "HEAD", fmt::format("/v1/output?wait={}&timeout={:.3f}", options.revision, now), {}, {},
          now);
      const std::string revision = response.header("vnagent-revision");
      if (options.json) {
        printJson({{"revision", Json::parse(revision, nullptr, false)}}, true);
      } else {
        printOut(fmt::format("revision {}\n", revision));
      }
      return ExitStatus::kOk;
    } catch (const RequestRefused& refused) {
      if (refused.status() != 504) throw;
    }
    if (left <= 0) {
      reportError(
          fmt::format("revision {} has not come within {} s", options.revision, options.seconds));
      return ExitStatus::kNotYet;
    }
  }
}

ExitStatus trace(const TraceOptions& options) {
  const LiveAgent agent = connected(options);
  if (options.level) {
    agent.request("PUT", "/v1/trace", Json{{"level", *options.level}}.dump());
  }
  if (options.tail) {
    agent.follow({.target = "/v1/trace/tail", .resumes = false}, [&](const LiveEvent& event) {
      const Json entry = event.json();
      if (options.json || !entry.is_object()) {
        printJson(entry, true);
      } else {
        printOut(fmt::format("{} {}:{} {}\n", textOf(memberOf(entry, "level")),
                             textOf(memberOf(entry, "file")), textOf(memberOf(entry, "line")),
                             textOf(memberOf(entry, "text"))));
      }
      return true;
    });
    return ExitStatus::kOk;
  }
  const Json level = agent.read("/v1/trace").value;
  if (options.json) {
    printJson(level, true);
  } else {
    printOut(fmt::format("trace level {}\n", textOf(memberOf(level, "level"))));
  }
  return ExitStatus::kOk;
}

}  // namespace vnagent
