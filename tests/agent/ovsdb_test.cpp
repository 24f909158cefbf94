// The client library of OVSDB servers: framing, values, updates of rows. Connections are tested
// against a real server, in tests/export.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "agent/ovsdb/address.h"
#include "agent/ovsdb/client.h"
#include "agent/ovsdb/json_stream.h"
#include "agent/ovsdb/table_updates.h"

namespace vnagent::ovsdb {
namespace {

constexpr const char* kUuid = "550e8400-e29b-41d4-a716-446655440000";

std::vector<std::string> framed(JsonStream& stream, std::string_view text, size_t piece) {
  std::vector<std::string> objects;
  for (size_t at = 0; at < text.size(); at += piece) {
    EXPECT_TRUE(stream.feed(text.substr(at, piece),
                            [&](std::string_view object) { objects.emplace_back(object); }));
  }
  return objects;
}

TEST(OvsdbJsonStream, FindsObjectsInPiecesOfAnySize) {
  const std::string first = R"({"a":"}\"{[","b":[{}]})";
  const std::string second = R"({"c":"\\"})";
  for (size_t piece = 1; piece < 20; ++piece) {
    JsonStream stream;
    EXPECT_EQ(framed(stream, first + " \n" + second + "{}", piece),
              (std::vector<std::string>{first, second, "{}"}));
  }
}

TEST(OvsdbJsonStream, RefusesWhatIsNoObject) {
  const auto ignore = [](std::string_view) {};
  for (const char* text : {"[]", "1", "{}x", "\"a\""}) {
    JsonStream stream;
    EXPECT_FALSE(stream.feed(text, ignore)) << text;
    EXPECT_FALSE(stream.feed("{}", ignore)) << text;
  }
}

TEST(OvsdbJsonStream, HasLimits) {
  const auto ignore = [](std::string_view) {};
  EXPECT_FALSE(JsonStream(10, 100).feed(R"({"a":"0123456789)", ignore));
  EXPECT_FALSE(JsonStream(1000, 3).feed(R"({"a":[[[)", ignore));
  EXPECT_TRUE(JsonStream(1000, 3).feed(R"({"a":[[]]})", ignore));
}

TEST(OvsdbAddress, HasThreeForms) {
  EXPECT_EQ(Address::parse("unix:/a:b").path, "/a:b");
  const Address tcp = Address::parse("tcp:[2001:db8::1]:6640");
  EXPECT_EQ(tcp.host, "2001:db8::1");
  EXPECT_EQ(tcp.port, "6640");
  EXPECT_EQ(Address::parse("ssl:leaf:1").kind, Address::Kind::kSsl);
  for (const char* text : {"", "unix:", "tcp:host", "tcp::1", "tcp:a:0", "tcp:a:70000", "x:a:1"}) {
    EXPECT_THROW(Address::parse(text), std::invalid_argument) << text;
  }
}

TEST(OvsdbValue, ReadsAndWritesUuids) {
  const auto uuid = Uuid::parse(kUuid);
  ASSERT_TRUE(uuid);
  EXPECT_EQ(uuid->text(), kUuid);
  std::string json;
  uuid->appendTo(json);
  EXPECT_EQ(json, std::string(R"(["uuid",")") + kUuid + R"("])");
  simdjson::dom::parser parser;
  EXPECT_EQ(Uuid::of(parser.parse(json)), *uuid);
  for (const char* text : {"", "550e8400", "550e8400-e29b-41d4-a716-44665544000g",
                           "550e8400ae29b-41d4-a716-446655440000"}) {
    EXPECT_FALSE(Uuid::parse(text)) << text;
  }
  for (const char* text :
       {R"(["named-uuid","550e8400-e29b-41d4-a716-446655440000"])", R"(["uuid"])",
        R"(["uuid","550e8400"])", R"(["uuid",1])", "[]", "{}", "null"}) {
    EXPECT_THROW(Uuid::of(parser.parse(std::string(text))), ProtocolError) << text;
  }
}

// What a row of one table becomes.
struct Row {
  std::set<std::string> set;
  std::map<int64_t, std::string> map;
  std::vector<std::string> changed;

  void apply(const RowChange& change) {
    applySet(change, "set", set, textOf);
    applyMap(change, "map", map, integerOf, textOf,
             [this](int64_t key, const std::string* before, const std::string* after) {
               changed.push_back(std::to_string(key) + ':' + (before ? *before : "") + ">" +
                                 (after ? *after : ""));
             });
  }

  void take(const char* updates, UpdateForm form) {
    changed.clear();
    simdjson::dom::parser parser;
    forEachRow(parser.parse(std::string(updates)), form, [this](const RowChange& change) {
      EXPECT_EQ(change.table, "T");
      EXPECT_EQ(change.uuid.text(), kUuid);
      apply(change);
    });
  }
};

std::string update(const std::string& row) {
  return std::string(R"({"T":{")") + kUuid + R"(":)" + row + "}}";
}

TEST(OvsdbUpdate, DifferencesToggleElementsAndReplaceValues) {
  Row row;
  row.take(update(R"({"initial":{"set":"a","map":["map",[[1,"x"],[2,"y"]]]}})").c_str(),
           UpdateForm::kDifferences);
  EXPECT_EQ(row.set, (std::set<std::string>{"a"}));
  EXPECT_EQ(row.changed, (std::vector<std::string>{"1:>x", "2:>y"}));
  row.take(update(R"({"modify":{"set":["set",["a","b","c"]],)"
                  R"("map":["map",[[1,"x"],[2,"z"],[3,"n"]]]}})")
               .c_str(),
           UpdateForm::kDifferences);
  EXPECT_EQ(row.set, (std::set<std::string>{"b", "c"}));
  EXPECT_EQ(row.map, (std::map<int64_t, std::string>{{2, "z"}, {3, "n"}}));
  EXPECT_EQ(row.changed, (std::vector<std::string>{"1:x>", "2:y>z", "3:>n"}));
}

TEST(OvsdbUpdate, OldAndNewGiveWholeValues) {
  Row row;
  row.take(update(R"({"new":{"set":["set",["a","b"]],"map":["map",[[1,"x"],[2,"y"]]]}})").c_str(),
           UpdateForm::kOldAndNew);
  row.take(update(R"({"old":{"map":["map",[]]},"new":{"set":"a","map":["map",[[2,"z"],[3,"n"]]]}})")
               .c_str(),
           UpdateForm::kOldAndNew);
  EXPECT_EQ(row.set, (std::set<std::string>{"a"}));
  EXPECT_EQ(row.map, (std::map<int64_t, std::string>{{2, "z"}, {3, "n"}}));
  EXPECT_EQ(std::set<std::string>(row.changed.begin(), row.changed.end()),
            (std::set<std::string>{"1:x>", "2:y>z", "3:>n"}));
}

TEST(OvsdbUpdate, RefusesOtherForms) {
  for (const char* text : {"[]", R"({"T":1})", R"({"T":{"x":{}}})", R"({"T":{"x":null}})"}) {
    EXPECT_THROW(Row().take(text, UpdateForm::kDifferences), ProtocolError) << text;
  }
  for (const char* row : {"{}", "[]", R"({"insert":1})", R"({"initial":{"set":1}})",
                          R"({"initial":{"map":["map",[[1]]]}})"}) {
    EXPECT_THROW(Row().take(update(row).c_str(), UpdateForm::kDifferences), ProtocolError) << row;
  }
}

TEST(OvsdbTransaction, HasTheFirstErrorOfItsOperations) {
  const auto errorOf = [](const char* result, const char* error) {
    simdjson::dom::parser ofResult, ofError;
    const JsonElement operations = ofResult.parse(std::string(result));
    return errorOfTransaction(operations.is_null() ? nullptr : &operations,
                              ofError.parse(std::string(error)));
  };
  EXPECT_EQ(errorOf(R"([{"count":1},{"uuid":["uuid","x"]},{}])", "null"), "");
  EXPECT_EQ(errorOf(R"([{},{"error":"constraint violation","details":"why"},null])", "null"),
            "constraint violation: why");
  EXPECT_EQ(errorOf("{}", "null"), "the reply to a transaction has another form");
  EXPECT_EQ(errorOf("null", R"("unknown database")"), "unknown database");
  EXPECT_EQ(errorOf("null", R"({"error":"x"})"), "x");
  EXPECT_EQ(errorOf("null", R"({"x":[1]})"), R"({"x":[1]})");
}

}  // namespace
}  // namespace vnagent::ovsdb
