#include "agent/live/sync_calls.h"

#include <algorithm>
#include <limits>
#include <set>
#include <utility>

#include "agent/document/vocabulary.h"
#include "agent/json/json_writer.h"

namespace vnagent {
namespace {

std::string quoted(std::string_view text) {
  std::string out;
  appendJsonString(out, text);
  return out;
}

std::string lockMembers(std::string_view requester, std::string_view requestId) {
  return "\"requester\": " + quoted(requester) + ", \"requestId\": " + quoted(requestId);
}

// The region's status in the output; nothing where it has none.
std::optional<RegionOutput> statusOf(const Session& session, const std::string& region) {
  const std::vector<std::string> place{"regionStatus", region};
  const OutputPart part = session.outputAt(place);
  if (part.depth < 2) return std::nullopt;
  return part.document.regionStatus->front();
}

double numberOf(const Values& values, const Kind& kind, size_t scalar) {
  const Scalar& value = valueOf(values, kind, scalar);
  if (const auto* number = std::get_if<double>(&value)) return *number;
  if (const auto* integer = std::get_if<int64_t>(&value)) return static_cast<double>(*integer);
  return 0;
}

std::string numberText(double value) {
  std::string text;
  JsonWriter(text, JsonWriter::Style::kOneLine).number(value);
  return text;
}

}  // namespace

SyncCalls::SyncCalls(LiveCloud& cloud, const Changes& changes, ServiceObserver* observer)
    : cloud_(cloud), changes_(changes), observer_(observer) {
  for (const auto& [name, region] : cloud_.document().region) noteHolder(name);
}

std::optional<Refusal> SyncCalls::readLockRequest(const JsonValue& body, LockRequest& request) {
  const auto bad = [](std::string detail) { return Refusal{"bad-request", std::move(detail)}; };
  if (!body.isObject()) return bad("the body is to be an object");
  for (const JsonValue* member : body.all()) {
    if (member->key == "requester" || member->key == "requestId") {
      if (member->kind != JsonValue::Kind::kString) {
        return bad(std::string(member->key) + " is to be a string");
      }
      (member->key == "requester" ? request.requester : request.requestId) = member->text;
    } else if (member->key == "wait") {
      const bool isNumber =
          member->kind == JsonValue::Kind::kInteger || member->kind == JsonValue::Kind::kReal;
      if (!isNumber || !(member->real >= 0 && member->real <= kMaxWaitSeconds)) {
        return bad("wait is a number of seconds, 0 to 300");
      }
      request.wait = member->real;
    } else {
      return bad("the body has a member that is not known: " + quoted(member->key));
    }
  }
  if (request.requestId.empty()) return bad("requestId must not be empty");
  return std::nullopt;
}

std::string SyncCalls::status(const std::string& region) const {
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kOneLine);
  const auto status = statusOf(cloud_.session(), region);
  const auto held = held_.find(region);
  const auto expires = cloud_.session().timerOf(region);
  const auto line = lines_.find(region);
  json.open('{');
  json.key("syncStatus").text(status ? *status->syncStatus : "syncUnknown");
  json.key("oldSyncStatus").text(status ? *status->oldSyncStatus : "syncUnknown");
  json.key("owner").text(status ? *status->owner : "");
  json.key("requestId").text(status ? *status->requestId : "");
  json.key("heldFor");
  if (held == held_.end()) {
    json.null();
  } else {
    json.number(cloud_.time() - held->second.since);
  }
  json.key("expiresIn");
  if (!expires) {
    json.null();
  } else {
    json.number(std::max(0.0, *expires - cloud_.time()));
  }
  json.key("waiting").number(uint64_t{line == lines_.end() ? 0 : line->second.size()});
  json.key("timeout").number(cloud_.regionSyncTimeout());
  json.close('}');
  return text;
}

// Writing.

LiveStep SyncCalls::write(const std::string& region, const std::string& members,
                          const LiveCloud::Complete& complete) {
  return cloud_.apply(patchAt({"region", region}, "{" + members + "}"), nullptr, complete);
}

bool SyncCalls::holds(const std::string& region, const LockRequest& request) const {
  const auto holder = changes_.holderOf(region);
  return holder && holder->owner == request.requester && holder->requestId == request.requestId;
}

Refusal SyncCalls::heldBy(const std::string& region) const {
  return {"lock-held",
          "the lock of the region does not belong to this request",
          {},
          true,
          changes_.holderOf(region)};
}

std::optional<Refusal> SyncCalls::fence(const std::string& region, const std::string* id) const {
  if (id == nullptr) return Refusal{"lock-required", "the call needs Sync-Request-Id"};
  const auto holder = changes_.holderOf(region);
  if (holder && holder->requestId == *id) return std::nullopt;
  return heldBy(region);
}

// Calls.

SyncCalls::Outcome SyncCalls::lock(const std::string& region, const LockRequest& request,
                                   const Principal& principal, Ticket ticket,
                                   const Changes::Remember& remember) {
  if (holds(region, request)) return {.body = status(region)};
  const auto line = lines_.find(region);
  const bool isFree = !changes_.holderOf(region);
  if (isFree && (line == lines_.end() || line->second.empty())) {
    Outcome outcome;
    LiveStep step =
        write(region, lockMembers(request.requester, request.requestId), [&](Record& record) {
          noteHolder(region);
          if (!holds(region, request)) return;
          outcome.body = status(region);
          outcome.isRecorded = true;
          if (remember) remember(record, 200, outcome.body);
        });
    if (!step.faults.empty()) return {.refusal = refusalOf(std::move(step.faults), principal)};
    outcome.regions = std::move(step.regions);
    if (outcome.isRecorded) {
      tell(region, principal.name, request.requester, request.requestId, "granted");
    } else {
      outcome.refusal = heldBy(region);
    }
    return outcome;
  }
  if (request.wait <= 0) {
    tell(region, principal.name, request.requester, request.requestId, "refused");
    return {.refusal = heldBy(region)};
  }
  tell(region, principal.name, request.requester, request.requestId, "waiting");
  lines_[region].push_back(
      {ticket, request, cloud_.time() + request.wait, principal.name, remember});
  return {};
}

SyncCalls::Outcome SyncCalls::call(Subject subject, const std::string& region,
                                   const std::string* id, bool force, const Principal& principal,
                                   const Changes::Remember& remember) {
  const bool isForced = force && subject == Subject::kSyncLock;
  if (!isForced) {
    if (auto refusal = fence(region, id)) return {.refusal = std::move(refusal)};
  }
  const auto holder = changes_.holderOf(region);
  std::string members;
  switch (subject) {
    case Subject::kSyncStart:
      members = "\"syncStatus\": \"syncInProgress\"";
      break;
    case Subject::kSyncHeartbeat: {
      const Region& at = cloud_.document().region.find(region)->second;
      constexpr size_t kRow = rowOf(kRegionScalars, "syncHeartbeat");
      members = "\"syncHeartbeat\": " + numberText(numberOf(at.values, kRegion, kRow) + 1);
      break;
    }
    case Subject::kSyncComplete: {
      const auto status = statusOf(cloud_.session(), region);
      if (!status || *status->syncStatus != "syncInProgress") {
        return {.refusal = Refusal{"not-in-progress", "no sync of the region is in progress"}};
      }
      members = "\"syncStatus\": \"syncComplete\"";
      break;
    }
    default:
      members = lockMembers("", "");
      break;
  }
  Outcome outcome;
  LiveStep step = write(region, members, [&](Record& record) {
    noteHolder(region);
    outcome.body = status(region);
    outcome.isRecorded = true;
    if (remember) remember(record, 200, outcome.body);
  });
  if (!step.faults.empty()) return {.refusal = refusalOf(std::move(step.faults), principal)};
  if (subject == Subject::kSyncLock) {
    tell(region, principal.name, holder ? holder->owner : "", holder ? holder->requestId : "",
         isForced ? "forced" : "released");
  }
  outcome.regions = std::move(step.regions);
  return outcome;
}

// Lines.

void SyncCalls::noteHolder(const std::string& region) {
  const auto holder = changes_.holderOf(region);
  const auto held = held_.find(region);
  if (!holder) {
    if (held != held_.end()) held_.erase(held);
    return;
  }
  if (held != held_.end() && held->second.holder.owner == holder->owner &&
      held->second.holder.requestId == holder->requestId) {
    return;
  }
  held_.insert_or_assign(region, Held{*holder, cloud_.time()});
}

void SyncCalls::settle(const std::vector<std::string>& changed, std::vector<Waited>& answers) {
  std::set<std::string> open(changed.begin(), changed.end());
  while (!open.empty()) {
    const std::string region = *open.begin();
    open.erase(open.begin());
    noteHolder(region);
    const auto line = lines_.find(region);
    if (line == lines_.end()) continue;
    auto& waiters = line->second;
    if (!cloud_.document().region.contains(region)) {
      for (const Waiter& waiter : waiters) {
        answers.push_back({waiter.ticket, Refusal{"not-found", "the region is gone"}, {}});
      }
      lines_.erase(line);
      continue;
    }
    // Whose own request has the lock, by another connection or a plain patch.
    std::erase_if(waiters, [&](const Waiter& waiter) {
      if (!holds(region, waiter.request)) return false;
      answers.push_back({waiter.ticket, std::nullopt, status(region)});
      if (waiter.remember) {
        cloud_.remember([&](Record& record) { waiter.remember(record, 200, answers.back().body); });
      }
      return true;
    });
    if (!waiters.empty() && !changes_.holderOf(region)) {
      const Waiter first = std::move(waiters.front());
      waiters.pop_front();
      std::string granted;
      LiveStep step = write(region, lockMembers(first.request.requester, first.request.requestId),
                            [&](Record& record) {
                              noteHolder(region);
                              if (!holds(region, first.request)) return;
                              granted = status(region);
                              if (first.remember) first.remember(record, 200, granted);
                            });
      if (!step.faults.empty()) {
        Principal principal;
        answers.push_back({first.ticket, refusalOf(std::move(step.faults), principal), {}});
      } else {
        if (!granted.empty()) {
          tell(region, first.principal, first.request.requester, first.request.requestId,
               "granted");
          answers.push_back({first.ticket, std::nullopt, std::move(granted)});
        } else {
          answers.push_back({first.ticket, heldBy(region), {}});
        }
      }
      open.insert(step.regions.begin(), step.regions.end());
      open.insert(region);
    }
    if (waiters.empty()) lines_.erase(region);
  }
}

double SyncCalls::nextTimer() const {
  double next = std::numeric_limits<double>::infinity();
  for (const auto& [region, line] : lines_) {
    for (const Waiter& waiter : line) next = std::min(next, waiter.deadline);
  }
  return next;
}

void SyncCalls::turn(std::vector<Waited>& answers) {
  const double now = cloud_.time();
  for (auto& [name, line] : lines_) {
    const std::string& region = name;
    std::erase_if(line, [&](const Waiter& waiter) {
      if (waiter.deadline > now) return false;
      tell(region, waiter.principal, waiter.request.requester, waiter.request.requestId, "refused");
      answers.push_back({waiter.ticket, heldBy(region), {}});
      return true;
    });
  }
  std::erase_if(lines_, [](const auto& line) { return line.second.empty(); });
}

void SyncCalls::abandon(Ticket ticket) {
  for (auto& [name, line] : lines_) {
    const std::string& region = name;
    std::erase_if(line, [&](const Waiter& waiter) {
      if (waiter.ticket != ticket) return false;
      tell(region, waiter.principal, waiter.request.requester, waiter.request.requestId,
           "given up");
      return true;
    });
  }
  std::erase_if(lines_, [](const auto& line) { return line.second.empty(); });
}

void SyncCalls::refuseAll(const Refusal& refusal, std::vector<Waited>& answers) {
  for (const auto& [region, line] : lines_) {
    for (const Waiter& waiter : line) answers.push_back({waiter.ticket, refusal, {}});
  }
  lines_.clear();
}

size_t SyncCalls::waiting() const {
  size_t count = 0;
  for (const auto& [region, line] : lines_) count += line.size();
  return count;
}

void SyncCalls::tell(std::string_view region, std::string_view principal,
                     std::string_view requester, std::string_view requestId,
                     std::string_view decision) {
  if (observer_ != nullptr) observer_->onLock(region, principal, requester, requestId, decision);
}

}  // namespace vnagent
