// Reading JSON text in place.
#include "agent/json/json_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vnagent {
namespace {

using ::testing::HasSubstr;

JsonError errorOf(std::string_view text) {
  const JsonTree tree = JsonTree::parse(text);
  EXPECT_TRUE(tree.error()) << text;
  return tree.error().value_or(JsonError{});
}

TEST(JsonTree, MembersAreSortedByTheBytesOfTheirKeys) {
  const JsonTree tree = JsonTree::parse(R"({"b": 1, "a": {"z": null}, "B": [true, "x"]})");
  ASSERT_FALSE(tree.error());
  std::string keys;
  for (const JsonValue* member : tree.root().all()) keys += member->key;
  EXPECT_EQ(keys, "Bab");
  EXPECT_EQ(tree.root().find("a")->find("z")->kind, JsonValue::Kind::kNull);
  EXPECT_EQ(tree.root().find("c"), nullptr);
  EXPECT_EQ(pointerTo(*tree.root().find("B")->all()[1], tree.root()), "/B/1");
}

TEST(JsonTree, AnIntegerIsOneThatIsWrittenAsOne) {
  const auto kind = [](std::string_view text) { return JsonTree::parse(text).root().kind; };
  EXPECT_EQ(kind("12"), JsonValue::Kind::kInteger);
  EXPECT_EQ(kind("-12"), JsonValue::Kind::kInteger);
  EXPECT_EQ(kind("1.0"), JsonValue::Kind::kReal);
  EXPECT_EQ(kind("1e2"), JsonValue::Kind::kReal);
  EXPECT_EQ(kind("99999999999999999999"), JsonValue::Kind::kReal);
  EXPECT_EQ(kind("18446744073709551615"), JsonValue::Kind::kReal);
  EXPECT_EQ(JsonTree::parse("1e2").root().real, 100);
  EXPECT_EQ(shown(JsonTree::parse("1.50e2").root()), "1.50e2");
}

TEST(JsonTree, EveryValueKnowsItsLine) {
  const JsonTree tree = JsonTree::parse("{\n\"a\": {\n\n\"b/c\": 1\n}, \"d\":\n2}");
  EXPECT_EQ(lineOf(tree.root(), ""), 1U);
  EXPECT_EQ(lineOf(tree.root(), "/a"), 2U);
  EXPECT_EQ(lineOf(tree.root(), "/a/b~1c"), 4U);
  EXPECT_EQ(lineOf(tree.root(), "/a/nothing/here"), 2U);
  EXPECT_EQ(lineOf(tree.root(), "/d"), 5U);
}

TEST(JsonTree, ARepeatedKeyIsNotedAndTheFirstOneKept) {
  const JsonTree tree = JsonTree::parse(R"({"a": 1, "b": {"x": 1, "x": 2, "x": 3}, "a": 4})");
  ASSERT_EQ(tree.repeated().size(), 3U);
  EXPECT_EQ(pointerTo(*tree.repeated()[0], tree.root()), "/b/x");
  EXPECT_EQ(tree.repeated()[2]->integer, 4);
  EXPECT_EQ(tree.root().find("a")->integer, 1);
  EXPECT_EQ(tree.root().size, 2U);
}

TEST(JsonTree, PointersEscapeTildesAndSlashes) {
  std::string pointer;
  appendToken(pointer, "a/b~c");
  appendToken(pointer, "");
  EXPECT_EQ(pointer, "/a~1b~0c/");
}

TEST(JsonTree, WhatIsNotJsonIsSaidWithItsLine) {
  for (const auto* text : {"", "{", "{\"a\" 1}", "{} {}", "nul", "[1,]", "\"\xff\"", "\"\x01\"",
                           "NaN", "{'a': 1}", "01", "\"\\x\""}) {
    EXPECT_EQ(errorOf(text).kind, JsonError::Kind::kNotJson) << text;
  }
  EXPECT_EQ(errorOf("{\n\n!}").line, 3U);
  EXPECT_THAT(errorOf("{\n\n!}").text, HasSubstr("column 1"));
  EXPECT_EQ(errorOf(std::string_view("{}\0{}", 5)).kind, JsonError::Kind::kNotJson);
}

TEST(JsonTree, JsonThatNoProgramCanHoldIsSaidWithItsPlace) {
  EXPECT_EQ(errorOf(R"({"a": {"b": 1e999}})").kind, JsonError::Kind::kUnusable);
  EXPECT_EQ(errorOf(R"({"a": {"b": 1e999}})").place, "/a/b");
  EXPECT_EQ(errorOf(R"({"a": "\ud800"})").kind, JsonError::Kind::kUnusable);
  EXPECT_EQ(errorOf(R"({"a": "\ud800"})").place, "/a");
}

TEST(JsonTree, DepthCostsNoStack) {
  std::string text(1000000, '[');
  text.append(1000000, ']');
  EXPECT_FALSE(JsonTree::parse(text).error());
}

TEST(JsonTree, ShownTextsAreShortAndOnOneLine) {
  EXPECT_EQ(shown("a\"b\\c\n"), "\"a\\\"b\\\\c\\u000a\"");
  // A long one is cut between two characters.
  std::string text(79, 'x');
  text += "\xc3\xa4\xc3\xa4";
  EXPECT_EQ(shown(text), '"' + std::string(79, 'x') + "\"...");
}

}  // namespace
}  // namespace vnagent
