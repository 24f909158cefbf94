// A value of one JSON tree at a place of another: the merge patch that has it there.
//
// It refers to the texts of the first tree, which must outlive it. For small values: a large tree
// is better freed before what it says is made. Any thread, one at a time.
#pragma once

#include <cstdint>
#include <memory_resource>

#include "agent/json/json_tree.h"
#include "agent/live/place.h"

namespace vnagent {

class PlacedTree {
 public:
  PlacedTree(const JsonValue& value, const Place& place);
  PlacedTree(const PlacedTree&) = delete;
  PlacedTree& operator=(const PlacedTree&) = delete;

  const JsonValue& root() const { return *root_; }

 private:
  JsonValue* add(const JsonValue& value, const JsonValue* parent);
  const JsonValue** newMembers(size_t count);
  void addMembers(const JsonValue& of, JsonValue& to);

  std::pmr::monotonic_buffer_resource arena_{size_t{1} << 12};
  const JsonValue* root_ = nullptr;
  uint32_t count_ = 0;
};

}  // namespace vnagent
