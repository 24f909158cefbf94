// The difference between two revisions of a document, with what was there before: so differences
// can be put one after the other and stay exact.
//
//   Delta delta = Delta::of(record.output, record.outputBefore);
//   delta.then(Delta::of(next.output, next.outputBefore));
//   delta.patch()       // the merge patch from the first document to the last, nothing beside it
//
// Merge patches alone cannot be put together: {"a": null} and then {"a": {"x": 1}} is not
// {"a": {"x": 1}} where the first "a" had other members. Any thread, one at a time.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "agent/live/place.h"

namespace vnagent {

using Json = nlohmann::json;

// The merge patch from one value to another; both are objects.
Json mergePatch(const Json& before, const Json& after);

// What a place names below a value; null where it names nothing. Arrays have no places in them.
const Json* findPlace(const Json& value, const Place& place, size_t from = 0);

class Delta {
 public:
  // No difference.
  Delta() = default;

  // From the exact merge patches forward and back; empty texts for none. In the one back an array
  // may have the difference to that of the one forward: two arrays, of what comes back and of what
  // goes. (No document has arrays in arrays.)
  static Delta of(std::string_view forward, std::string_view backward);

  // Adds a difference that starts where this one ends.
  void then(Delta later);

  // Makes the document before of the one after.
  void undoIn(Json& document) const { root_.undoIn(document); }

  // The merge patch from before to after; an empty object for none.
  Json patch() const;

  // What became of one place.
  struct At {
    bool changed = false;
    bool existsAfter = false;  // where it has changed
    Json patch;                // where it exists: its value if it did not exist before, else the
                               // merge patch to be applied to it, or the new value of a scalar
  };
  At at(const Place& place, bool existedBefore) const;

  // Whether a place existed before, where the difference says so.
  std::optional<bool> existedBefore(const Place& place) const;

 private:
  // A value that was replaced, added or removed as a whole; or an object that stayed, with what
  // differs inside.
  struct Node {
    bool whole = false;
    std::optional<Json> before;  // of a whole one; nothing where it did not exist
    std::optional<Json> after;
    std::map<std::string, Node> members;  // of one that stayed

    void then(Node later);
    void applyTo(Json& value) const;
    void undoIn(Json& value) const;
    std::optional<Json> patch() const;
  };

  // The node that is nearest to a place, and how many of its names lead to it; null where nothing
  // on the way differs.
  const Node* nearest(const Place& place, size_t& depth) const;

  static Node nodeOf(const Json& forward, const Json& backward);

  Node root_;
};

}  // namespace vnagent
