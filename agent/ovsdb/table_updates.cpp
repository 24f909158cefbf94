#include "agent/ovsdb/table_updates.h"

namespace vnagent::ovsdb {
namespace {

using simdjson::dom::object;
using Take = std::function<void(const RowChange&)>;

object objectOf(JsonElement value) {
  object members;
  if (value.get(members)) throw ProtocolError("an object is expected in an update");
  return members;
}

std::optional<JsonElement> memberOf(object members, std::string_view name) {
  JsonElement value;
  return members[name].get(value) ? std::nullopt : std::optional(value);
}

void readOldAndNew(std::string_view table, const Uuid& uuid, object update, const Take& take) {
  const auto before = memberOf(update, "old");
  if (const auto after = memberOf(update, "new")) {
    const auto kind = before ? RowChange::Kind::kReplace : RowChange::Kind::kInsert;
    take({kind, table, uuid, objectOf(*after)});
  } else if (before) {
    take({RowChange::Kind::kDelete, table, uuid, {}});
  } else {
    throw ProtocolError("an update of a row without old and new");
  }
}

void readDifferences(std::string_view table, const Uuid& uuid, object update, const Take& take) {
  for (const char* name : {"initial", "insert"}) {
    if (const auto row = memberOf(update, name)) {
      take({RowChange::Kind::kInsert, table, uuid, objectOf(*row)});
      return;
    }
  }
  if (const auto row = memberOf(update, "modify")) {
    take({RowChange::Kind::kModify, table, uuid, objectOf(*row)});
  } else if (memberOf(update, "delete")) {
    take({RowChange::Kind::kDelete, table, uuid, {}});
  } else {
    throw ProtocolError("an update of a row that says nothing");
  }
}

}  // namespace

std::optional<JsonElement> RowChange::find(std::string_view column) const {
  return columns ? memberOf(*columns, column) : std::nullopt;
}

void forEachRow(JsonElement updates, UpdateForm form, const Take& take) {
  for (const auto table : objectOf(updates)) {
    for (const auto row : objectOf(table.value)) {
      const auto uuid = Uuid::parse(row.key);
      if (!uuid) throw ProtocolError("an update of a row without a UUID");
      if (form == UpdateForm::kOldAndNew) {
        readOldAndNew(table.key, *uuid, objectOf(row.value), take);
      } else {
        readDifferences(table.key, *uuid, objectOf(row.value), take);
      }
    }
  }
}

}  // namespace vnagent::ovsdb
