// The rows of a monitor: the replies to "monitor", "monitor_cond" and "monitor_cond_since", and the
// notifications "update", "update2" and "update3".
//
// A row begins with the default of each column (an empty set or map, 0, ""), and each change says
// which columns to set and how:
//
//   forEachRow(updates, UpdateForm::kDifferences, [&](const RowChange& change) {
//     Row& row = change.isNew() ? (rows[change.uuid] = {}) : rows.at(change.uuid);
//     change.apply("tunnel_ips", row.tunnelIps) ...
//
// Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "agent/ovsdb/value.h"

namespace vnagent::ovsdb {

struct RowChange {
  enum class Kind : uint8_t {
    kInsert,   // a row that was unknown, with the columns that differ from their default
    kModify,   // differences: sets and maps have the elements that are to be toggled or replaced
    kReplace,  // whole values of columns
    kDelete,
  };

  Kind kind;
  std::string_view table;
  Uuid uuid;
  std::optional<simdjson::dom::object> columns;  // nothing for kDelete

  bool isNew() const { return kind == Kind::kInsert; }
  // The value of a column, or nothing where it is not named.
  std::optional<JsonElement> find(std::string_view column) const;
};

enum class UpdateForm : uint8_t {
  kOldAndNew,    // <table-updates> of RFC 7047
  kDifferences,  // <table-updates2>
};

// Calls `take` for each row, table by table. Throws ProtocolError.
void forEachRow(JsonElement updates, UpdateForm form,
                const std::function<void(const RowChange&)>& take);

// Applies a column to a set of atoms, which `read` makes of JSON. Does nothing where the change
// does not name it. Returns whether it does.
template <class Element, class Read>
bool applySet(const RowChange& change, const char* column, std::set<Element>& target,
              const Read& read) {
  const auto value = change.find(column);
  if (!value) return false;
  const bool isDifference = change.kind == RowChange::Kind::kModify;
  if (!isDifference) target.clear();
  forEachElement(*value, [&](JsonElement atom) {
    const Element element(read(atom));
    if (!target.insert(element).second && isDifference) target.erase(element);
  });
  return true;
}

// Likewise a map; `changed` is called for each key whose value is another now, with the value
// before and after, null for none. The pointers last for the call.
template <class Map, class ReadKey, class ReadValue, class Changed>
bool applyMap(const RowChange& change, const char* column, Map& target, const ReadKey& readKey,
              const ReadValue& readValue, const Changed& changed) {
  using Key = typename Map::key_type;
  using Value = typename Map::mapped_type;
  const auto value = change.find(column);
  if (!value) return false;
  const auto set = [&](const Key& key, const Value& now) {
    const auto [place, isNew] = target.try_emplace(key, now);
    if (isNew) {
      changed(key, static_cast<const Value*>(nullptr), &now);
    } else if (place->second != now) {
      const Value before = std::exchange(place->second, now);
      changed(key, &before, &now);
    } else {
      return false;
    }
    return true;
  };
  if (change.kind == RowChange::Kind::kModify) {
    forEachPair(*value, [&](JsonElement keyJson, JsonElement valueJson) {
      const Key key(readKey(keyJson));
      const Value now(readValue(valueJson));
      if (set(key, now)) return;
      // The same pair again: it is in the value before only.
      target.erase(key);
      changed(key, &now, static_cast<const Value*>(nullptr));
    });
    return true;
  }
  Map whole;
  forEachPair(*value, [&](JsonElement keyJson, JsonElement valueJson) {
    whole.insert_or_assign(Key(readKey(keyJson)), Value(readValue(valueJson)));
  });
  std::swap(target, whole);
  for (const auto& [key, before] : whole) {
    const auto found = target.find(key);
    if (found == target.end()) {
      changed(key, &before, static_cast<const Value*>(nullptr));
    } else if (found->second != before) {
      changed(key, &before, &found->second);
    }
  }
  for (const auto& [key, now] : target) {
    if (!whole.contains(key)) changed(key, static_cast<const Value*>(nullptr), &now);
  }
  return true;
}

}  // namespace vnagent::ovsdb
