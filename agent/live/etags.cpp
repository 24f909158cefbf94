#include "agent/live/etags.h"

#include <algorithm>
#include <stdexcept>

#include "agent/document/kinds/document.h"

namespace vnagent {
namespace {

bool isCollection(std::string_view name) {
  return std::ranges::find(kRegionCollections, name, &CollectionRow::name) !=
         kRegionCollections.end();
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

void Etags::changed(const JsonValue& patch, uint64_t revision) {
  document_ = revision;
  const JsonValue* regions = patch.find(kDocumentMembers[1].name);
  if (regions == nullptr) return;
  if (regions->isNull()) {
    region_.clear();
    return;
  }
  for (const JsonValue* member : regions->all()) {
    if (member->isNull()) {
      region_.erase(std::string(member->key));
      continue;
    }
    const auto [entry, added] = region_.try_emplace(std::string(member->key));
    if (added) entry->second.last = revision;
    regionChanged(entry->second, *member, revision);
  }
}

void Etags::regionChanged(Region& region, const JsonValue& patch, uint64_t revision) {
  for (const JsonValue* member : patch.all()) {
    if (!isCollection(member->key)) continue;
    region.last = revision;
    const auto [entry, added] = region.collection.try_emplace(std::string(member->key));
    Collection& collection = entry->second;
    collection.last = revision;
    if (added) {
      collection.first = revision;
      continue;
    }
    if (member->isNull()) {
      region.collection.erase(entry);
      continue;
    }
    for (const JsonValue* thing : member->all()) {
      if (thing->isNull()) {
        collection.member.erase(std::string(thing->key));
      } else {
        collection.member.insert_or_assign(std::string(thing->key), revision);
      }
    }
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
