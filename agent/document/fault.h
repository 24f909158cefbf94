// What is wrong with an input, and where: the text of every refusal.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "agent/json/json_tree.h"

namespace vnagent {

struct Fault {
  std::string place;  // JSON Pointer into the cloud document, or into the event around it
  std::string text;   // the value and the rule that it breaks
  // In the text of the input. Of something that the text does not name: of the nearest around it.
  JsonPosition position;

  std::string message() const { return place + ": " + text; }
  friend bool operator==(const Fault&, const Fault&) = default;
};

// Collects the faults of one input, each once. Places count from the value that the input is about:
// in an event that is the patch inside it.
class Faults {
 public:
  // `found` is what was found before.
  explicit Faults(const JsonValue& root, std::vector<Fault> found = {});

  // A value that is flawed has a fault already, and gets no other.
  void add(const JsonValue& at, std::string text);
  // `place` may be one that the input does not name.
  void add(std::string place, std::string text);

  bool none() const { return found_.empty(); }
  // All of them, in the order of their positions.
  std::vector<Fault> take();

 private:
  void add(const JsonValue& at, Fault fault);

  const JsonValue& root_;
  std::vector<Fault> found_;
  std::unordered_set<std::string> seen_;  // messages
};

}  // namespace vnagent
