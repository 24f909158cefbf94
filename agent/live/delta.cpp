#include "agent/live/delta.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace vnagent {
namespace {

// What differs between two values that both exist; nothing where they are the same.
std::optional<Json> difference(const Json& before, const Json& after) {
  if (before == after) return std::nullopt;
  if (before.is_object() && after.is_object()) return mergePatch(before, after);
  return after;
}

// A value of a patch back: where it has the difference of an array only, that array.
Json valueBefore(const Json& back, const Json& after) {
  if (!back.is_array() || back.empty() || !back.front().is_array()) return back;
  const Json& added = back.at(0);
  const Json& removed = back.at(1);
  Json::array_t stays;
  std::ranges::set_difference(after, removed, std::back_inserter(stays));
  Json::array_t before;
  std::ranges::set_union(stays, added, std::back_inserter(before));
  return before;
}

}  // namespace

const Json* findPlace(const Json& value, const Place& place, size_t from) {
  const Json* at = &value;
  for (size_t i = from; i < place.size(); ++i) {
    if (!at->is_object()) return nullptr;
    const auto member = at->find(place[i]);
    if (member == at->end()) return nullptr;
    at = &*member;
  }
  return at;
}

Json mergePatch(const Json& before, const Json& after) {
  Json patch = Json::object();
  for (const auto& [key, value] : after.items()) {
    const auto was = before.find(key);
    if (was == before.end()) {
      patch[key] = value;
    } else if (auto differs = difference(*was, value)) {
      patch[key] = std::move(*differs);
    }
  }
  for (const auto& [key, value] : before.items()) {
    if (!after.contains(key)) patch[key] = nullptr;
  }
  return patch;
}

Delta Delta::of(std::string_view forward, std::string_view backward) {
  const auto read = [](std::string_view text) {
    return text.empty() ? Json::object() : Json::parse(text);
  };
  Delta delta;
  delta.root_ = nodeOf(read(forward), read(backward));
  return delta;
}

Delta::Node Delta::nodeOf(const Json& forward, const Json& backward) {
  Node node;
  for (const auto& [key, after] : forward.items()) {
    const auto before = backward.find(key);
    const bool existed = before != backward.end() && !before->is_null();
    Node& member = node.members[key];
    if (existed && after.is_object() && before->is_object()) {
      member = nodeOf(after, *before);
      continue;
    }
    member.whole = true;
    if (existed) member.before = valueBefore(*before, after);
    if (!after.is_null()) member.after = after;
  }
  return node;
}

void Delta::Node::then(Node later) {
  if (whole && later.whole) {
    after = std::move(later.after);
  } else if (whole) {
    later.applyTo(*after);
  } else if (later.whole) {
    undoIn(*later.before);
    *this = std::move(later);
  } else {
    for (auto& [key, member] : later.members) {
      const auto [mine, added] = members.try_emplace(key);
      if (added) {
        mine->second = std::move(member);
      } else {
        mine->second.then(std::move(member));
      }
    }
  }
}

void Delta::Node::applyTo(Json& value) const {
  for (const auto& [key, member] : members) {
    if (!member.whole) {
      member.applyTo(value[key]);
    } else if (member.after) {
      value[key] = *member.after;
    } else {
      value.erase(key);
    }
  }
}

void Delta::Node::undoIn(Json& value) const {
  for (const auto& [key, member] : members) {
    if (!member.whole) {
      member.undoIn(value[key]);
    } else if (member.before) {
      value[key] = *member.before;
    } else {
      value.erase(key);
    }
  }
}

std::optional<Json> Delta::Node::patch() const {
  if (whole) {
    if (before && after) return difference(*before, *after);
    if (after) return *after;
    return before ? std::optional(Json(nullptr)) : std::nullopt;
  }
  Json patch = Json::object();
  for (const auto& [key, member] : members) {
    if (auto inside = member.patch()) patch[key] = std::move(*inside);
  }
  return patch.empty() ? std::nullopt : std::optional(std::move(patch));
}

void Delta::then(Delta later) {
  root_.then(std::move(later.root_));
}

Json Delta::patch() const {
  return root_.patch().value_or(Json::object());
}

const Delta::Node* Delta::nearest(const Place& place, size_t& depth) const {
  const Node* node = &root_;
  for (depth = 0; depth < place.size() && !node->whole; ++depth) {
    const auto member = node->members.find(place[depth]);
    if (member == node->members.end()) return nullptr;
    node = &member->second;
  }
  return node;
}

std::optional<bool> Delta::existedBefore(const Place& place) const {
  size_t depth = 0;
  const Node* node = nearest(place, depth);
  if (node == nullptr) return std::nullopt;
  return !node->whole || (node->before && findPlace(*node->before, place, depth) != nullptr);
}

Delta::At Delta::at(const Place& place, bool existedBefore) const {
  size_t depth = 0;
  const Node* node = nearest(place, depth);
  if (node == nullptr) return {};
  if (!node->whole) {
    auto inside = node->patch();
    if (!inside) return {};
    return {true, true, std::move(*inside)};
  }
  const Json* after = node->after ? findPlace(*node->after, place, depth) : nullptr;
  if (after == nullptr) return {existedBefore, false, {}};
  const Json* before =
      existedBefore && node->before ? findPlace(*node->before, place, depth) : nullptr;
  if (before == nullptr) return {true, true, *after};
  auto inside = difference(*before, *after);
  if (!inside) return {};
  return {true, true, std::move(*inside)};
}

}  // namespace vnagent
