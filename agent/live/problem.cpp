#include "agent/live/problem.h"

#include <algorithm>
#include <array>

#include "agent/json/json_writer.h"

namespace vnagent {
namespace {

struct ProblemType {
  std::string_view name;
  unsigned status;
  std::string_view title;
};

constexpr std::array kTypes{
    ProblemType{"bad-request", 400, "The request cannot be read"},
    ProblemType{"not-json", 400, "The body is no JSON, or none that is taken"},
    ProblemType{"unauthenticated", 401, "Who sends the request is not known"},
    ProblemType{"forbidden", 403, "The principal may not do this"},
    ProblemType{"not-found", 404, "There is nothing at this place"},
    ProblemType{"method-not-allowed", 405, "The place does not know this method"},
    ProblemType{"not-acceptable", 406, "There is no representation that the request accepts"},
    ProblemType{"timeout", 408, "The request took too long"},
    ProblemType{"lock-held", 409, "The sync lock does not belong to this request"},
    ProblemType{"not-in-progress", 409, "No sync is in progress"},
    ProblemType{"gone", 410, "The revision cannot be resumed from"},
    ProblemType{"precondition-failed", 412, "A condition of the request does not hold"},
    ProblemType{"too-large", 413, "The body is too large"},
    ProblemType{"unsupported-media-type", 415, "The body has another media type than is taken"},
    ProblemType{"rule-broken", 422, "The change breaks a rule of the cloud document"},
    ProblemType{"key-reused", 422, "The idempotency key belongs to another request"},
    ProblemType{"lock-required", 428, "The request needs the id of the lock's holder"},
    ProblemType{"too-many", 429, "There are too many connections"},
    ProblemType{"header-too-large", 431, "The header is too large"},
    ProblemType{"not-ready", 503, "The agent is starting or stopping"},
    ProblemType{"behind", 503, "The agent is at an earlier revision"},
    ProblemType{"not-yet", 504, "The revision was not reached in time"},
    ProblemType{"no-space", 507, "Changes cannot be stored"},
};

// As `vnagent check` reports them.
constexpr size_t kShownFaults = 100;

const ProblemType& typeOf(std::string_view name) {
  return *std::ranges::find(kTypes, name, &ProblemType::name);
}

void writeFaults(const std::vector<Fault>& faults, JsonWriter& json) {
  const Fault& first = faults.front();
  if (!first.text.empty()) json.key("rule").text(first.text);
  json.key("faults").open('[');
  const size_t shown = std::min(faults.size(), kShownFaults);
  for (size_t i = 0; i < shown; ++i) json.text(faults[i].message());
  json.close(']');
  if (shown < faults.size()) json.key("faultCount").number(uint64_t{faults.size()});
}

}  // namespace

unsigned statusOf(std::string_view type) {
  return typeOf(type).status;
}

std::string problemText(const Refusal& refusal) {
  const ProblemType& type = typeOf(refusal.type);
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kOneLine);
  json.open('{').key("type").text("/problems/" + std::string(type.name));
  json.key("title").text(type.title).key("status").number(uint64_t{type.status});
  json.key("detail").text(refusal.detail);
  if (!refusal.faults.empty()) {
    json.key("pointer").text(refusal.faults.front().place);
    writeFaults(refusal.faults, json);
  }
  if (refusal.hasHolder) {
    json.key("holder");
    if (refusal.holder) {
      json.open('{').key("owner").text(refusal.holder->owner);
      json.key("requestId").text(refusal.holder->requestId).close('}');
    } else {
      json.null();
    }
  }
  json.close('}');
  return text;
}

Reply replyOf(const Refusal& refusal) {
  Reply reply;
  reply.status = statusOf(refusal.type);
  reply.headers = {{"content-type", "application/problem+json"}};
  reply.headers.insert(reply.headers.end(), refusal.headers.begin(), refusal.headers.end());
  reply.body = std::make_shared<const std::string>(problemText(refusal));
  return reply;
}

}  // namespace vnagent
