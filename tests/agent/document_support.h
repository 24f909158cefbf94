// What the tests of the document layer share: a document driven by lines of JSON.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "agent/document/cloud_document.h"
#include "agent/document/input.h"
#include "agent/document/write_cloud.h"
#include "agent/plan/plan.h"
#include "tests/agent/describe_operation.h"

namespace vnagent {

using Lines = std::vector<std::string>;

// A document and what it says to each patch. JSON is written with ' for ", which no text here has.
class DocumentTest : public ::testing::Test {
 protected:
  explicit DocumentTest(PlanSettings settings = {true, 60}) : settings_(settings) {}

  // The operations of a patch that must be taken, all four steps in one list. "|" ends a step.
  Lines take(std::string_view patch) {
    const Plan plan = planOf(patch);
    Lines lines;
    for (const auto& step : plan.steps) {
      for (const Operation& operation : step) lines.push_back(describe(operation));
      lines.emplace_back("|");
    }
    return lines;
  }

  // The operations of one step.
  Lines take(Plan::Step step, std::string_view patch) {
    const Plan plan = planOf(patch);
    Lines lines;
    for (const Operation& operation : plan.steps.at(step)) {
      lines.push_back(describe(operation));
    }
    return lines;
  }

  // The plan of a patch that must be taken.
  Plan planOf(std::string_view patch) {
    const Outcome outcome = apply(patch);
    for (const Fault& fault : outcome.faults) ADD_FAILURE() << fault.message();
    if (outcome.change == nullptr) return {};
    return makePlan(document_.state(), *outcome.change, settings_);
  }

  // The faults of a patch, which must be refused and leave the document as it was.
  Lines refuse(std::string_view patch) {
    const std::string before = dump();
    const Outcome outcome = apply(patch);
    EXPECT_FALSE(outcome.faults.empty()) << patch << " was taken";
    EXPECT_EQ(dump(), before) << patch << " left something behind";
    Lines lines;
    for (const Fault& fault : outcome.faults) lines.push_back(fault.message());
    return lines;
  }

  // All that the document holds, indexes included.
  std::string dump() const;

  Outcome apply(std::string_view patch) {
    std::string text(patch);
    for (char& c : text) c = c == '\'' ? '"' : c;
    const JsonTree tree = JsonTree::parse(text);
    if (tree.error()) return {faultsOfText(tree, nullptr), nullptr};
    return document_.apply(tree.root(), faultsOfText(tree, &tree.root()));
  }

  PlanSettings settings_;
  CloudDocument document_;
};

inline std::string DocumentTest::dump() const {
  std::string out;
  JsonWriter json(out, JsonWriter::Style::kIndented);
  writeCloud(document_.state(), json);
  const auto put = [&out](const auto&... parts) { ((out += parts, out += ' '), ...); };
  for (const auto& [name, region] : document_.state().region) {
    for (const auto& [id, segment] : region.things[kSegmentRow]) {
      put(name, id, std::to_string(segment.present), std::to_string(segment.users.size()));
    }
    for (const auto& [id, port] : region.ports()) {
      put(id, std::to_string(document_.state().ports().elsewhere(id, Region{}) == &region));
    }
  }
  return out;
}

}  // namespace vnagent
