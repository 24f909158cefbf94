#include "tests/sim/live/model.h"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

const std::string* header(const RequestText& request, const std::string& name) {
  const auto found = request.headers.find(name);
  return found == request.headers.end() ? nullptr : &found->second;
}

Prediction refusal(unsigned status) {
  return {.status = status};
}

// Which regions a patch on the whole document names; nothing where it names all or configuration.
struct Touched {
  std::set<std::string> regions;
  bool all = false;
  bool config = false;
};
Touched touchedBy(const Json& patch) {
  Touched touched;
  if (!patch.is_object()) return {{}, true, true};
  touched.config = patch.contains("config");
  if (!patch.contains("region")) return touched;
  touched.all = patch["region"].is_null();
  if (patch["region"].is_object()) {
    for (const auto& [name, region] : patch["region"].items()) touched.regions.insert(name);
  }
  return touched;
}

bool mayTouch(const Role& role, const Touched& touched) {
  if (role.regions.empty()) return true;
  return !touched.all && !touched.config &&
         std::ranges::all_of(touched.regions,
                             [&](const std::string& name) { return role.regions.contains(name); });
}

}  // namespace

std::vector<std::string> pathOf(const std::string& target) {
  std::vector<std::string> path;
  const std::string whole = target.substr(0, target.find('?'));
  for (size_t begin = 1; begin <= whole.size();) {
    const size_t end = std::min(whole.find('/', begin), whole.size());
    path.push_back(whole.substr(begin, end - begin));
    begin = end + 1;
  }
  return path;
}

std::optional<std::string> parameterOf(const std::string& target, const std::string& name) {
  const size_t question = target.find('?');
  if (question == target.npos) return std::nullopt;
  const std::string query = "&" + target.substr(question + 1) + "&";
  const size_t begin = query.find("&" + name + "=");
  if (begin == query.npos) return std::nullopt;
  const size_t value = begin + name.size() + 2;
  return query.substr(value, query.find('&', value) - value);
}

Json Model::viewOf(const Json& cloud, const Role& role) {
  if (role.regions.empty()) return cloud;
  Json view = cloud;
  const auto keep = [&](Json& members) {
    for (auto member = members.begin(); member != members.end();) {
      member = role.regions.contains(member.key()) ? std::next(member) : members.erase(member);
    }
  };
  if (view.contains("region")) keep(view["region"]);
  if (view.contains("config") && view["config"].contains("vlanAssignment")) {
    keep(view["config"]["vlanAssignment"]);
  }
  normalise(view);
  return view;
}

// Steps.

bool Model::apply(const Json& patch) {
  Json cloud = present().cloud;
  cloud.merge_patch(patch);
  if (!cloud.is_object() || !isValid(cloud)) return false;
  normalise(cloud);
  auto next = std::make_shared<State>(present());
  std::set<std::string> changed, gone;
  compare(next->cloud, cloud, changed, gone);
  next->cloud = std::move(cloud);
  const uint64_t revision = states_.size();
  for (const std::string& place : gone) {
    next->changed.erase(place);
    uncertain_.erase(place);
  }
  for (const std::string& place : changed) {
    next->changed[place] = revision;
    uncertain_.erase(place);
  }
  const Json none = Json::object();
  const Json& regions = next->cloud.contains("region") ? next->cloud["region"] : none;
  std::erase_if(next->sync, [&](const auto& entry) { return !regions.contains(entry.first); });
  for (const auto& [name, region] : regions.items()) {
    next->sync.try_emplace(name);
    const Json* named = patch.is_object() ? find(patch, {"region", name}) : nullptr;
    if (named != nullptr && named->is_object()) write(*next, name, *named);
  }
  states_.push_back(std::move(next));
  return true;
}

// The switch's side of the protocol, for the scalars that a patch names.
void Model::write(State& state, const std::string& region, const Json& named) const {
  RegionSync& sync = state.sync[region];
  const Json& stored = state.cloud["region"][region];
  const auto value = [&](const char* name) { return stored.value(name, std::string()); };
  const std::string requester = value("requester"), requestId = value("requestId");
  const size_t requests = named.count("requester") + named.count("requestId");
  for (size_t i = 0; i < requests; ++i) {
    if (requestId.empty() && requester.empty()) {
      sync.owner = sync.requestId = "";
    } else if (!requestId.empty() && sync.requestId.empty() &&
               (sync.owner.empty() || sync.owner == requester)) {
      sync.owner = requester;
      sync.requestId = requestId;
    }
  }
  if (named.contains("syncHeartbeat")) sync.due = now() + timeout_;
  if (!named.contains("syncStatus")) return;
  const std::string status = value("syncStatus");
  if (status == "syncComplete") {
    if (sync.status != "syncInProgress") return;
    sync.due = kNever;
    sync.owner = sync.requestId = "";
  }
  if (status == "syncInProgress") sync.due = now() + timeout_;
  sync.before = std::exchange(sync.status, status);
}

Nanoseconds Model::nextTimer() const {
  Nanoseconds next = kNever;
  if (isBlocked_) return next;
  for (const auto& [name, sync] : present().sync) next = std::min(next, sync.due);
  return next;
}

std::string Model::expire() {
  const Nanoseconds due = nextTimer();
  if (due > now()) {
    return due == kNever ? "a timer fired, and none is armed"
                         : "a timer fired " + std::to_string(due - now()) + " ns early";
  }
  auto next = std::make_shared<State>(present());
  for (auto& [name, sync] : next->sync) {
    if (sync.due != due) continue;
    const Json before = sync.published();
    sync.due = kNever;
    sync.before = std::exchange(sync.status, "syncTimedOut");
    sync.owner = sync.requestId = "";
    if (sync.published() == before) {
      states_.back() = std::move(next);
    } else {
      states_.push_back(std::move(next));
    }
    break;
  }
  settle();
  return {};
}

// Requests.

Prediction Model::take(uint64_t number, const RequestText& request, const Role& role,
                       bool hasWritten) {
  const auto path = pathOf(request.target);
  const uint64_t before = revision();
  Prediction made;
  if (path.size() > 2 && path[1] == "region") {
    made = sync(number, request, role, path);
  } else if (request.method == "GET") {
    made = read(request, role, path);
  } else {
    made = change(request, role, hasWritten);
    made.isWrite = true;
    const std::string* key = header(request, "idempotency-key");
    if (key != nullptr && (made.status == 200 || made.status == 201) &&
        !parameterOf(request.target, "dry-run")) {
      remembered_.try_emplace(
          {role.name, *key}, Remembered{request.method + request.target + '\n' + request.body, made,
                                        number, revision() > before ? revision() : 0, false});
    }
    settle();
  }
  made.at = revision();
  return made;
}

Prediction Model::read(const RequestText& request, const Role& role,
                       const std::vector<std::string>& path) const {
  Prediction made;
  made.isRead = true;
  made.readFrom = revision();
  if (const auto wait = parameterOf(request.target, "wait")) {
    made.waits = true;
    made.readFrom = std::stoull(*wait);
    return made;
  }
  made.revision = revision();
  if (path[1] == "output") return made;
  const std::vector<std::string> place(path.begin() + 2, path.end());
  const Json view = viewOf(present().cloud, role);
  const Json* found = find(view, place);
  if (found == nullptr && !(place.size() == 1 && place[0] == "region")) return refusal(404);
  made.body = found == nullptr ? Json::object() : *found;
  if (place.size() >= 2 && place.size() <= 4 && !uncertain_.contains(keyOf(place))) {
    made.etag = present().changed.at(keyOf(place));
  }
  return made;
}

std::optional<Prediction> Model::checkLock(const RequestText& request, const Role& role,
                                           const std::set<std::string>& regions) const {
  const std::string* id = header(request, "sync-request-id");
  if (id == nullptr && (!requireLock_ || role.isAdmin)) return std::nullopt;
  for (const std::string& region : regions) {
    const auto sync = present().sync.find(region);
    if (sync == present().sync.end()) continue;
    if (id == nullptr) return refusal(428);
    if (sync->second.requestId != *id) return refusal(409);
  }
  return std::nullopt;
}

Prediction Model::change(const RequestText& request, const Role& role, bool hasWritten) {
  const auto path = pathOf(request.target);
  const bool isBatch = path[1] == "batch";
  const bool isDry = parameterOf(request.target, "dry-run").has_value();
  const std::vector<std::string> place(path.begin() + 2, path.end());
  if (!role.writes) return refusal(403);
  if (!place.empty() && place.size() >= 2 && !role.sees(place[1])) return refusal(403);
  Json body;
  Json patch;
  if (request.method == "DELETE") {
    patch = patchAt(place, nullptr);
  } else {
    body = Json::parse(request.body, nullptr, false);
    if (body.is_discarded()) return refusal(400);
    patch = isBatch ? body : patchAt(place, body);
    if (!isBatch && !mayTouch(role, touchedBy(patch))) return refusal(403);
  }
  const std::string* key = header(request, "idempotency-key");
  if (key != nullptr && !isDry) {
    const auto found = remembered_.find({role.name, *key});
    if (found != remembered_.end() && found->second.mayBeLost && hasWritten) {
      remembered_.erase(found);
    } else if (found != remembered_.end()) {
      const bool isSame =
          found->second.fingerprint == request.method + request.target + '\n' + request.body;
      Prediction made = isSame ? found->second.prediction : refusal(422);
      // Where it is lost, the request is made, and refused.
      if (found->second.mayBeLost) made.others = {404, 409, 412, 422, 428};
      if (found->second.mayBeLost && isBlocked_) made.others.insert(507);
      return made;
    }
  }
  if (isBlocked_ && !isDry) return refusal(507);
  if (isBatch) return batch(request, body, role);
  const Json* found = find(present().cloud, place);
  if (request.method == "DELETE" && found == nullptr) return refusal(404);
  if (const std::string* match = header(request, "if-match")) {
    if (found == nullptr) return refusal(412);
    const std::string name = keyOf(place);
    const uint64_t etag = place.empty() ? revision() : present().changed.at(name);
    const bool matches =
        uncertain_.contains(name) ? hasWritten : *match == '"' + std::to_string(etag) + '"';
    if (!matches) {
      Prediction made = refusal(412);
      if (!uncertain_.contains(name)) {
        made.etag = etag;
      } else {
        // It may have matched, and something else was wrong.
        made.others = {409, 422, 428};
        if (isDry) made.others.insert(200);
      }
      return made;
    }
  }
  if (header(request, "if-none-match") != nullptr && (found != nullptr || place.empty())) {
    return refusal(412);
  }
  Touched touched = touchedBy(patch);
  if (touched.all) {
    for (const auto& [name, sync] : present().sync) touched.regions.insert(name);
  }
  if (auto refused = checkLock(request, role, touched.regions)) return *refused;
  if (isDry) {
    Json cloud = present().cloud;
    cloud.merge_patch(patch);
    if (!cloud.is_object() || !isValid(cloud)) return refusal(422);
    return {.status = 200, .revision = revision()};
  }
  if (request.method == "PUT") return replace(place[1], body);
  if (!apply(patch)) return refusal(422);
  return {.status = 200, .revision = revision()};
}

Prediction Model::replace(const std::string& region, const Json& body) {
  const Json* old = find(present().cloud, {"region", region});
  Json document{{"region", {{region, body}}}};
  if (!body.is_object() || !isValid(document)) return refusal(422);
  normalise(document);
  const Json wanted = document["region"][region];
  const Json none = Json::object();
  const Json before = old == nullptr ? none : withoutScalars(*old);
  uint64_t count = 0;
  Json patch = Json::object();
  for (const std::string& collection : collectionsOfRegion()) {
    const Json& now = wanted.contains(collection) ? wanted[collection] : none;
    const Json& then = before.contains(collection) ? before[collection] : none;
    std::set<std::string> names;
    for (const auto& [key, value] : now.items()) names.insert(key);
    for (const auto& [key, value] : then.items()) names.insert(key);
    for (const std::string& key : names) {
      if (now.contains(key) && then.contains(key) && now[key] == then[key]) continue;
      ++count;
      Json& into = patch[collection][key];
      if (!now.contains(key)) continue;
      into = now[key];
      if (!then.contains(key)) continue;
      for (const auto& [member, value] : then[key].items()) {
        if (!now[key].contains(member)) into[member] = nullptr;
      }
      if (collection == "portBinding" && then[key].contains("portToHostBinding")) {
        for (const auto& [host, value] : then[key]["portToHostBinding"].items()) {
          Json& hosts = into["portToHostBinding"];
          if (!hosts.is_object()) continue;
          if (!hosts.contains(host)) {
            hosts[host] = nullptr;
          } else if (value.contains("segment")) {
            for (const auto& [level, segment] : value["segment"].items()) {
              if (!hosts[host].contains("segment") || !hosts[host]["segment"].contains(level)) {
                hosts[host]["segment"][level] = nullptr;
              }
            }
          }
        }
      }
    }
  }
  Prediction made;
  if (old != nullptr && count == 0) {
    made.revision = revision();
    made.members = Json{{"changed", 0}};
    return made;
  }
  if (!apply({{"region", {{region, patch}}}})) return refusal(422);
  made.status = old == nullptr ? 201 : 200;
  made.revision = revision();
  made.members = Json{{"changed", count}};
  return made;
}

Prediction Model::batch(const RequestText& request, const Json& body, const Role& role) {
  if (!body.is_array()) return refusal(400);
  Json results = Json::array();
  for (const Json& patch : body) {
    Touched touched = touchedBy(patch);
    if (!mayTouch(role, touched)) {
      results.push_back(403);
      continue;
    }
    if (touched.all) {
      for (const auto& [name, sync] : present().sync) touched.regions.insert(name);
    }
    if (const auto refused = checkLock(request, role, touched.regions)) {
      results.push_back(refused->status);
    } else if (apply(patch)) {
      results.push_back({{"revision", revision()}});
    } else {
      results.push_back(422);
    }
  }
  Prediction made;
  made.members = std::move(results);  // an array: a revision, or the status of a problem
  return made;
}

// The sync protocol.

Json Model::statusOf(const std::string& region) const {
  const RegionSync& sync = present().sync.at(region);
  Json status{{"syncStatus", sync.status},
              {"oldSyncStatus", sync.before},
              {"owner", sync.owner},
              {"requestId", sync.requestId},
              {"waiting", lineOf(region)}};
  if (sync.due == kNever) {
    status["expiresIn"] = nullptr;
  } else {
    status["expiresIn"] = std::max(0.0, static_cast<double>(sync.due - now()) / 1e9);
  }
  return status;
}

size_t Model::lineOf(const std::string& region) const {
  const auto line = lines_.find(region);
  return line == lines_.end() ? 0 : line->second.size();
}

Prediction Model::sync(uint64_t number, const RequestText& request, const Role& role,
                       const std::vector<std::string>& path) {
  const std::string& region = path[2];
  const bool isThere = present().sync.contains(region);
  Prediction made;
  if (request.method == "GET") {
    if (!isThere || !role.sees(region)) return refusal(404);
    made.members = statusOf(region);
    return made;
  }
  made.isWrite = true;
  if (!role.writes || !role.sees(region)) return refusal(403);
  const bool isForced = parameterOf(request.target, "force").has_value();
  if (isForced && !role.isAdmin) return refusal(403);
  const auto refused = [&](unsigned status) {
    Prediction prediction = refusal(status);
    prediction.isWrite = true;
    return prediction;
  };
  if (!isThere) return refused(404);
  if (isBlocked_) return refused(507);
  const RegionSync& held = present().sync.at(region);
  const auto at = [&](Json scalars) { return Json{{"region", {{region, std::move(scalars)}}}}; };
  const std::string call = path.back();
  if (call == "lock" && request.method == "POST") {
    const Json body = Json::parse(request.body);
    const std::string requester = body["requester"], requestId = body["requestId"];
    if (held.owner != requester || held.requestId != requestId) {
      if (held.isHeld() || lineOf(region) > 0) {
        const auto wait = static_cast<Nanoseconds>(body.value("wait", 0.0) * 1e9);
        if (wait == 0) return refused(409);
        lines_[region].push_back({number, requester, requestId, now() + wait});
        made.waits = true;
        return made;
      }
      apply(at({{"requester", requester}, {"requestId", requestId}}));
      made.revision = revision();
    }
    made.members = statusOf(region);
    settle();
    return made;
  }
  if (!isForced) {
    const std::string* id = header(request, "sync-request-id");
    if (id == nullptr) return refused(428);
    if (held.requestId != *id || !held.isHeld()) return refused(409);
  }
  if (call == "start") {
    apply(at({{"syncStatus", "syncInProgress"}}));
  } else if (call == "heartbeat") {
    const Json& stored = present().cloud["region"][region];
    apply(at({{"syncHeartbeat", stored.value("syncHeartbeat", 0) + 1}}));
  } else if (call == "complete") {
    if (held.status != "syncInProgress") return refused(409);
    apply(at({{"syncStatus", "syncComplete"}}));
  } else {
    apply(at({{"requester", ""}, {"requestId", ""}}));
  }
  made.revision = revision();
  made.members = statusOf(region);
  settle();
  return made;
}

// The lock goes to who waits.
void Model::settle() {
  for (bool goesOn = true; goesOn;) {
    goesOn = false;
    for (auto& [region, line] : lines_) {
      if (line.empty()) continue;
      const auto answer = [&](const Waiter& waiter, unsigned status) {
        Prediction made;
        made.status = status;
        made.isWrite = true;
        made.at = revision();
        if (status == 200) {
          made.revision = revision();
          made.members = Json{{"owner", waiter.requester}, {"requestId", waiter.requestId}};
        }
        granted_[waiter.number] = std::move(made);
      };
      const auto found = present().sync.find(region);
      if (found == present().sync.end()) {
        for (const Waiter& waiter : line) answer(waiter, 404);
        line.clear();
        continue;
      }
      std::erase_if(line, [&](const Waiter& waiter) {
        if (found->second.owner != waiter.requester ||
            found->second.requestId != waiter.requestId) {
          return false;
        }
        answer(waiter, 200);
        return true;
      });
      if (line.empty() || found->second.isHeld()) continue;
      const Waiter first = line.front();
      line.pop_front();
      apply({{"region",
              {{region, {{"requester", first.requester}, {"requestId", first.requestId}}}}}});
      answer(first, 200);
      goesOn = true;
      break;
    }
  }
}

void Model::abandon(uint64_t number) {
  for (auto& [region, line] : lines_) {
    std::erase_if(line, [&](const Waiter& waiter) { return waiter.number == number; });
  }
}

std::string Model::lineTimedOut(const std::string& region, const std::string& requester,
                                const std::string& requestId) {
  auto& line = lines_[region];
  for (auto waiter = line.begin(); waiter != line.end(); ++waiter) {
    if (waiter->requester != requester || waiter->requestId != requestId) continue;
    if (waiter->deadline > now() + 1000) continue;
    Prediction made = refusal(409);
    made.isWrite = true;
    made.at = revision();
    granted_[waiter->number] = std::move(made);
    line.erase(waiter);
    return {};
  }
  return {};
}

// The disk.

void Model::goBackTo(uint64_t revision, const std::set<uint64_t>& acknowledged) {
  std::set<std::string> changed, gone;
  for (uint64_t later = revision + 1; later < states_.size(); ++later) {
    compare(at(later - 1).cloud, at(later).cloud, changed, gone);
  }
  states_.resize(revision + 1);
  changed.merge(gone);
  for (const std::string& place : changed) {
    if (present().changed.contains(place)) uncertain_.insert(place);
  }
  std::erase_if(remembered_, [&](const auto& entry) { return entry.second.revision > revision; });
  // Without a revision of its own a reply is remembered for certain where it was acknowledged.
  for (auto& [key, entry] : remembered_) {
    if (entry.revision == 0 && !acknowledged.contains(entry.number)) entry.mayBeLost = true;
  }
}

void Model::blockedIs(bool isBlocked) {
  if (isBlocked_ && !isBlocked) restartTimers();
  isBlocked_ = isBlocked;
}

void Model::restartTimers() {
  auto next = std::make_shared<State>(present());
  for (auto& [name, sync] : next->sync) {
    if (sync.due != kNever) sync.due = now() + timeout_;
  }
  states_.back() = std::move(next);
}

void Model::restartedAt(uint64_t revision, const std::set<uint64_t>& acknowledged) {
  goBackTo(revision, acknowledged);
  lines_.clear();
  isBlocked_ = false;
  restartTimers();
}

}  // namespace sim
