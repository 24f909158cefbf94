#include "agent/live/route.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace vnagent {
namespace {

Refusal badRequest(std::string detail) {
  return {"bad-request", std::move(detail)};
}

struct Fixed {
  std::string_view path;
  Subject subject;
};
constexpr std::array kFixed{
    Fixed{"v1", Subject::kAgent},
    Fixed{"v1/batch", Subject::kBatch},
    Fixed{"v1/watch", Subject::kWatch},
    Fixed{"v1/trace", Subject::kTrace},
    Fixed{"v1/trace/tail", Subject::kTraceTail},
    Fixed{"metrics", Subject::kMetrics},
    Fixed{"openapi.json", Subject::kOpenApi},
};

struct SyncCall {
  std::string_view name;
  Subject subject;
};
constexpr std::array kSyncCalls{
    SyncCall{"lock", Subject::kSyncLock},
    SyncCall{"start", Subject::kSyncStart},
    SyncCall{"heartbeat", Subject::kSyncHeartbeat},
    SyncCall{"complete", Subject::kSyncComplete},
};

std::string joined(const std::vector<std::string>& path) {
  std::string text;
  for (const std::string& part : path) {
    if (!text.empty()) text += '/';
    // An encoded slash is no separator.
    text += part.find('/') == part.npos ? part : std::string("%2F");
  }
  return text;
}

void findSubject(const std::vector<std::string>& path, Route& route) {
  const std::string text = joined(path);
  const auto fixed = std::ranges::find(kFixed, text, &Fixed::path);
  if (fixed != kFixed.end()) {
    route.subject = fixed->subject;
    route.name = "/" + text;
    return;
  }
  if (path.size() < 2 || path[0] != "v1") return;
  const auto from = [&](size_t first) {
    return Place(path.begin() + static_cast<std::ptrdiff_t>(first), path.end());
  };
  if (path[1] == "cloud" || path[1] == "output" || path[1] == "inspect") {
    route.subject = path[1] == "cloud"    ? Subject::kCloud
                    : path[1] == "output" ? Subject::kOutput
                                          : Subject::kInspect;
    route.name = "/v1/" + path[1];
    route.place = from(2);
    return;
  }
  if (path[1] != "region" || path.size() < 4 || path[3] != "sync" || path.size() > 5) return;
  route.region = path[2];
  route.name = "/v1/region/sync";
  if (path.size() == 4) {
    route.subject = Subject::kSync;
    return;
  }
  const auto call = std::ranges::find(kSyncCalls, path[4], &SyncCall::name);
  if (call == kSyncCalls.end()) return;
  route.subject = call->subject;
  route.name += "/" + path[4];
}

// The parameters that a request may have. `at` names one place, or places of a watch.
std::vector<std::string_view> known(std::string_view method, Subject subject) {
  const bool reads = method == "GET" || method == "HEAD";
  switch (subject) {
    case Subject::kCloud:
      if (reads) return {"at"};
      return {"at", "dry-run"};
    case Subject::kOutput:
      return {"at", "wait", "timeout"};
    case Subject::kBatch:
      return {"dry-run"};
    case Subject::kSyncLock:
      if (method == "DELETE") return {"force"};
      return {};
    case Subject::kWatch:
      return {"of", "at", "since"};
    default:
      return {};
  }
}

std::optional<Refusal> readFlag(const Target& target, std::string_view name, bool& flag) {
  const std::string* value = target.parameter(name);
  if (value == nullptr) return std::nullopt;
  if (*value != "true" && *value != "false") {
    return badRequest(std::string(name) + " is true or false");
  }
  flag = *value == "true";
  return std::nullopt;
}

std::optional<double> readSeconds(const std::string& text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool read = error == std::errc() && end == text.data() + text.size();
  if (!read || !std::isfinite(value) || value < 0 || value > kMaxWaitSeconds) return std::nullopt;
  return value;
}

std::optional<uint64_t> readRevision(const std::string& text) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

std::vector<std::string_view> Route::methods() const {
  switch (subject) {
    case Subject::kNothing:
      return {};
    case Subject::kCloud:
      if (place.empty()) return {"GET", "PATCH"};
      if (isRegion()) return {"GET", "PATCH", "PUT", "DELETE"};
      return {"GET", "PATCH", "DELETE"};
    case Subject::kBatch:
    case Subject::kSyncStart:
    case Subject::kSyncHeartbeat:
    case Subject::kSyncComplete:
      return {"POST"};
    case Subject::kSyncLock:
      return {"POST", "DELETE"};
    case Subject::kTrace:
      return {"GET", "PUT"};
    default:
      return {"GET"};
  }
}

std::optional<Refusal> readRoute(const Request& request, Route& route) {
  if (auto fault = readTarget(request.target, route.target)) return badRequest(std::move(*fault));
  findSubject(route.target.path, route);
  const bool isDocument = route.subject == Subject::kCloud || route.subject == Subject::kOutput;
  const std::string* at = isDocument ? route.target.parameter("at") : nullptr;
  if (at != nullptr) {
    if (!route.place.empty()) return badRequest("the place is both in the path and in `at`");
    auto place = placeOfPointer(*at);
    if (!place) return badRequest("`at` is no JSON Pointer");
    route.place = std::move(*place);
    return std::nullopt;
  }
  // A path cannot say an empty name.
  if (std::ranges::find(route.target.path, "") != route.target.path.end()) {
    route.subject = Subject::kNothing;
  }
  return std::nullopt;
}

std::optional<Refusal> readParameters(const Request& request, const Route& route,
                                      Parameters& parameters) {
  if (route.subject == Subject::kNothing) return std::nullopt;
  const auto names = known(request.method, route.subject);
  const Target& target = route.target;
  for (const auto& [name, value] : target.parameters) {
    if (std::ranges::find(names, name) == names.end()) {
      return badRequest("the request has no parameter \"" + name + "\"");
    }
    const bool repeats = std::ranges::count(target.parameters, name, [](const auto& parameter) {
                           return parameter.first;
                         }) > 1;
    if (repeats && !(name == "at" && route.subject == Subject::kWatch)) {
      return badRequest("the parameter \"" + name + "\" is there twice");
    }
  }
  if (auto fault = readFlag(target, "dry-run", parameters.dryRun)) return fault;
  if (auto fault = readFlag(target, "force", parameters.force)) return fault;
  if (const std::string* wait = target.parameter("wait")) {
    parameters.wait = readRevision(*wait);
    if (!parameters.wait) return badRequest("wait is a revision");
  }
  if (const std::string* timeout = target.parameter("timeout")) {
    const auto seconds = readSeconds(*timeout);
    if (!seconds) return badRequest("timeout is a number of seconds, 0 to 300");
    parameters.timeout = *seconds;
  }
  if (route.subject != Subject::kWatch) return std::nullopt;
  if (const std::string* of = target.parameter("of")) {
    if (*of != "cloud" && *of != "output") return badRequest("of is cloud or output");
    parameters.ofCloud = *of == "cloud";
  }
  for (const auto& [name, value] : target.parameters) {
    if (name != "at") continue;
    auto place = placeOfPointer(value);
    if (!place) return badRequest("`at` is no JSON Pointer");
    parameters.at.push_back(std::move(*place));
  }
  if (const std::string* since = target.parameter("since")) parameters.since = *since;
  if (const std::string* last = request.header("last-event-id")) parameters.since = *last;
  return std::nullopt;
}

}  // namespace vnagent
