// A client of one database of an OVSDB server: a copy of the tables that it names, kept up to date,
// transactions, and a lock.
//
//   Client client(context, {.address = ..., .database = "hardware_vtep", .lock = "mine",
//                           .tables = {{"Physical_Switch", {"name", "tunnel_ips"}}}}, observer);
//   client.start();
//
// After each connection: onReset(), onRow() for each row, onReady(); then onRow() for what changed
// and onUpdated() after each set of changes. A server that still knows the last transaction that
// the client saw sends what changed since; there is no onReset() then. The tables are monitored
// with "monitor_cond_since", or "monitor_cond", or "monitor", whichever the server knows.
//
// Everything runs on the one thread that runs the context.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agent/ovsdb/session.h"
#include "agent/ovsdb/table_updates.h"

namespace vnagent::ovsdb {

struct MonitoredTable {
  std::string name;
  std::vector<std::string> columns;
  std::vector<std::string> optionalColumns = {};  // left out where the server's schema has none
};

struct ClientSettings {
  Address address;
  TlsFiles tls = {};
  std::string database;
  std::string lock = {};  // empty: none is asked for
  std::vector<MonitoredTable> tables;
  SessionTimes times = {};
};

class Client final : private Session::Observer {
 public:
  class Observer {
   public:
    virtual ~Observer() = default;

    // All rows are unknown again. What throws here and below ends the connection; another follows.
    virtual void onReset() = 0;
    virtual void onRow(const RowChange& change) = 0;
    // The copy is whole. From here on transactions may be sent.
    virtual void onReady() = 0;
    virtual void onUpdated() = 0;
    // Whether the client has its lock. It has none before the first call, and after onLost().
    virtual void onLock(bool isHeld) = 0;
    // The connection is lost, or was not made, or cannot be used. The rows stay what they are.
    virtual void onLost(const std::string& reason) = 0;
  };

  Client(boost::asio::io_context& context, ClientSettings settings, Client::Observer& observer);
  ~Client() override;

  void start();
  void stop();

  bool isReady() const { return isReady_; }

  // Takes the lock from whoever holds it, or gives it back. REQUIRES: isReady(), and a lock.
  void steal();
  void unlock();

  // Sends a transaction: `operations` is the JSON of the operations, separated by commas. The
  // server announces the rows that it changes before it replies. `reply` is not called when the
  // connection is lost before it.
  // REQUIRES: isReady().
  void transact(std::string_view operations, Session::Reply reply);

  // Whether the server's schema has the column. REQUIRES: onReady() was called once.
  bool hasColumn(const std::string& table, const std::string& column) const;

  // Since the start.
  uint64_t bytesSent() const { return session_.bytesSent(); }
  uint64_t bytesReceived() const { return session_.bytesReceived(); }

 private:
  enum class Method : uint8_t { kSince, kConditional, kPlain };

  // Session::Observer.
  void onOpen() override;
  void onClosed(const std::string& reason) override;
  void onNotification(std::string_view method, JsonElement params) override;

  void takeSchema(JsonElement schema);
  void monitor(Method method);
  void takeInitial(Method method, JsonElement result);
  void takeRows(JsonElement updates, UpdateForm form);
  void askForLock(const char* method);

  const ClientSettings settings_;
  Client::Observer& observer_;
  Session session_;
  std::string schema_;  // the tables of the server's schema, as JSON
  std::map<std::string, std::set<std::string>, std::less<>> columns_;  // of these tables
  std::string lastTransaction_;
  bool isReady_ = false;
  bool isFilled_ = false;  // rows were read, of this connection or one before
};

// The first error of a reply to a transaction, as text; empty without one. `result` may be null.
std::string errorOfTransaction(const JsonElement* result, JsonElement error);

}  // namespace vnagent::ovsdb
