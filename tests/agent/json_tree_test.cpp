// Reading JSON text into a tree: values, positions, flaws, errors.
#include "agent/json/json_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vnagent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using Kind = JsonError::Kind;

JsonError errorOf(std::string_view text, const JsonLimits& limits = {}) {
  const JsonTree tree = JsonTree::parse(text, limits);
  EXPECT_TRUE(tree.error()) << text;
  return tree.error().value_or(JsonError{});
}

// The string that a text is.
std::string stringOf(std::string_view text) {
  const JsonTree tree = JsonTree::parse(text);
  EXPECT_FALSE(tree.error()) << text;
  return tree.error() ? "" : std::string(tree.root().text);
}

// Values.

TEST(JsonTree, MembersAreSortedByTheBytesOfTheirKeys) {
  const JsonTree tree = JsonTree::parse(R"({"b": 1, "a": {"z": null}, "B": [true, "x", false]})");
  ASSERT_FALSE(tree.error());
  std::string keys;
  for (const JsonValue* member : tree.root().all()) keys += member->key;
  EXPECT_EQ(keys, "Bab");
  EXPECT_EQ(tree.root().find("a")->find("z")->kind, JsonValue::Kind::kNull);
  EXPECT_EQ(tree.root().find("c"), nullptr);
  const JsonValue& array = *tree.root().find("B");
  EXPECT_EQ(array.kind, JsonValue::Kind::kArray);
  ASSERT_EQ(array.size, 3U);
  EXPECT_TRUE(array.all()[0]->boolean);
  EXPECT_EQ(array.all()[1]->text, "x");
  EXPECT_FALSE(array.all()[2]->boolean);
  EXPECT_EQ(pointerTo(*array.all()[1], tree.root()), "/B/1");
}

TEST(JsonTree, ContainersMayBeEmptyAndOfAnySpacing) {
  for (const auto* text : {"{}", "[]", " [ ] ", "\t{\r\n}\n", R"({"a":{},"b":[]})", "[[],[[]],{}]",
                           "null", " 1 ", "\"\""}) {
    EXPECT_FALSE(JsonTree::parse(text).error()) << text;
  }
  EXPECT_EQ(JsonTree::parse("[[],{}]").root().all()[0]->size, 0U);
}

TEST(JsonTree, KeysWithACommonPrefixAreDistinct) {
  const JsonTree tree = JsonTree::parse(
      R"({"prefix-of-many-b": 2, "prefix-of-many-a": 1, "prefix-o": 0, "prefix-": -1, "": -2})");
  std::vector<int64_t> numbers;
  for (const JsonValue* member : tree.root().all()) numbers.push_back(member->integer);
  EXPECT_THAT(numbers, ElementsAre(-2, -1, 0, 1, 2));
  EXPECT_THAT(tree.flaws(), IsEmpty());
}

TEST(JsonTree, AnIntegerIsOneThatIsWrittenAsOne) {
  const auto kind = [](std::string_view text) { return JsonTree::parse(text).root().kind; };
  EXPECT_EQ(kind("12"), JsonValue::Kind::kInteger);
  EXPECT_EQ(kind("-12"), JsonValue::Kind::kInteger);
  EXPECT_EQ(kind("0"), JsonValue::Kind::kInteger);
  EXPECT_EQ(kind("-0"), JsonValue::Kind::kInteger);
  EXPECT_EQ(kind("9223372036854775807"), JsonValue::Kind::kInteger);
  EXPECT_EQ(kind("9223372036854775808"), JsonValue::Kind::kReal);
  EXPECT_EQ(kind("-9223372036854775808"), JsonValue::Kind::kInteger);
  EXPECT_EQ(kind("1.0"), JsonValue::Kind::kReal);
  EXPECT_EQ(kind("1e2"), JsonValue::Kind::kReal);
  EXPECT_EQ(kind("99999999999999999999"), JsonValue::Kind::kReal);
  EXPECT_EQ(JsonTree::parse("-12").root().integer, -12);
  EXPECT_EQ(JsonTree::parse("-12").root().real, -12);
}

TEST(JsonTree, ANumberIsTheNearestDouble) {
  const auto real = [](std::string_view text) { return JsonTree::parse(text).root().real; };
  EXPECT_EQ(real("1e2"), 100);
  EXPECT_EQ(real("1E+2"), 100);
  EXPECT_EQ(real("-2.5e-1"), -0.25);
  EXPECT_EQ(real("0.1"), 0.1);
  EXPECT_EQ(real("18446744073709551615"), 18446744073709551616.0);
  EXPECT_EQ(real("1.7976931348623157e308"), 1.7976931348623157e308);
  // One that is nearer to zero than any other double is no fault.
  EXPECT_EQ(real("1e-999"), 0);
  EXPECT_THAT(JsonTree::parse("1e-999").flaws(), IsEmpty());
  EXPECT_EQ(shown(JsonTree::parse("1.50e2").root()), "1.50e2");
}

TEST(JsonTree, EscapeSequencesStandForTheirCharacters) {
  EXPECT_EQ(stringOf(R"("\"\\\/\b\f\n\r\t")"), "\"\\/\b\f\n\r\t");
  EXPECT_EQ(stringOf(R"("a\u0041\u00e4\u20AC\ud83d\ude00z")"),
            "aA\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80z");
  EXPECT_EQ(stringOf(R"("\u0000")"), std::string(1, '\0'));
  EXPECT_EQ(stringOf("\"\xc3\xa4 \x7f\""), "\xc3\xa4 \x7f");
}

// Positions.

TEST(JsonTree, EveryValueKnowsItsPosition) {
  const JsonTree tree =
      JsonTree::parse("{\n\"a\": {\n\n  \"b/c\": 1\n}, \"d\":\n2, \"e\": [3,\n4]}");
  const auto at = [&](std::string_view pointer) { return nearest(tree.root(), pointer).position; };
  EXPECT_EQ(at(""), (JsonPosition{1, 1}));
  EXPECT_EQ(at("/a"), (JsonPosition{2, 1}));
  EXPECT_EQ(at("/a/b~1c"), (JsonPosition{4, 3}));
  EXPECT_EQ(at("/a/nothing/here"), (JsonPosition{2, 1}));
  EXPECT_EQ(at("/d"), (JsonPosition{5, 4}));
  EXPECT_EQ(at("/e"), (JsonPosition{6, 4}));
  EXPECT_EQ(tree.root().find("e")->all()[1]->position, (JsonPosition{7, 1}));
}

TEST(JsonTree, PointersEscapeTildesAndSlashes) {
  std::string pointer;
  appendToken(pointer, "a/b~c");
  appendToken(pointer, "");
  EXPECT_EQ(pointer, "/a~1b~0c/");
  const JsonTree tree = JsonTree::parse(R"({"a/b~c": {"": 7}, "a": 1})");
  EXPECT_EQ(nearest(tree.root(), pointer).integer, 7);
}

// Flaws.

TEST(JsonTree, ARepeatedKeyIsAFlawAndTheFirstMemberIsKept) {
  const JsonTree tree =
      JsonTree::parse("{\"a\": 1,\n\"b\": {\"x\": 1, \"x\": 2, \"x\": 3},\n\"a\": 4}");
  ASSERT_THAT(tree.flaws(), SizeIs(3));
  for (const JsonFlaw& flaw : tree.flaws()) EXPECT_EQ(flaw.kind, JsonFlaw::Kind::kRepeatedKey);
  const JsonValue& x = *tree.flaws()[0].value;
  EXPECT_EQ(pointerTo(x, tree.root()), "/b/x");
  EXPECT_EQ(x.integer, 2);
  EXPECT_EQ(x.position.line, 2U);
  EXPECT_EQ(tree.flaws()[2].value->integer, 4);
  EXPECT_EQ(tree.flaws()[2].value->position.line, 3U);
  EXPECT_EQ(tree.flaws()[2].message(), "the key \"a\" is repeated in its object");
  EXPECT_EQ(tree.root().find("a")->integer, 1);
  EXPECT_EQ(tree.root().size, 2U);
}

TEST(JsonTree, ANumberBeyondDoubleIsAFlawAndReadingGoesOn) {
  const JsonTree tree = JsonTree::parse(R"({"a": {"b": 1e999}, "c": -1e309, "d": 5})");
  ASSERT_FALSE(tree.error());
  ASSERT_THAT(tree.flaws(), SizeIs(2));
  EXPECT_EQ(tree.flaws()[0].kind, JsonFlaw::Kind::kNumberTooLarge);
  EXPECT_EQ(pointerTo(*tree.flaws()[0].value, tree.root()), "/a/b");
  EXPECT_EQ(tree.flaws()[0].message(), "the number 1e999 is too large");
  EXPECT_TRUE(tree.root().find("c")->isFlawed);
  EXPECT_FALSE(tree.root().find("d")->isFlawed);
  EXPECT_EQ(tree.root().find("d")->integer, 5);
}

TEST(JsonTree, HalfOfASurrogatePairIsAFlawInAValueAndInAKey) {
  for (const auto* half : {R"(\ud800)", R"(\udbff)", R"(\udc00)", R"(\udfff)", R"(\ud800\u0041)",
                           R"(\ud800\ud800)", R"(\ud800x)", R"(\udc00\ud800)"}) {
    const JsonTree tree = JsonTree::parse("{\"a\": \"" + std::string(half) + "\"}");
    ASSERT_FALSE(tree.error()) << half;
    ASSERT_THAT(tree.flaws(), SizeIs(1)) << half;
    EXPECT_EQ(tree.flaws()[0].kind, JsonFlaw::Kind::kLoneSurrogate);
    EXPECT_EQ(pointerTo(*tree.flaws()[0].value, tree.root()), "/a");
    EXPECT_TRUE(tree.root().find("a")->isFlawed);
    EXPECT_THAT(tree.root().find("a")->text, HasSubstr("\xef\xbf\xbd"));
  }
  EXPECT_EQ(stringOf(R"("\ud800A")"),
            "\xef\xbf\xbd"
            "A");
  EXPECT_EQ(stringOf(R"("\ud800\u0041")"),
            "\xef\xbf\xbd"
            "A");
  const JsonTree tree = JsonTree::parse(R"({"\ud800": 1, "b": 2})");
  ASSERT_THAT(tree.flaws(), SizeIs(1));
  EXPECT_EQ(tree.flaws()[0].value->integer, 1);
  EXPECT_FALSE(tree.flaws()[0].value->isFlawed);
  EXPECT_THAT(tree.flaws()[0].message(), HasSubstr("surrogate"));
  // U+D7FF and U+E000 are characters.
  EXPECT_THAT(JsonTree::parse(R"("\ud7ff\ue000")").flaws(), IsEmpty());
}

// Errors.

TEST(JsonTree, SyntaxErrorsHaveTheirPosition) {
  const std::vector<std::pair<std::string, JsonPosition>> texts{
      {"", {1, 1}},         {"{", {1, 2}},           {"{\"a\" 1}", {1, 6}}, {"{\"a\": }", {1, 7}},
      {"{'a': 1}", {1, 2}}, {"{\"a\": 1,}", {1, 9}}, {"{} {}", {1, 4}},     {"[1,]", {1, 4}},
      {"[1 2]", {1, 4}},    {"01", {1, 2}},          {"1.x", {1, 3}},       {"NaN", {1, 1}},
      {"\"\x01\"", {1, 2}}, {"\"\\x\"", {1, 3}},     {"{\n\n!}", {3, 1}},   {"{}\n\n 1", {3, 2}}};
  for (const auto& [text, position] : texts) {
    const JsonError error = errorOf(text);
    EXPECT_EQ(error.kind, Kind::kSyntax) << text;
    EXPECT_EQ(error.position, position) << text << " " << error.text;
    EXPECT_THAT(error.text, StartsWith("column " + std::to_string(position.column) + ": "));
    EXPECT_THAT(error.text, HasSubstr("syntax error")) << text;
  }
  EXPECT_THAT(errorOf("{\"a\" 1}").text, HasSubstr("expected ':'"));
  EXPECT_EQ(errorOf(std::string_view("{}\0{}", 5)).text, "column 3: a zero byte");
}

TEST(JsonTree, AnErrorIsOneLineOfPrintableText) {
  for (const char c : errorOf("[\"\xc3\xa4\x1b\n\"]").text) {
    EXPECT_TRUE(c >= 0x20 && c <= 0x7e) << static_cast<int>(c);
  }
}

TEST(JsonTree, InvalidUtf8IsAnErrorOfItsOwn) {
  for (const auto* bytes :
       {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc3", "\xc3(", "\xe0\x9f\xbf", "\xe2\x82",
        "\xe2\x82(", "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf0\x9f\x98",
        "\xf0\x9f\x98(", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff"}) {
    const JsonError error = errorOf("\n[\"ab" + std::string(bytes) + "\"]");
    EXPECT_EQ(error.kind, Kind::kNotUtf8) << testing::PrintToString(bytes);
    // At the byte that cannot follow those before it.
    EXPECT_GE(error.position, (JsonPosition{2, 5}));
    EXPECT_LE(error.position, (JsonPosition{2, 8}));
    EXPECT_THAT(error.text, HasSubstr("a string is not UTF-8"));
  }
  for (const auto* bytes :
       {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf",
        "\xf0\x90\x80\x80", "\xf3\xbf\xbf\xbf", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(stringOf('"' + std::string(bytes) + '"'), bytes);
  }
}

TEST(JsonTree, Utf16AndUtf32AreNamedInTheError) {
  using namespace std::string_view_literals;
  for (const auto text : {"\xff\xfe{\0}\0"sv, "\xfe\xff\0{\0}"sv, "{\0}\0"sv, "\0{\0}"sv}) {
    EXPECT_EQ(errorOf(text).kind, Kind::kOtherEncoding);
    EXPECT_EQ(errorOf(text).text, "the text is UTF-16, and must be UTF-8");
  }
  for (const auto text :
       {"\xff\xfe\0\0{\0\0\0"sv, "\0\0\xfe\xff\0\0\0{"sv, "{\0\0\0}\0\0\0"sv, "\0\0\0{\0\0\0}"sv}) {
    EXPECT_EQ(errorOf(text).text, "the text is UTF-32, and must be UTF-8");
  }
  EXPECT_EQ(errorOf("\0"sv).kind, Kind::kSyntax);
  EXPECT_EQ(errorOf("\0\0"sv).kind, Kind::kSyntax);
}

TEST(JsonTree, AByteOrderMarkIsSkippedUnlessItMayNotBeThere) {
  EXPECT_FALSE(JsonTree::parse("\xef\xbb\xbf{}").error());
  const JsonError error = errorOf("\xef\xbb\xbf{}", {.mayHaveByteOrderMark = false});
  EXPECT_EQ(error.kind, Kind::kByteOrderMark);
  EXPECT_EQ(error.text, "the text begins with a byte order mark");
  EXPECT_FALSE(JsonTree::parse("{}", {.mayHaveByteOrderMark = false}).error());
  EXPECT_EQ(errorOf("\xef\xbb\xbf\xef\xbb\xbf[1e999]").text, "column 1: a second byte order mark");
  // Elsewhere it is a character of a string, and nothing else.
  EXPECT_FALSE(JsonTree::parse("\"\xef\xbb\xbf\"", {.mayHaveByteOrderMark = false}).error());
  EXPECT_EQ(errorOf("{}\xef\xbb\xbf").kind, Kind::kSyntax);
}

TEST(JsonTree, DepthMayBeLimited) {
  EXPECT_FALSE(JsonTree::parse("[[{}, 1]]", {.depth = 3}).error());
  EXPECT_FALSE(JsonTree::parse("[[], [], {}]", {.depth = 2}).error());
  const JsonError error = errorOf("[[\n{\"a\": {}}]]", {.depth = 3});
  EXPECT_EQ(error.kind, Kind::kTooDeep);
  EXPECT_EQ(error.position, (JsonPosition{2, 7}));
  EXPECT_EQ(error.text, "column 7: nested deeper than 3 objects and arrays");
  EXPECT_FALSE(JsonTree::parse("1", {.depth = 0}).error());
}

TEST(JsonTree, DepthCostsNoStack) {
  std::string text(1000000, '[');
  text.append(1000000, ']');
  EXPECT_FALSE(JsonTree::parse(text).error());
}

// Repair: what is legal JSON without a usable value does not hide what else is wrong.

TEST(JsonTree, FlawsDoNotMovePositions) {
  const JsonTree tree = JsonTree::parse("[1e999, \"\\ud800\", \"1e999\",\n -1e400,   7]");
  ASSERT_FALSE(tree.error());
  ASSERT_THAT(tree.flaws(), SizeIs(3));
  EXPECT_EQ(tree.flaws()[1].value->position, (JsonPosition{1, 9}));
  EXPECT_EQ(tree.flaws()[2].value->position, (JsonPosition{2, 2}));
  EXPECT_EQ(tree.flaws()[2].message(), "the number -1e400 is too large");
  EXPECT_EQ(tree.root().all()[2]->text, "1e999");
  EXPECT_EQ(tree.root().all()[4]->position, (JsonPosition{2, 12}));
}

TEST(JsonTree, AFlawDoesNotHideAnError) {
  EXPECT_EQ(errorOf("[1e999, }").position, (JsonPosition{1, 9}));
  EXPECT_EQ(errorOf("[1e999.5]").kind, Kind::kSyntax);
  EXPECT_EQ(errorOf("[1e999").kind, Kind::kSyntax);
  EXPECT_EQ(errorOf("[\"\\ud800").kind, Kind::kSyntax);
  EXPECT_EQ(errorOf("[\"\\ud800\", \"\xff\"]").kind, Kind::kNotUtf8);
}

TEST(JsonTree, WhatIsNoNumberIsNotRepaired) {
  for (const auto* number : {"1.e999", "01e999", "-.5e999", "1e999e1", "1e+", "--1e999"}) {
    EXPECT_EQ(errorOf("[1e999, " + std::string(number) + "]").kind, Kind::kSyntax) << number;
  }
}

TEST(JsonTree, AQuotedInputDoesNotChangeWhatIsSaidOfIt) {
  EXPECT_THAT(errorOf("{\"ill-formed UTF-8").text, HasSubstr("missing closing quote"));
}

TEST(JsonTree, TwoFlawedKeysAreNotARepeatedOne) {
  const JsonTree tree = JsonTree::parse(R"({"\ud800": 1, "\ud801": 2})");
  ASSERT_THAT(tree.flaws(), SizeIs(2));
  for (const JsonFlaw& flaw : tree.flaws()) EXPECT_EQ(flaw.kind, JsonFlaw::Kind::kLoneSurrogate);
}

TEST(JsonTree, AnEscapedBackslashIsNoSurrogate) {
  const JsonTree tree = JsonTree::parse(R"(["\\ud800", 1e999, "\\\"\ud83d\ude00"])");
  ASSERT_THAT(tree.flaws(), SizeIs(1));
  EXPECT_EQ(tree.root().all()[0]->text, "\\ud800");
  EXPECT_EQ(tree.root().all()[2]->text, "\\\"\xf0\x9f\x98\x80");
}

// What messages show.

TEST(JsonTree, ShownTextsAreShortAndOnOneLine) {
  EXPECT_EQ(shown("a\"b\\c\n"), "\"a\\\"b\\\\c\\u000a\"");
  // A long one is cut between two characters.
  std::string text(79, 'x');
  text += "\xc3\xa4\xc3\xa4";
  EXPECT_EQ(shown(text), '"' + std::string(79, 'x') + "\"...");
  EXPECT_EQ(shown(std::string(80, 'x')), '"' + std::string(80, 'x') + '"');
  EXPECT_EQ(shown(std::string(81, 'x')), '"' + std::string(80, 'x') + "\"...");
}

TEST(JsonTree, EveryKindOfValueIsShown) {
  const JsonTree tree = JsonTree::parse(R"([null, true, false, -7, 2.50, "x", {}, []])");
  std::vector<std::string> texts;
  for (const JsonValue* value : tree.root().all()) texts.push_back(shown(*value));
  EXPECT_THAT(texts,
              ElementsAre("null", "true", "false", "-7", "2.50", "\"x\"", "an object", "an array"));
  EXPECT_EQ(shown(JsonTree::parse("0." + std::string(100, '1')).root()),
            "0." + std::string(78, '1'));
}

}  // namespace
}  // namespace vnagent
