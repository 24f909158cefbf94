// Fuzz target: a text as a cloud document. It is read, checked and taken or refused, and never more
// than that. What is refused leaves nothing behind; what is taken asks for nothing the second time.
#include "agent/document/cloud_document.h"

#include <algorithm>

#include "agent/document/input.h"
#include "agent/plan/plan.h"
#include "tests/fuzz/fuzz.h"

namespace {

using Fuzz::require;
using vnagent::CloudDocument;
using vnagent::CloudState;
using vnagent::JsonTree;
using vnagent::Plan;

bool isEmpty(const CloudState& state) {
  const auto none = [](const auto& all) {
    return std::ranges::all_of(all, [](const auto& set) { return set.empty(); });
  };
  return state.region.empty() && state.config.vlanAssignment.empty() && none(state.config.things) &&
         std::ranges::all_of(state.config.values, [](const auto& v) { return v.index() == 0; });
}

bool isPrintable(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= 0x20 && c <= 0x7e; });
}

void requireGoodFaults(const std::vector<vnagent::Fault>& faults, std::string_view text) {
  const auto lines = static_cast<uint32_t>(1 + std::ranges::count(text, '\n'));
  for (const auto& fault : faults) {
    require(!fault.text.empty(), "a fault says what is wrong");
    const uint32_t line = fault.position.line;
    require(line >= 1 && line <= lines, "a fault has a line of the text");
  }
}

void apply(const JsonTree& tree, std::string_view text, bool toggle) {
  CloudDocument document;
  const auto found = faultsOfText(tree, nullptr);
  const auto first = document.apply(tree.root(), found);
  requireGoodFaults(first.faults, text);
  const bool refused = !first.faults.empty();
  if (refused) {
    require(isEmpty(document.state()), "a refused document leaves nothing");
    require(first.change == nullptr, "a refused one has no change");
  }
  const auto faults = first.faults;
  const auto second = document.apply(tree.root(), found);
  require(second.faults == faults, "the second answer is the first");
  if (refused) return;
  const Plan plan = makePlan(document.state(), *second.change, {toggle, 60});
  require(plan.steps[Plan::kRemovals].empty(), "a document taken again removes nothing");
  require(plan.steps[Plan::kAdditions].empty(), "a document taken again adds nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto text = Fuzz::textOf(data, size);
  const JsonTree tree = JsonTree::parse(text);
  (void)readEvent(tree);
  if (const auto& error = tree.error()) {
    require(!error->text.empty() && isPrintable(error->text), "a fault of the text is printable");
    require(!faultsOfText(tree, nullptr).empty(), "what is not JSON is a fault");
    return 0;
  }
  for (const bool toggle : {true, false}) apply(tree, text, toggle);
  return 0;
}
