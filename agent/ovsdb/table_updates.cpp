#include "agent/ovsdb/table_updates.h"

namespace vnagent::ovsdb {
namespace {

const Json& noColumns() {
  static const Json kNone = Json::object();
  return kNone;
}

const Json& objectIn(const Json& value) {
  if (!value.is_object()) throw ProtocolError("an object is expected in an update");
  return value;
}

const Json* memberOf(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found == object.end() ? nullptr : &*found;
}

void readOldAndNew(std::string_view table, const Uuid& uuid, const Json& update,
                   const std::function<void(const RowChange&)>& take) {
  const Json* before = memberOf(update, "old");
  const Json* after = memberOf(update, "new");
  if (after != nullptr) {
    const auto kind = before != nullptr ? RowChange::Kind::kReplace : RowChange::Kind::kInsert;
    take({kind, table, uuid, objectIn(*after)});
  } else if (before != nullptr) {
    take({RowChange::Kind::kDelete, table, uuid, noColumns()});
  } else {
    throw ProtocolError("an update of a row without old and new");
  }
}

void readDifferences(std::string_view table, const Uuid& uuid, const Json& update,
                     const std::function<void(const RowChange&)>& take) {
  for (const char* name : {"initial", "insert"}) {
    if (const Json* row = memberOf(update, name)) {
      take({RowChange::Kind::kInsert, table, uuid, objectIn(*row)});
      return;
    }
  }
  if (const Json* row = memberOf(update, "modify")) {
    take({RowChange::Kind::kModify, table, uuid, objectIn(*row)});
  } else if (update.contains("delete")) {
    take({RowChange::Kind::kDelete, table, uuid, noColumns()});
  } else {
    throw ProtocolError("an update of a row that says nothing");
  }
}

}  // namespace

const Json* RowChange::find(const char* column) const {
  return memberOf(columns, column);
}

void forEachRow(const Json& updates, UpdateForm form,
                const std::function<void(const RowChange&)>& take) {
  for (const auto& [table, rows] : objectIn(updates).items()) {
    for (const auto& [text, update] : objectIn(rows).items()) {
      const auto uuid = Uuid::parse(text);
      if (!uuid) throw ProtocolError("an update of a row without a UUID");
      if (form == UpdateForm::kOldAndNew) {
        readOldAndNew(table, *uuid, objectIn(update), take);
      } else {
        readDifferences(table, *uuid, objectIn(update), take);
      }
    }
  }
}

}  // namespace vnagent::ovsdb
