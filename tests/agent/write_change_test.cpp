// What a patch changed of the cloud document, as a merge patch, there and back: exactly the
// difference of what is printed before and after it.
#include "agent/document/write_change.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>

#include "agent/document/cloud_document.h"
#include "agent/document/write_cloud.h"
#include "tests/agent/document_support.h"
#include "tests/agent/merge_patch.h"

namespace vnagent {
namespace {

using nlohmann::json;

std::string quoted(std::string_view text) {
  std::string line(text);
  std::ranges::replace(line, '\'', '"');
  return line;
}

class WriteChange : public DocumentTest {
 protected:
  template <class Write>
  static std::string written(Write write) {
    std::string text;
    JsonWriter writer(text, JsonWriter::Style::kOneLine);
    write(writer);
    return text;
  }
  json printed() const {
    return json::parse(written([&](JsonWriter& writer) { writeCloud(document_.state(), writer); }));
  }

  // Applies a patch and holds its change to the difference, and the one back; returns the first.
  // The empty text where the patch is refused.
  std::string change(std::string_view patch) {
    const json before = printed();
    const Outcome outcome = apply(patch);
    if (!outcome.faults.empty()) {
      EXPECT_EQ(printed(), before) << patch;
      return {};
    }
    const auto changeIn = [&](Direction direction) {
      return written([&](JsonWriter& writer) {
        writeChange(document_.state(), *outcome.change, writer, direction);
      });
    };
    back_ = changeIn(Direction::kBack);
    EXPECT_EQ(json::parse(back_), difference(printed(), before)) << patch;
    std::string text = changeIn(Direction::kForward);
    EXPECT_EQ(json::parse(text), difference(before, printed())) << patch;
    return text;
  }

  std::string back_;  // the last one
};

constexpr std::string_view kWhole = R"({
  'config': {'vlanTypeDriver': 1, 'enabled': true, 'agentMode': 'a', 'mandatoryRegion': {'R': {}},
             'serviceAclTypeVrfMap': {'t': 'v'},
             'vlanAssignment': {'R': {'vlan': {'10': true, '11': false}}, 'S': {}}},
  'region': {'R': {
    'segment': {'x': {'segmentationType': 'vxlan', 'segmentationId': 5},
                'v': {'segmentationType': 'vlan', 'segmentationId': 10}},
    'port': {'p': {}, 'q': {'vlanType': 1}, 's': {}},
    'portBinding': {
      'p': {'portToHostBinding': {'h': {'segment': {'0': 'x', '1': 'v'}}, 'g': {}}},
      'q': {'portToSwitchInterfaceBinding': {
        'leaf': {'e1': {'host': 'b', 'segment': {'0': 'v'}}, 'e2': {'host': 'b'}},
        'spine': {'': {'host': 'c'}}}}},
    'network': {'n': {}}, 'requester': 'd', 'syncHeartbeat': 2, 'syncStatus': 'syncInProgress'}}})";

TEST_F(WriteChange, HoldsNothingWhereNothingDiffers) {
  EXPECT_EQ(change("{}"), "{}");
  change(kWhole);
  EXPECT_EQ(change(kWhole), "{}");
  EXPECT_EQ(change("{'region': {'R': {'syncHeartbeat': 2, 'port': {'gone': null}}}}"), "{}");
  EXPECT_EQ(change("{'config': {'vlanTypeDriver': 1}, 'region': {'R': {'syncInterval': 0}}}"),
            "{}");
}

TEST_F(WriteChange, HoldsWhatDiffersInTheOrderOfTheDocument) {
  change(kWhole);
  EXPECT_EQ(change("{'region': {'R': {'portBinding': {'p': {'portToHostBinding': {'h': "
                   "{'segment': {'1': null, '2': 'v'}}, 'i': {}}}}, 'port': {'q': {'vlanType': "
                   "0}, 'r': {}}}}}"),
            R"({"region": {"R": {"port": {"q": {"vlanType": null}, "r": {}}, "portBinding": )"
            R"({"p": {"portToHostBinding": {"h": {"segment": {"1": null, "2": "v"}}, )"
            R"("i": {}}}}}}})");
}

TEST_F(WriteChange, ACollectionIsRemovedWithItsLastMember) {
  change(kWhole);
  EXPECT_EQ(change("{'region': {'R': {'network': {'n': null}}}}"),
            R"({"region": {"R": {"network": null}}})");
  EXPECT_EQ(change("{'region': {'R': {'portBinding': {'q': {'portToSwitchInterfaceBinding': "
                   "{'spine': {'': null}, 'leaf': {'e1': null}}}}}}}"),
            R"({"region": {"R": {"portBinding": {"q": {"portToSwitchInterfaceBinding": )"
            R"({"leaf": {"e1": null}, "spine": null}}}}}})");
  EXPECT_EQ(change("{'region': {'R': {'portBinding': {'p': {'portToHostBinding': {'h': "
                   "{'segment': null}}}}}}}"),
            R"({"region": {"R": {"portBinding": {"p": {"portToHostBinding": {"h": )"
            R"({"segment": null}}}}}}})");
  EXPECT_EQ(change("{'config': {'vlanAssignment': {'R': {'vlan': {'10': null, '11': null}}}}}"),
            R"({"config": {"vlanAssignment": {"R": {"vlan": null}}}})");
  EXPECT_EQ(change("{'config': {'vlanAssignment': null}, 'region': {'R': null}}"),
            R"({"config": {"vlanAssignment": null}, "region": null})");
  EXPECT_EQ(change("{'config': null}"), R"({"config": null})");
}

TEST_F(WriteChange, TheWayBackHoldsWhatWasRemovedWhole) {
  change(kWhole);
  change(
      "{'config': {'vlanTypeDriver': 2, 'serviceAclTypeVrfMap': {'t': 'w'}}, 'region': {'R': "
      "{'portBinding': {'q': {'portToSwitchInterfaceBinding': {'leaf': {'e1': null}, 'new': {'e': "
      "{'host': 'c'}}}}}, 'tenant': {'t': {}}, 'syncHeartbeat': null}}}");
  EXPECT_EQ(back_, R"({"config": {"vlanTypeDriver": 1, "serviceAclTypeVrfMap": {"t": "v"}}, )"
                   R"("region": {"R": {"syncHeartbeat": 2, "tenant": null, "portBinding": {"q": )"
                   R"({"portToSwitchInterfaceBinding": {"leaf": {"e1": {"host": "b", )"
                   R"("segment": {"0": "v"}}}, "new": null}}}}}})");
  const std::string whole =
      written([&](JsonWriter& writer) { writeCloud(document_.state(), writer); });
  change("{'config': null, 'region': null}");
  EXPECT_EQ(back_, whole);
  change(whole);
  EXPECT_EQ(back_, R"({"config": null, "region": null})");
}

TEST_F(WriteChange, IsTheDifferenceForEveryPartThatIsRemovedOrReplaced) {
  const json whole = json::parse(quoted(kWhole));
  // Each member of the document is removed, and put back.
  size_t members = 0;
  const auto removeEach = [&](const auto& self, const json& in, const auto& around) -> void {
    for (const auto& [key, value] : in.items()) {
      const auto patch = [&around, name = key](json inner) {
        json object;
        object[name] = std::move(inner);
        return around(std::move(object));
      };
      change(kWhole);
      change(patch(nullptr).dump());
      change(kWhole);
      ++members;
      if (value.is_object()) {
        self(self, value, std::function<json(json)>(patch));
      }
    }
  };
  removeEach(removeEach, whole, std::function<json(json)>([](json inner) { return inner; }));
  EXPECT_GT(members, 50U);
}

TEST_F(WriteChange, IsTheDifferenceForPatchesAtRandom) {
  const json whole = json::parse(quoted(kWhole));
  for (unsigned seed = 1; seed <= 300; ++seed) {
    std::mt19937 random(seed);
    SCOPED_TRACE(seed);
    // A part of the document, with some of its members null.
    const auto cut = [&](const auto& self, const json& from) -> json {
      json part = json::object();
      for (const auto& [key, value] : from.items()) {
        const auto choice = random() % 8;
        if (choice < 3) continue;
        part[key] = choice == 3 ? json() : value.is_object() ? self(self, value) : value;
      }
      return part;
    };
    change(cut(cut, whole).dump());
    change(cut(cut, whole).dump());
    change(kWhole);
  }
}

}  // namespace
}  // namespace vnagent
