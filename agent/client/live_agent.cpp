#include "agent/client/live_agent.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "agent/json/json_tree.h"

namespace vnagent {
namespace {

// The agent sends an event at least every 15 seconds.
constexpr double kSilence = 40;
// Trace lines may be far apart.
constexpr double kNoLimit = 1e6;
constexpr double kFirstPause = 0.1;
constexpr double kLongestPause = 5;

std::string textOf(const Json& object, const char* member) {
  if (!object.is_object()) return {};
  const auto found = object.find(member);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

// The detail of a problem, and what it does not say of place, rule and further faults.
std::string messageOf(const HttpResponse& response, const Json& problem) {
  std::string text = textOf(problem, "detail");
  if (text.empty()) text = textOf(problem, "title");
  if (text.empty()) return "the agent answered " + std::to_string(response.status);
  const std::string pointer = textOf(problem, "pointer");
  const std::string rule = textOf(problem, "rule");
  if (!pointer.empty() && text.find(pointer) == text.npos) text = pointer + ": " + text;
  if (!rule.empty() && text.find(rule) == text.npos) text += " (" + rule + ")";
  const auto faults = problem.find("faults");
  const size_t count = faults != problem.end() && faults->is_array() ? faults->size() : 0;
  for (size_t i = 1; i < count; ++i) {
    const Json& fault = (*faults)[i];
    text += "; " + (fault.is_string() ? fault.get<std::string>() : fault.dump());
  }
  return text;
}

double steadySeconds() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(time).count();
}

// Collections are named by their members: /region/R rather than /region.
constexpr size_t kDepthOfMembers = 2;

void appendPlaces(const std::string& pointer, size_t depth, const Json* before, const Json& patch,
                  std::vector<ChangedPlace>& places) {
  const bool isObject = before != nullptr ? before->is_object() : depth < kDepthOfMembers;
  if (patch.is_object() && isObject && (before != nullptr || !patch.empty())) {
    for (const auto& [key, value] : patch.items()) {
      const Json* member = before != nullptr && before->contains(key) ? &(*before)[key] : nullptr;
      appendPlaces(withKey(pointer, key), depth + 1, member, value, places);
    }
  } else if (patch.is_null()) {
    if (before != nullptr) places.push_back({'-', pointer, before->dump()});
  } else if (before == nullptr) {
    places.push_back({'+', pointer, patch.dump()});
  } else {
    places.push_back({'~', pointer, before->dump() + " -> " + patch.dump()});
  }
}

// What a patch names, where what was there before is unknown.
void appendNamed(const std::string& pointer, const Json& patch, std::vector<ChangedPlace>& places) {
  if (patch.is_object() && !patch.empty()) {
    for (const auto& [key, value] : patch.items()) {
      appendNamed(withKey(pointer, key), value, places);
    }
  } else {
    places.push_back({patch.is_null() ? '-' : '~', pointer, patch.is_null() ? "" : patch.dump()});
  }
}

}  // namespace

RequestRefused::RequestRefused(const HttpResponse& response)
    : std::runtime_error(messageOf(response, Json::parse(response.body, nullptr, false))),
      status_(response.status),
      problem_(Json::parse(response.body, nullptr, false)) {
  if (!problem_.is_object()) problem_ = nullptr;
  name_ = textOf(problem_, "type");
  name_.erase(0, name_.rfind('/') + 1);
}

void EventReader::feed(std::string_view bytes, const std::function<void(const LiveEvent&)>& take) {
  size_t begin = 0;
  const size_t looked = rest_.size();
  rest_ += bytes;
  for (size_t end = rest_.find('\n', looked); end != rest_.npos; end = rest_.find('\n', begin)) {
    std::string_view line = std::string_view(rest_).substr(begin, end - begin);
    if (line.ends_with('\r')) line.remove_suffix(1);
    takeLine(line, take);
    begin = end + 1;
  }
  rest_.erase(0, begin);
}

void EventReader::takeLine(std::string_view line,
                           const std::function<void(const LiveEvent&)>& take) {
  if (line.empty()) {
    if (!event_.data.empty()) take(event_);
    event_ = {};
    return;
  }
  const size_t colon = line.find(':');
  const std::string_view name = line.substr(0, colon);
  std::string_view value = colon == line.npos ? "" : line.substr(colon + 1);
  if (value.starts_with(' ')) value.remove_prefix(1);
  if (name == "id") event_.id = value;
  if (name == "event") event_.name = value;
  if (name == "data") (event_.data.empty() ? event_.data : event_.data += '\n') += value;
}

HttpResponse LiveAgent::request(std::string method, std::string target, std::string body,
                                HttpHeaders headers, double more) const {
  if (!body.empty()) {
    headers.emplace_back("Content-Type",
                         method == "PATCH" ? "application/merge-patch+json" : "application/json");
  }
  HttpResponse response = client_.send({.method = std::move(method),
                                        .target = std::move(target),
                                        .headers = std::move(headers),
                                        .body = std::move(body),
                                        .deadline = deadline_ + more});
  if (response.status >= 400) throw RequestRefused(response);
  return response;
}

Reading LiveAgent::read(std::string target) const {
  const HttpResponse response = request("GET", std::move(target));
  Json value = Json::parse(response.body, nullptr, false);
  if (value.is_discarded()) {
    throw Unreachable(client_.endpoint().name() + ": the answer is not JSON");
  }
  return {std::move(value), response.header("etag")};
}

void LiveAgent::follow(const Following& following,
                       const std::function<bool(const LiveEvent&)>& take) const {
  const double silence = following.resumes ? kSilence : kNoLimit;
  std::string last = following.since;
  double pause = kFirstPause;
  double reached = steadySeconds();
  while (true) {
    try {
      HttpRequest request{.method = "GET", .target = following.target, .deadline = deadline_};
      if (!last.empty()) request.headers.emplace_back("Last-Event-ID", last);
      const auto stream = client_.open(request);
      if (stream->response().status != 200) throw RequestRefused(stream->response());
      EventReader reader;
      bool isWanted = true;
      for (std::string bytes = stream->read(silence); !bytes.empty() && isWanted;) {
        pause = kFirstPause;
        reader.feed(bytes, [&](const LiveEvent& event) {
          if (!event.id.empty()) last = event.id;
          isWanted = isWanted && take(event);
        });
        if (isWanted) bytes = stream->read(silence);
        reached = steadySeconds();
      }
      if (!isWanted || !following.resumes) return;
    } catch (const Unreachable&) {
      if (steadySeconds() + pause > reached + following.patience) throw;
    } catch (const RequestRefused& refused) {
      const bool isStarting = refused.name() == "not-ready";
      if (!isStarting || steadySeconds() + pause > reached + following.patience) throw;
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(pause));
    pause = std::min(2 * pause, kLongestPause);
  }
}

std::string percentEncoded(std::string_view text) {
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    if (kPlain.find(c) != kPlain.npos) {
      encoded += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += '%';
      encoded += kDigits[byte >> 4];
      encoded += kDigits[byte & 0xf];
    }
  }
  return encoded;
}

std::string placeTarget(std::string_view document, std::string_view pointer) {
  std::string target = "/v1/" + std::string(document);
  if (!pointer.empty()) target += "?at=" + percentEncoded(pointer);
  return target;
}

std::string withKey(const std::string& pointer, std::string_view key) {
  std::string longer = pointer;
  appendToken(longer, key);
  return longer;
}

Json differenceOf(const Json& before, const Json& after) {
  Json patch = Json::object();
  for (const auto& [key, value] : before.items()) {
    if (!after.contains(key)) patch[key] = nullptr;
  }
  for (const auto& [key, value] : after.items()) {
    const auto old = before.find(key);
    if (old == before.end()) {
      patch[key] = value;
    } else if (old->is_object() && value.is_object()) {
      Json inner = differenceOf(*old, value);
      if (!inner.empty()) patch[key] = std::move(inner);
    } else if (*old != value) {
      patch[key] = value;
    }
  }
  return patch;
}

std::vector<ChangedPlace> changedPlaces(const Json& before, const Json& patch) {
  std::vector<ChangedPlace> places;
  if (before.is_null()) {
    appendNamed("", patch, places);
  } else {
    appendPlaces("", 0, &before, patch, places);
  }
  return places;
}

}  // namespace vnagent
