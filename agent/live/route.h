// What a request is about: its route, with the names in its path, and the methods and parameters
// that the route takes.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/live/exchange.h"
#include "agent/live/place.h"
#include "agent/live/problem.h"
#include "agent/live/target.h"

namespace vnagent {

enum class Subject : uint8_t {
  kNothing,  // there is no such route
  kAgent,
  kCloud,
  kOutput,
  kBatch,
  kSync,
  kSyncLock,
  kSyncStart,
  kSyncHeartbeat,
  kSyncComplete,
  kWatch,
  kInspect,
  kTrace,
  kTraceTail,
  kMetrics,
  kOpenApi,
};

// The longest time-out that a request may ask for.
inline constexpr double kMaxWaitSeconds = 300;

struct Route {
  Subject subject = Subject::kNothing;
  std::string name;    // the path with its variable parts left out, for counting: "/v1/cloud"
  Place place;         // in a document; in the machines
  std::string region;  // of a sync call
  Target target;

  // The methods that the place knows, in order; "HEAD" is not among them.
  std::vector<std::string_view> methods() const;
  bool isRegion() const { return place.size() == 2 && place[0] == "region"; }
};

// Reads the target of a request. Returns why it cannot be read.
std::optional<Refusal> readRoute(const Request& request, Route& route);

// The parameters of a request's query, read. Returns why they cannot be.
struct Parameters {
  bool dryRun = false;
  bool force = false;
  std::optional<uint64_t> wait;
  double timeout = 30;
  bool ofCloud = false;
  std::vector<Place> at;
  std::optional<std::string> since;
};
std::optional<Refusal> readParameters(const Request& request, const Route& route,
                                      Parameters& parameters);

}  // namespace vnagent
