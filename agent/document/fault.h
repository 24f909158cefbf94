// What is wrong with an input, and where: the text of every refusal.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "agent/json/json_tree.h"

namespace vnagent {

struct Fault {
  std::string place;  // JSON Pointer into the cloud document, or into the event around it
  std::string text;   // the value and the rule that it breaks

  std::string message() const { return place + ": " + text; }
  friend bool operator==(const Fault&, const Fault&) = default;
};

// Collects the faults of one input, each once. Places count from the value that the input is about:
// in an event that is the patch inside it.
class Faults {
 public:
  explicit Faults(const JsonValue& root) : root_(root) {}

  void add(const JsonValue& at, std::string text) { add(pointerTo(at, root_), std::move(text)); }
  void add(std::string place, std::string text) {
    Fault fault{std::move(place), std::move(text)};
    if (seen_.insert(fault.message()).second) found_.push_back(std::move(fault));
  }

  bool none() const { return found_.empty(); }
  // All of them, in the order in which they were found.
  std::vector<Fault> take() { return std::move(found_); }

 private:
  const JsonValue& root_;
  std::vector<Fault> found_;
  std::unordered_set<std::string> seen_;
};

}  // namespace vnagent
