// The live agent as the commands see it: documents, places, changes, refusals and events.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/client/http.h"

namespace vnagent {

using Json = nlohmann::json;

// The agent refused a request. what() is what a person reads: the detail, with place and rule.
class RequestRefused : public std::runtime_error {
 public:
  explicit RequestRefused(const HttpResponse& response);

  unsigned status() const { return status_; }
  // NAME of the problem's type: "rule-broken"; empty where the answer is no problem document.
  const std::string& name() const { return name_; }
  // The problem document; null where the answer is none.
  const Json& problem() const { return problem_; }

 private:
  unsigned status_;
  Json problem_;
  std::string name_;
};

// A document, or a part of one, with its ETag.
struct Reading {
  Json value;
  std::string etag;
};

// One Server-Sent Event.
struct LiveEvent {
  std::string id;
  std::string name;
  std::string data;  // JSON text

  // `data`; a discarded value where that is not JSON.
  Json json() const { return Json::parse(data, nullptr, false); }
};

// Reads events from the bytes of a stream, in pieces of any size.
class EventReader {
 public:
  // Calls `take` for each event that `bytes` completes.
  void feed(std::string_view bytes, const std::function<void(const LiveEvent&)>& take);

 private:
  void takeLine(std::string_view line, const std::function<void(const LiveEvent&)>& take);

  std::string rest_;  // what belongs to no whole line yet
  LiveEvent event_;
};

class LiveAgent {
 public:
  explicit LiveAgent(Endpoint endpoint, double deadline = 30)
      : client_(std::move(endpoint)), deadline_(deadline) {}

  const Endpoint& endpoint() const { return client_.endpoint(); }

  // Each throws Unreachable without an answer, RequestRefused with one that refuses.
  HttpResponse request(std::string method, std::string target, std::string body = {},
                       HttpHeaders headers = {}, double more = 0) const;
  Reading read(std::string target) const;

  // Follows a stream of events until `take` returns false, and resumes it where it was when the
  // connection is lost; gives up when the agent cannot be reached for `patience` seconds.
  struct Following {
    std::string target;      // with its query
    std::string since = {};  // empty: from a snapshot on
    double patience = 60;
    bool resumes = true;  // events have ids
  };
  void follow(const Following& following, const std::function<bool(const LiveEvent&)>& take) const;

 private:
  HttpClient client_;
  double deadline_;
};

// "/v1/cloud?at=/region/R" of "cloud" and "/region/R"; the pointer may be empty.
std::string placeTarget(std::string_view document, std::string_view pointer);

// Percent-encodes all but letters, digits and "-._~".
std::string percentEncoded(std::string_view text);

// One more key at the end of a JSON Pointer.
std::string withKey(const std::string& pointer, std::string_view key);

// The merge patch that makes `after` of `before` and touches only what differs.
Json differenceOf(const Json& before, const Json& after);

// A merge patch on a document as lines for people: one for each place that it changes. Null as the
// document before is an unknown one: each value that the patch names counts as changed.
struct ChangedPlace {
  char sign;  // '+' added, '-' removed, '~' changed
  std::string pointer;
  std::string text;  // the value, or "before -> after"
};
std::vector<ChangedPlace> changedPlaces(const Json& before, const Json& patch);

}  // namespace vnagent
