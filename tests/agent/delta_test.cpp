// Differences with what was there before: they can be put one after the other and stay exact.
#include "agent/live/delta.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace vnagent {
namespace {

Delta deltaBetween(const Json& before, const Json& after) {
  return Delta::of(mergePatch(before, after).dump(), mergePatch(after, before).dump());
}

// A random object with few names and few levels, so that what was removed often comes back.
Json randomObject(std::mt19937& random, int depth) {
  Json object = Json::object();
  for (const char* name : {"a", "b", "c"}) {
    const auto choice = random() % 4;
    if (choice == 0) continue;
    if (choice == 1 || depth == 0) {
      object[name] = random() % 3;
    } else {
      object[name] = randomObject(random, depth - 1);
    }
  }
  return object;
}

// The same with each name either always a number or always an object, as documents have it.
Json randomDocument(std::mt19937& random, int depth) {
  Json object = Json::object();
  for (const char* name : {"x", "y"}) {
    if (random() % 3 > 0) object[name] = random() % 3;
  }
  if (depth == 0) return object;
  for (const char* name : {"a", "b"}) {
    if (random() % 3 > 0) object[name] = randomDocument(random, depth - 1);
  }
  return object;
}

TEST(Delta, RemovedAndAddedAgainIsTheDifferenceOfTheDocuments) {
  const Json first = Json::parse(R"({"a": {"x": 1, "y": 2}})");
  const Json last = Json::parse(R"({"a": {"x": 1, "z": 3}})");
  Delta delta = deltaBetween(first, Json::object());
  delta.then(deltaBetween(Json::object(), last));
  EXPECT_EQ(delta.patch(), Json::parse(R"({"a": {"y": null, "z": 3}})"));
}

TEST(Delta, ChangedAndChangedBackIsNothing) {
  const Json first = Json::parse(R"({"a": {"x": 1}})");
  const Json other = Json::parse(R"({"a": {"x": 2}, "b": {}})");
  Delta delta = deltaBetween(first, other);
  delta.then(deltaBetween(other, first));
  EXPECT_EQ(delta.patch(), Json::object());
}

TEST(Delta, APatchBackMayHaveTheDifferenceOfAnArray) {
  const Json before = Json::parse(R"({"a": {"s": ["p1", "p2", "p4"], "n": [2, 10]}})");
  const Json after = Json::parse(R"({"a": {"s": ["p1", "p3", "p4"], "n": []}})");
  const Delta delta = Delta::of(R"({"a": {"s": ["p1", "p3", "p4"], "n": []}})",
                                R"({"a": {"s": [["p2"], ["p3"]], "n": [[2, 10], []]}})");
  Json undone = after;
  delta.undoIn(undone);
  EXPECT_EQ(undone, before);
  EXPECT_EQ(delta.patch(), after);
}

TEST(Delta, ASequenceOfDifferencesIsTheDifferenceOfItsEnds) {
  std::mt19937 random(1);
  for (int round = 0; round < 500; ++round) {
    const Json first = randomDocument(random, 3);
    Json now = first;
    Delta delta;
    for (int step = 0; step < 4; ++step) {
      const Json next = randomDocument(random, 3);
      delta.then(deltaBetween(now, next));
      now = next;
    }
    ASSERT_EQ(delta.patch(), mergePatch(first, now)) << first << " to " << now;
    Json patched = first;
    patched.merge_patch(delta.patch());
    ASSERT_EQ(patched, now);
  }
}

TEST(Delta, MergePatchLeadsFromOneDocumentToTheOther) {
  std::mt19937 random(2);
  for (int round = 0; round < 500; ++round) {
    const Json before = randomObject(random, 3);
    const Json after = randomObject(random, 3);
    Json patched = before;
    patched.merge_patch(mergePatch(before, after));
    ASSERT_EQ(patched, after) << before;
    ASSERT_EQ(mergePatch(after, after), Json::object());
  }
}

const Json* find(const Json& document, const Place& place) {
  const Json* at = &document;
  for (const std::string& name : place) {
    if (!at->is_object() || !at->contains(name)) return nullptr;
    at = &(*at)[name];
  }
  return at;
}

TEST(Delta, OnePlaceHasItsOwnPartOfTheDifference) {
  std::mt19937 random(3);
  const std::vector<Place> places{{"a"}, {"a", "b"}, {"a", "b", "x"}, {"b", "a", "a"}};
  for (int round = 0; round < 500; ++round) {
    const Json first = randomDocument(random, 3);
    const Json middle = randomDocument(random, 3);
    const Json last = randomDocument(random, 3);
    Delta delta = deltaBetween(first, middle);
    delta.then(deltaBetween(middle, last));
    for (const Place& place : places) {
      const Json* before = find(first, place);
      const Json* after = find(last, place);
      const auto existed = delta.existedBefore(place);
      if (existed) {
        ASSERT_EQ(*existed, before != nullptr);
      }
      const Delta::At at = delta.at(place, before != nullptr);
      if (!at.changed) {
        ASSERT_EQ(before == nullptr, after == nullptr);
        if (before != nullptr) {
          ASSERT_EQ(*before, *after);
        }
        continue;
      }
      ASSERT_EQ(at.existsAfter, after != nullptr);
      if (after == nullptr) continue;
      Json patched = before != nullptr ? *before : Json();
      patched.merge_patch(at.patch);
      ASSERT_EQ(patched, *after) << first << " to " << last << " at " << pointerOf(place);
    }
  }
}

}  // namespace
}  // namespace vnagent
