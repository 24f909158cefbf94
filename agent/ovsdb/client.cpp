#include "agent/ovsdb/client.h"

#include <nlohmann/json.hpp>

namespace vnagent::ovsdb {
namespace {

using nlohmann::json;  // of what is sent

// The name of the one monitor of a connection.
constexpr const char* kMonitor = "vnagent";
constexpr const char* kNoTransaction = "00000000-0000-0000-0000-000000000000";

std::string textOfError(JsonElement error) {
  std::string_view text, details;
  if (!error.get(text)) return std::string(text);
  if (error["error"].get(text)) return simdjson::minify(error);
  return error["details"].get(details) ? std::string(text)
                                       : std::string(text) + ": " + std::string(details);
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
  session_.call("unlock", json{settings_.lock}.dump(),
                [this](const JsonElement* result, JsonElement) {
                  if (result != nullptr) observer_.onLock(false);
                });
}

void Client::transact(std::string_view operations, Session::Reply reply) {
  const std::string database = json(settings_.database).dump();
  const std::string_view comma = operations.empty() ? "" : ",";
  session_.call("transact", {"[", database, comma, operations, "]"}, std::move(reply));
}

bool Client::hasColumn(const std::string& table, const std::string& column) const {
  const auto found = columns_.find(table);
  return found != columns_.end() && found->second.contains(column);
}

void Client::onOpen() {
  session_.call("get_schema", json::array({settings_.database}).dump(),
                [this](const JsonElement* result, JsonElement error) {
                  if (result == nullptr) throw ProtocolError(textOfError(error));
                  takeSchema(*result);
                });
}

void Client::takeSchema(JsonElement schema) {
  simdjson::dom::object tables;
  if (schema["tables"].get(tables)) throw ProtocolError("the database's schema has no tables");
  std::string text = simdjson::minify(tables);
  if (schema_ != text) {
    // What was seen before has other columns.
    lastTransaction_ = kNoTransaction;
    schema_ = std::move(text);
    columns_.clear();
    for (const auto table : tables) {
      simdjson::dom::object columns;
      if (table.value["columns"].get(columns)) continue;
      for (const auto column : columns) columns_[std::string(table.key)].emplace(column.key);
    }
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
  json requests = json::object();
  for (const MonitoredTable& table : settings_.tables) {
    json columns = table.columns;
    for (const std::string& column : table.optionalColumns) {
      if (hasColumn(table.name, column)) columns.push_back(column);
    }
    requests[table.name] = json::array({{{"columns", std::move(columns)}}});
  }
  json params = json::array({settings_.database, kMonitor, std::move(requests)});
  const char* name = "monitor";
  if (method == Method::kConditional) name = "monitor_cond";
  if (method == Method::kSince) {
    name = "monitor_cond_since";
    params.push_back(isFilled_ ? lastTransaction_ : std::string(kNoTransaction));
  }
  session_.call(name, params.dump(), [this, method](const JsonElement* result, JsonElement error) {
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

void Client::takeInitial(Method method, JsonElement result) {
  bool isContinued = false;
  JsonElement updates = result;
  if (method == Method::kSince) {
    JsonElement last;
    if (result.at(0).get(isContinued) || result.at(1).get(last) || result.at(2).get(updates)) {
      throw ProtocolError("the reply to monitor_cond_since has another form");
    }
    isContinued = isContinued && isFilled_;
    lastTransaction_ = textOf(last);
  }
  // A copy that is half read is none.
  isFilled_ = false;
  if (!isContinued) observer_.onReset();
  takeRows(updates, method == Method::kPlain ? UpdateForm::kOldAndNew : UpdateForm::kDifferences);
  isFilled_ = true;
  isReady_ = true;
  if (!settings_.lock.empty()) askForLock("lock");
  observer_.onReady();
}

void Client::takeRows(JsonElement updates, UpdateForm form) {
  forEachRow(updates, form, [this](const RowChange& change) { observer_.onRow(change); });
}

void Client::askForLock(const char* method) {
  session_.call(method, json::array({settings_.lock}).dump(),
                [this](const JsonElement* result, JsonElement error) {
                  if (result == nullptr) throw ProtocolError(textOfError(error));
                  bool isHeld = false;
                  observer_.onLock(!(*result)["locked"].get(isHeld) && isHeld);
                });
}

void Client::onClosed(const std::string& reason) {
  isReady_ = false;
  observer_.onLost(reason);
}

void Client::onNotification(std::string_view method, JsonElement params) {
  JsonElement name;
  if (params.at(0).get(name)) throw ProtocolError(std::string(method) + " without parameters");
  if (method == "locked" || method == "stolen") {
    if (textOf(name) == settings_.lock) observer_.onLock(method == "locked");
    return;
  }
  const bool isSince = method == "update3";
  if (!isSince && method != "update2" && method != "update") return;
  JsonElement last, updates;
  if (params.at(isSince ? 2 : 1).get(updates) || params.at(1).get(last)) {
    throw ProtocolError(std::string(method) + " has another form");
  }
  if (textOf(name) != kMonitor) return;
  isFilled_ = false;
  takeRows(updates, method == "update" ? UpdateForm::kOldAndNew : UpdateForm::kDifferences);
  isFilled_ = true;
  if (isSince) lastTransaction_ = textOf(last);
  if (isReady_) observer_.onUpdated();
}

std::string errorOfTransaction(const JsonElement* result, JsonElement error) {
  if (result == nullptr) return textOfError(error);
  simdjson::dom::array operations;
  if (result->get(operations)) return "the reply to a transaction has another form";
  for (const JsonElement one : operations) {
    JsonElement fault;
    if (!one["error"].get(fault) && !fault.is_null()) return textOfError(one);
  }
  return {};
}

}  // namespace vnagent::ovsdb
