#include "agent/live/etags.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "agent/document/kinds/document.h"

namespace vnagent {
namespace {

bool isEmpty(const vnagent::Region& region, size_t row) {
  return row == kPortBindingRow ? region.portBinding.empty() : region.things[row].empty();
}

bool hasMember(const vnagent::Region& region, size_t row, std::string_view name) {
  return row == kPortBindingRow ? region.portBinding.contains(name)
                                : region.things[row].contains(name);
}

const JsonValue& require(const JsonValue* value, JsonValue::Kind kind) {
  if (value == nullptr || value->kind != kind) throw std::runtime_error("the ETags are damaged");
  return *value;
}

uint64_t readRevision(const JsonValue* value) {
  const JsonValue& number = require(value, JsonValue::Kind::kInteger);
  return static_cast<uint64_t>(number.integer);
}

}  // namespace

void Etags::changed(std::span<const std::string_view> place, const CloudState& now,
                    uint64_t revision) {
  if (place[0] != kDocumentMembers[1].name) return;
  if (place.size() == 1) {
    region_.clear();
    return;
  }
  const auto regionNow = now.region.find(place[1]);
  if (regionNow == now.region.end()) {
    region_.erase(std::string(place[1]));
    return;
  }
  const auto [entry, added] = region_.try_emplace(std::string(place[1]));
  Region& region = entry->second;
  if (added) region.last = revision;
  if (place.size() == 2) {
    region = {revision, {}};
    for (size_t row = 0; row < kRegionCollections.size(); ++row) {
      if (isEmpty(regionNow->second, row)) continue;
      region.collection.emplace(kRegionCollections[row].name, Collection{revision, revision, {}});
    }
    return;
  }
  const auto kind = std::ranges::find(kRegionCollections, place[2], &CollectionRow::name);
  if (kind == kRegionCollections.end()) return;
  region.last = revision;
  if (place.size() == 3) {
    region.collection.erase(std::string(place[2]));
    return;
  }
  const auto [at, isNew] = region.collection.try_emplace(std::string(place[2]));
  Collection& collection = at->second;
  collection.last = revision;
  if (isNew) collection.first = revision;
  // What was added with its collection shares the entry of that.
  if (collection.first == revision) return;
  const auto row = static_cast<size_t>(kind - kRegionCollections.begin());
  if (hasMember(regionNow->second, row, place[3])) {
    collection.member.insert_or_assign(std::string(place[3]), revision);
  } else {
    collection.member.erase(std::string(place[3]));
  }
}

void Etags::goBackTo(uint64_t revision) {
  const auto limit = [&](uint64_t& of) { of = std::min(of, revision); };
  limit(document_);
  for (auto& [name, region] : region_) {
    limit(region.last);
    for (auto& [collectionName, collection] : region.collection) {
      limit(collection.last);
      limit(collection.first);
      for (auto& [key, last] : collection.member) limit(last);
    }
  }
}

void Etags::takenBack(const JsonValue& patch, const CloudState& now, uint64_t revision) {
  const JsonValue* regions = patch.find(kDocumentMembers[1].name);
  if (regions == nullptr || !regions->isObject()) {
    if (regions != nullptr) region_.clear();
    return;
  }
  for (const JsonValue* region : regions->all()) {
    const std::array<std::string_view, 2> place{regions->key, region->key};
    if (!region->isObject() || !region_.contains(region->key)) {
      changed(place, now, revision);
      continue;
    }
    for (const JsonValue* collection : region->all()) {
      if (!collection->isObject()) {
        changed(std::array{place[0], place[1], collection->key}, now, revision);
        continue;
      }
      for (const JsonValue* member : collection->all()) {
        changed(std::array{place[0], place[1], collection->key, member->key}, now, revision);
      }
    }
  }
}

uint64_t Etags::of(const Place& place) const {
  if (place.size() < 2 || place[0] != kDocumentMembers[1].name) return document_;
  const auto region = region_.find(place[1]);
  if (region == region_.end()) return document_;
  if (place.size() == 2) return region->second.last;
  const auto collection = region->second.collection.find(place[2]);
  if (collection == region->second.collection.end()) return document_;
  if (place.size() == 3) return collection->second.last;
  const auto member = collection->second.member.find(place[3]);
  return member == collection->second.member.end() ? collection->second.first : member->second;
}

void Etags::write(JsonWriter& json) const {
  json.open('{').key("document").number(document_).key("region").open('{');
  for (const auto& [name, region] : region_) {
    json.key(name).open('{').key("last").number(region.last).key("collection").open('{');
    for (const auto& [collectionName, collection] : region.collection) {
      json.key(collectionName).open('{').key("last").number(collection.last);
      json.key("first").number(collection.first).key("member").open('{');
      for (const auto& [key, revision] : collection.member) json.key(key).number(revision);
      json.close('}').close('}');
    }
    json.close('}').close('}');
  }
  json.close('}').close('}');
}

Etags Etags::read(const JsonValue& value) {
  constexpr auto kObject = JsonValue::Kind::kObject;
  Etags etags;
  etags.document_ = readRevision(require(&value, kObject).find("document"));
  for (const JsonValue* region : require(value.find("region"), kObject).all()) {
    Region& into = etags.region_[std::string(region->key)];
    into.last = readRevision(require(region, kObject).find("last"));
    for (const JsonValue* collection : require(region->find("collection"), kObject).all()) {
      Collection& members = into.collection[std::string(collection->key)];
      members.last = readRevision(require(collection, kObject).find("last"));
      members.first = readRevision(collection->find("first"));
      for (const JsonValue* member : require(collection->find("member"), kObject).all()) {
        members.member[std::string(member->key)] = readRevision(member);
      }
    }
  }
  return etags;
}

}  // namespace vnagent
