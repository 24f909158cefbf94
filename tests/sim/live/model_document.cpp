#include "tests/sim/live/model_document.h"

#include <map>
#include <utility>

namespace sim {
namespace {

const std::set<std::string> kCollections{"segment", "port", "portBinding", "network", "tenant"};
const std::map<std::string, Json> kScalars{{"requester", ""},
                                           {"requestId", ""},
                                           {"syncInterval", 0},
                                           {"syncHeartbeat", 0},
                                           {"syncStatus", "syncUnknown"}};

// A member; an empty object where there is none.
const Json& memberOf(const Json& parent, const std::string& name) {
  static const Json kNone = Json::object();
  const auto member = parent.find(name);
  return member == parent.end() ? kNone : *member;
}

void eraseEmpty(Json& json, const std::string& name) {
  const auto member = json.find(name);
  if (member != json.end() && member->is_object() && member->empty()) json.erase(member);
}

bool isObject(const Json& parent, const std::string& name) {
  return !parent.contains(name) || parent[name].is_object();
}

bool isSegment(const Json& segment) {
  return segment.is_object() && segment.size() == 2 &&
         segment.value("segmentationType", "") == "vlan" && segment.contains("segmentationId") &&
         segment["segmentationId"].is_number_integer() && segment["segmentationId"] >= 1 &&
         segment["segmentationId"] <= 4094;
}

bool isBinding(const Json& region, const std::string& port, const Json& binding) {
  if (!binding.is_object() || !isObject(binding, "portToHostBinding")) return false;
  if (!memberOf(region, "port").contains(port)) return false;
  for (const auto& [name, ignored] : binding.items()) {
    if (name != "portToHostBinding") return false;
  }
  for (const auto& [host, bound] : memberOf(binding, "portToHostBinding").items()) {
    if (!bound.is_object() || !isObject(bound, "segment")) return false;
    std::set<std::string> segments;
    std::set<int> ids;
    for (const auto& [level, segment] : memberOf(bound, "segment").items()) {
      const Json& known = memberOf(region, "segment");
      if (!segment.is_string() || !known.contains(segment.get<std::string>())) return false;
      if (!segments.insert(segment.get<std::string>()).second) return false;
      if (!ids.insert(known[segment.get<std::string>()]["segmentationId"].get<int>()).second) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

void normalise(Json& cloud) {
  if (cloud.contains("region")) {
    for (auto& [name, region] : cloud["region"].items()) {
      for (const auto& [scalar, value] : kScalars) {
        if (region.contains(scalar) && region[scalar] == value) region.erase(scalar);
      }
      if (region.contains("portBinding")) {
        for (auto& [port, binding] : region["portBinding"].items()) {
          if (binding.contains("portToHostBinding")) {
            for (auto& [host, bound] : binding["portToHostBinding"].items()) {
              eraseEmpty(bound, "segment");
            }
          }
          eraseEmpty(binding, "portToHostBinding");
        }
      }
      for (const std::string& collection : kCollections) eraseEmpty(region, collection);
    }
  }
  if (cloud.contains("config")) {
    Json& config = cloud["config"];
    if (config.contains("vlanAssignment")) {
      for (auto& [name, assignment] : config["vlanAssignment"].items()) {
        eraseEmpty(assignment, "vlan");
      }
    }
    eraseEmpty(config, "vlanAssignment");
  }
  eraseEmpty(cloud, "config");
  eraseEmpty(cloud, "region");
}

bool isValid(const Json& cloud) {
  for (const auto& [name, value] : cloud.items()) {
    if ((name != "region" && name != "config") || !value.is_object()) return false;
  }
  std::set<std::string> hosts, ports;
  for (const auto& [name, region] : memberOf(cloud, "region").items()) {
    if (!region.is_object()) return false;
    std::set<std::string> own;
    for (const auto& [member, value] : region.items()) {
      if (kScalars.contains(member)) continue;
      if (!kCollections.contains(member) || !value.is_object()) return false;
      for (const auto& [key, thing] : value.items()) {
        if (!thing.is_object()) return false;
        if (member == "segment" && !isSegment(thing)) return false;
        if (member == "port" && !ports.insert(key).second) return false;
        if (member == "portBinding") {
          if (!isBinding(region, key, thing)) return false;
          for (const auto& [host, bound] : memberOf(thing, "portToHostBinding").items()) {
            own.insert(host);
          }
        }
      }
    }
    for (const std::string& host : own) {
      if (!hosts.insert(host).second) return false;
    }
  }
  return true;
}

void compare(const Json& before, const Json& after, std::set<std::string>& changed,
             std::set<std::string>& gone) {
  const Json none = Json::object();
  const Json& regionsBefore = before.contains("region") ? before["region"] : none;
  const Json& regionsAfter = after.contains("region") ? after["region"] : none;
  std::set<std::string> names;
  for (const auto& [name, region] : regionsBefore.items()) names.insert(name);
  for (const auto& [name, region] : regionsAfter.items()) names.insert(name);
  for (const std::string& name : names) {
    const bool was = regionsBefore.contains(name), is = regionsAfter.contains(name);
    const Json old = was ? withoutScalars(regionsBefore[name]) : none;
    const Json now = is ? withoutScalars(regionsAfter[name]) : none;
    if (was == is && old == now) continue;
    (is ? changed : gone).insert(name);
    std::set<std::string> collections;
    for (const auto& [member, value] : old.items()) collections.insert(member);
    for (const auto& [member, value] : now.items()) collections.insert(member);
    for (const std::string& collection : collections) {
      const Json& oldMembers = old.contains(collection) ? old[collection] : none;
      const Json& newMembers = now.contains(collection) ? now[collection] : none;
      if (old.contains(collection) == now.contains(collection) && oldMembers == newMembers)
        continue;
      const std::string place = name + "/" + collection;
      (now.contains(collection) ? changed : gone).insert(place);
      for (const auto& [key, value] : oldMembers.items()) {
        if (!newMembers.contains(key)) gone.insert(place + "/" + key);
      }
      for (const auto& [key, value] : newMembers.items()) {
        if (!oldMembers.contains(key) || oldMembers[key] != value)
          changed.insert(place + "/" + key);
      }
    }
  }
}

Json patchAt(const std::vector<std::string>& place, Json value) {
  for (auto name = place.rbegin(); name != place.rend(); ++name) {
    value = Json{{*name, std::move(value)}};
  }
  return value;
}

const Json* find(const Json& document, const std::vector<std::string>& place) {
  const Json* json = &document;
  for (const std::string& name : place) {
    if (!json->is_object() || !json->contains(name)) return nullptr;
    json = &(*json)[name];
  }
  return json;
}

std::string keyOf(const std::vector<std::string>& place) {
  std::string key;
  for (size_t i = 1; i < place.size(); ++i) key += (key.empty() ? "" : "/") + place[i];
  return key;
}

Json withoutScalars(Json region) {
  for (const auto& [name, value] : kScalars) region.erase(name);
  return region;
}

const std::set<std::string>& collectionsOfRegion() {
  return kCollections;
}

}  // namespace sim
