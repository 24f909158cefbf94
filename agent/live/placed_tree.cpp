#include "agent/live/placed_tree.h"

#include <new>
#include <string>
#include <string_view>

namespace vnagent {

PlacedTree::PlacedTree(const JsonValue& value, const Place& place) {
  JsonValue object;
  object.kind = JsonValue::Kind::kObject;
  object.size = 1;
  JsonValue* parent = nullptr;
  const JsonValue** at = &root_;
  std::string_view key;
  for (const std::string& name : place) {
    JsonValue* made = add(object, parent);
    made->key = key;
    key = name;
    *at = made;
    at = newMembers(1);
    made->members = at;
    parent = made;
  }
  JsonValue* made = add(value, parent);
  made->key = key;
  *at = made;
  addMembers(value, *made);
}

// Positions are in the order of the keys, as in the text that is written of a tree.
JsonValue* PlacedTree::add(const JsonValue& value, const JsonValue* parent) {
  auto* made = new (arena_.allocate(sizeof(JsonValue), alignof(JsonValue))) JsonValue(value);
  made->parent = parent;
  made->position = {1, ++count_};
  return made;
}

const JsonValue** PlacedTree::newMembers(size_t count) {
  void* memory = arena_.allocate(count * sizeof(JsonValue*), alignof(JsonValue*));
  return static_cast<const JsonValue**>(memory);
}

void PlacedTree::addMembers(const JsonValue& of, JsonValue& to) {
  if (of.size == 0) return;
  const JsonValue** members = newMembers(of.size);
  to.members = members;
  for (const JsonValue* member : of.all()) {
    JsonValue* made = add(*member, &to);
    *members++ = made;
    addMembers(*member, *made);
  }
}

}  // namespace vnagent
