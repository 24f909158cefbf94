#include "agent/ovsdb/client.h"

#include <algorithm>

namespace vnagent::ovsdb {
namespace {

// The name of the one monitor of a connection.
constexpr const char* kMonitor = "vnagent";
constexpr const char* kNoTransaction = "00000000-0000-0000-0000-000000000000";

std::string textOfError(const Json& error) {
  if (error.is_string()) return error.get<std::string>();
  if (!error.is_object()) return error.dump();
  std::string text = error.value("error", std::string("error"));
  const auto details = error.find("details");
  if (details != error.end() && details->is_string()) text += ": " + details->get<std::string>();
  return text;
}

}  // namespace

Client::Client(boost::asio::io_context& context, ClientSettings settings,
               Client::Observer& observer)
    : settings_(std::move(settings)),
      observer_(observer),
      session_(context, settings_.address, settings_.tls, *this, settings_.times),
      lastTransaction_(kNoTransaction) {}

Client::~Client() = default;

void Client::start() {
  session_.start();
}

void Client::stop() {
  isReady_ = false;
  session_.stop();
}

void Client::steal() {
  askForLock("steal");
}

void Client::unlock() {
  session_.call("unlock", Json{settings_.lock}.dump(), [this](const Json* result, const Json&) {
    if (result != nullptr) observer_.onLock(false);
  });
}

void Client::transact(std::string_view operations, Session::Reply reply) {
  const std::string database = Json(settings_.database).dump();
  const std::string_view comma = operations.empty() ? "" : ",";
  session_.call("transact", {"[", database, comma, operations, "]"}, std::move(reply));
}

bool Client::hasColumn(const std::string& table, const std::string& column) const {
  const auto found = schema_.find(table);
  return found != schema_.end() && found->is_object() && found->contains("columns") &&
         (*found)["columns"].is_object() && (*found)["columns"].contains(column);
}

void Client::onOpen() {
  session_.call("get_schema", Json::array({settings_.database}).dump(),
                [this](const Json* result, const Json& error) {
                  if (result == nullptr) throw ProtocolError(textOfError(error));
                  takeSchema(*result);
                });
}

void Client::takeSchema(const Json& schema) {
  const auto tables = schema.find("tables");
  if (tables == schema.end() || !tables->is_object()) {
    throw ProtocolError("the database's schema has no tables");
  }
  if (schema_ != *tables) {
    // What was seen before has other columns.
    lastTransaction_ = kNoTransaction;
    schema_ = *tables;
  }
  for (const MonitoredTable& table : settings_.tables) {
    for (const std::string& column : table.columns) {
      if (!hasColumn(table.name, column)) {
        throw ProtocolError("the schema of \"" + settings_.database + "\" has no column \"" +
                            column + "\" in table \"" + table.name + "\"");
      }
    }
  }
  monitor(Method::kSince);
}

void Client::monitor(Method method) {
  Json requests = Json::object();
  for (const MonitoredTable& table : settings_.tables) {
    Json columns = table.columns;
    for (const std::string& column : table.optionalColumns) {
      if (hasColumn(table.name, column)) columns.push_back(column);
    }
    requests[table.name] = Json::array({{{"columns", std::move(columns)}}});
  }
  Json params = Json::array({settings_.database, kMonitor, std::move(requests)});
  const char* name = "monitor";
  if (method == Method::kConditional) name = "monitor_cond";
  if (method == Method::kSince) {
    name = "monitor_cond_since";
    params.push_back(isFilled_ ? lastTransaction_ : std::string(kNoTransaction));
  }
  session_.call(name, params.dump(), [this, method](Json* result, const Json& error) {
    if (result != nullptr) {
      takeInitial(method, *result);
    } else if (method == Method::kSince) {
      monitor(Method::kConditional);
    } else if (method == Method::kConditional) {
      monitor(Method::kPlain);
    } else {
      throw ProtocolError(textOfError(error));
    }
  });
}

void Client::takeInitial(Method method, Json& result) {
  bool isContinued = false;
  const Json* updates = &result;
  if (method == Method::kSince) {
    if (!result.is_array() || result.size() != 3 || !result[0].is_boolean()) {
      throw ProtocolError("the reply to monitor_cond_since has another form");
    }
    isContinued = result[0].get<bool>() && isFilled_;
    lastTransaction_ = textOf(result[1]);
    updates = &result[2];
  }
  // A copy that is half read is none.
  isFilled_ = false;
  if (!isContinued) observer_.onReset();
  takeRows(*updates, method == Method::kPlain ? UpdateForm::kOldAndNew : UpdateForm::kDifferences);
  isFilled_ = true;
  isReady_ = true;
  if (!settings_.lock.empty()) askForLock("lock");
  observer_.onReady();
}

void Client::takeRows(const Json& updates, UpdateForm form) {
  forEachRow(updates, form, [this](const RowChange& change) { observer_.onRow(change); });
}

void Client::askForLock(const char* method) {
  session_.call(method, Json::array({settings_.lock}).dump(),
                [this](const Json* result, const Json& error) {
                  if (result == nullptr) throw ProtocolError(textOfError(error));
                  observer_.onLock(result->is_object() && result->value("locked", false));
                });
}

void Client::onClosed(const std::string& reason) {
  isReady_ = false;
  observer_.onLost(reason);
}

void Client::onNotification(const std::string& method, Json& params) {
  if (!params.is_array() || params.empty()) throw ProtocolError(method + " without parameters");
  if (method == "locked" || method == "stolen") {
    if (params[0] == settings_.lock) observer_.onLock(method == "locked");
    return;
  }
  const bool isSince = method == "update3";
  if (!isSince && method != "update2" && method != "update") return;
  const size_t count = isSince ? 3 : 2;
  if (params.size() != count) throw ProtocolError(method + " has another form");
  if (params[0] != kMonitor) return;
  isFilled_ = false;
  takeRows(params[count - 1],
           method == "update" ? UpdateForm::kOldAndNew : UpdateForm::kDifferences);
  isFilled_ = true;
  if (isSince) lastTransaction_ = textOf(params[1]);
  if (isReady_) observer_.onUpdated();
}

std::string errorOfTransaction(const Json* result, const Json& error) {
  if (result == nullptr) return textOfError(error);
  if (!result->is_array()) return "the reply to a transaction has another form";
  const auto found = std::ranges::find_if(*result, [](const Json& one) {
    const auto member = one.is_object() ? one.find("error") : one.end();
    return one.is_object() && member != one.end() && !member->is_null();
  });
  return found == result->end() ? std::string() : textOfError(*found);
}

}  // namespace vnagent::ovsdb
