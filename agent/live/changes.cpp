#include "agent/live/changes.h"

#include <algorithm>

#include "agent/live/body.h"
#include "agent/live/placed_tree.h"
#include "agent/live/region_difference.h"
#include "agent/live/view.h"

namespace vnagent {
namespace {

// The tree of a patch with a longer text is freed before the machines change.
constexpr size_t kSmallPatch = size_t{1} << 16;

std::string revisionText(uint64_t revision) {
  return "{\"revision\": " + std::to_string(revision) + '}';
}

// Notes each null in the body of a replacement.
void refuseNulls(const JsonValue& value, Faults& faults) {
  for (const JsonValue* member : value.all()) {
    if (member->isNull()) faults.add(*member, "null removes, and a replacement has no nulls");
    if (member->isObject()) refuseNulls(*member, faults);
  }
}

// The name of a region that a fault's text shows and the principal does not see.
bool namesHidden(const std::string& text, const Principal& principal) {
  constexpr std::string_view kBefore = "region \"";
  for (size_t at = text.find(kBefore); at != text.npos; at = text.find(kBefore, at + 1)) {
    const size_t begin = at + kBefore.size();
    const size_t end = text.find('"', begin);
    if (end == text.npos || !principal.mayRead(text.substr(begin, end - begin))) return true;
  }
  return false;
}

}  // namespace

Refusal refusalOf(std::vector<Fault> faults, const Principal& principal) {
  Refusal refusal{"rule-broken", ""};
  if (!principal.isRestricted()) {
    refusal.detail = faults.front().message();
    refusal.faults = std::move(faults);
    return refusal;
  }
  for (Fault& fault : faults) {
    const auto place = placeOfPointer(fault.place);
    const bool isOwn =
        place && place->size() >= 2 && (*place)[0] == "region" && principal.mayRead((*place)[1]);
    const bool isDocument = place && place->size() < 2;
    if (!isOwn && !isDocument) continue;
    if (namesHidden(fault.text, principal)) {
      fault.text = "it is in another region too, and may be in one region only";
    }
    refusal.faults.push_back(std::move(fault));
  }
  refusal.detail = refusal.faults.empty()
                       ? "a port or host of the change is in another region, and may be in one only"
                       : refusal.faults.front().message();
  return refusal;
}

// What a request may do.

Changes::Touched Changes::touchedBy(const JsonValue* patch, const Place& place) {
  Touched touched;
  if (place.size() >= 2) {
    if (place[0] == "region") touched.regions.push_back(place[1]);
    touched.config = place[0] == "config";
    return touched;
  }
  // A deletion has no patch, and removes what is at the place.
  const bool removes = patch == nullptr || patch->isNull();
  const auto touchRegions = [&](const JsonValue* regions) {
    if (regions == nullptr) return;
    touched.all = regions->isNull();
    if (!regions->isObject()) return;
    for (const JsonValue* region : regions->all()) touched.regions.emplace_back(region->key);
  };
  if (place.size() == 1) {
    touched.config = place[0] == "config";
    if (place[0] != "region") return touched;
    if (removes) {
      touched.all = true;
    } else {
      touchRegions(patch);
    }
    return touched;
  }
  if (removes || !patch->isObject()) {
    touched.all = true;
    touched.config = true;
    return touched;
  }
  touched.config = patch->find("config") != nullptr;
  touchRegions(patch->find("region"));
  return touched;
}

bool Changes::mayTouch(const Principal& principal, const Touched& touched) {
  if (!principal.isRestricted()) return true;
  return !touched.all && !touched.config &&
         std::ranges::all_of(touched.regions,
                             [&](const std::string& name) { return principal.mayRead(name); });
}

std::optional<Refusal> Changes::checkRole(const Request& request, const Route& route) {
  const Principal& principal = *request.principal;
  if (!principal.mayWrite()) return Refusal{"forbidden", "the principal may only read"};
  const bool namesRegion = route.place.size() >= 2 && route.place[0] == "region";
  const bool namesConfig = !route.place.empty() && route.place[0] == "config";
  if (principal.isRestricted() &&
      (namesConfig || (namesRegion && !principal.mayRead(route.place[1])))) {
    return Refusal{"forbidden", "the principal may change its own regions only"};
  }
  if (request.method == "DELETE") {
    const Touched touched = touchedBy(nullptr, route.place);
    if (mayTouch(principal, touched)) return std::nullopt;
    return Refusal{"forbidden", "the principal may change its own regions only"};
  }
  return std::nullopt;
}

std::optional<Refusal> Changes::readBody(const Request& request, const Route& route,
                                         std::optional<JsonTree>& body) {
  if (request.method == "DELETE") return std::nullopt;
  if (auto fault =
          checkMediaType(request, request.method == "PATCH" ? kMergePatchType : kJsonType)) {
    return fault;
  }
  if (auto fault = vnagent::readBody(request, body)) return fault;
  const JsonValue& root = body->root();
  if (route.subject == Subject::kBatch) {
    if (root.kind == JsonValue::Kind::kArray) return std::nullopt;
    return Refusal{"bad-request", "the body is to be an array of patches"};
  }
  if (mayTouch(*request.principal, touchedBy(&root, route.place))) return std::nullopt;
  return Refusal{"forbidden", "the principal may change its own regions only"};
}

// Checks against the document.

std::optional<Refusal> Changes::checkPlace(const ChangeRequest& change) const {
  const bool removes = change.request.method == "DELETE";
  if (!removes && !change.conditions.given()) return std::nullopt;
  const Place& place = change.route.place;
  const bool exists = hasPlace(cloud_.document(), place);
  if (!exists && removes) return Refusal{"not-found", "there is nothing at this place"};
  const auto etag = exists ? std::optional(cloud_.etags().of(place)) : std::nullopt;
  return change.conditions.refuseChange(etag);
}

std::optional<LockHolder> Changes::holderOf(std::string_view region) const {
  const std::vector<std::string> place{"regionStatus", std::string(region)};
  const OutputPart part = cloud_.session().outputAt(place);
  if (part.depth < 2) return std::nullopt;
  const RegionOutput& status = part.document.regionStatus->front();
  if (status.owner->empty() && status.requestId->empty()) return std::nullopt;
  return LockHolder{std::string(*status.owner), std::string(*status.requestId)};
}

std::optional<Refusal> Changes::checkLock(const Request& request, const Touched& touched) const {
  const std::string* id = request.header("sync-request-id");
  if (id == nullptr && (!requireLock_ || request.principal->isAdmin())) return std::nullopt;
  std::vector<std::string> regions = touched.regions;
  if (touched.all) {
    for (const auto& [name, region] : cloud_.document().region) regions.push_back(name);
  }
  for (const std::string& region : regions) {
    if (!cloud_.document().region.contains(region)) continue;
    if (id == nullptr) {
      return Refusal{"lock-required", "a change of a region needs Sync-Request-Id"};
    }
    const auto holder = holderOf(region);
    if (holder && holder->requestId == *id) continue;
    return Refusal{
        "lock-held", "the lock of the region does not belong to this request", {}, true, holder};
  }
  return std::nullopt;
}

// Changes.

ChangeReply Changes::make(const ChangeRequest& change, const Remember& remember) {
  if (change.route.subject == Subject::kBatch) return makeEach(change, remember);
  if (auto refusal = checkPlace(change)) return {.refusal = std::move(refusal)};
  const JsonValue* body = change.body ? &change.body->root() : nullptr;
  if (auto refusal = checkLock(change.request, touchedBy(body, change.route.place))) {
    return {.refusal = std::move(refusal)};
  }
  if (change.request.method == "PUT") return replace(change, remember);
  const JsonValue null;
  if (body == nullptr) body = &null;
  std::string patch = patchAt(change.route.place, jsonText(*body));
  std::optional<PlacedTree> tree;
  if (patch.size() <= kSmallPatch) tree.emplace(*body, change.route.place);
  return apply(change, std::move(patch), tree ? &tree->root() : nullptr, remember,
               [](uint64_t revision) { return std::pair(200U, revisionText(revision)); });
}

ChangeReply Changes::apply(const ChangeRequest& change, std::string patch, const JsonValue* tree,
                           const Remember& remember,
                           const std::function<std::pair<unsigned, std::string>(uint64_t)>& reply) {
  ChangeReply made;
  LiveStep step = cloud_.apply(std::move(patch), tree, [&](Record& record) {
    std::tie(made.status, made.body) = reply(record.revision);
    if (remember) remember(record, made.status, made.body);
    made.isRemembered = true;
  });
  if (!step.faults.empty()) {
    made.refusal = refusalOf(std::move(step.faults), change.principal());
  }
  made.regions = std::move(step.regions);
  return made;
}

ChangeReply Changes::replace(const ChangeRequest& change, const Remember& remember) {
  const JsonValue& body = change.body->root();
  const std::string& name = change.route.place[1];
  Faults nulls(body);
  refuseNulls(body, nulls);
  if (!nulls.none()) {
    std::vector<Fault> faults = nulls.take();
    for (Fault& fault : faults) fault.place.insert(0, pointerOf(change.route.place));
    return {.refusal = refusalOf(std::move(faults), change.principal())};
  }
  const std::string whole = patchAt(change.route.place, jsonText(body));
  CloudDocument wanted;
  Outcome checked = wanted.apply(JsonTree::parse(whole).root());
  if (!checked.faults.empty()) {
    return {.refusal = refusalOf(std::move(checked.faults), change.principal())};
  }
  const auto& wantedRegions = wanted.state().region;
  const auto wantedRegion = wantedRegions.find(name);
  if (wantedRegion == wantedRegions.end()) {
    // The body is no object, and takes the region out.
    Fault fault{pointerOf(change.route.place), "a region is an object", {}};
    return {.refusal = refusalOf({std::move(fault)}, change.principal())};
  }
  const auto present = cloud_.document().region.find(name);
  const bool isNew = present == cloud_.document().region.end();
  const RegionDifference difference =
      regionDifference(isNew ? nullptr : &present->second, wantedRegion->second);
  const auto text = [&](uint64_t revision) {
    return "{\"revision\": " + std::to_string(revision) +
           ", \"changed\": " + std::to_string(difference.members) + '}';
  };
  if (!isNew && difference.patch == "{}") return {.status = 200, .body = text(cloud_.revision())};
  return apply(change, patchAt(change.route.place, difference.patch), nullptr, remember,
               [&](uint64_t revision) { return std::pair(isNew ? 201U : 200U, text(revision)); });
}

// Each element by itself.
ChangeReply Changes::makeEach(const ChangeRequest& change, const Remember&) {
  ChangeReply made;
  for (const JsonValue* element : change.body->root().all()) {
    const Touched touched = touchedBy(element, {});
    std::optional<Refusal> refusal;
    if (!mayTouch(change.principal(), touched)) {
      refusal = Refusal{"forbidden", "the principal may change its own regions only"};
    } else {
      refusal = checkLock(change.request, touched);
    }
    if (!refusal) {
      ChangeReply each = apply(change, jsonText(*element), nullptr, {}, [](uint64_t revision) {
        return std::pair(200U, revisionText(revision));
      });
      made.regions.insert(made.regions.end(), each.regions.begin(), each.regions.end());
      refusal = std::move(each.refusal);
      if (!refusal) made.results.push_back(std::move(each.body));
    }
    if (!refusal) continue;
    made.results.push_back(problemText(*refusal));
    made.refused.emplace_back(refusal->type);
  }
  made.body = "[";
  for (const std::string& result : made.results) {
    if (made.body.size() > 1) made.body += ", ";
    made.body += result;
  }
  made.body += ']';
  return made;
}

}  // namespace vnagent
