// A JSON-RPC 1.0 session with an OVSDB server (RFC 7047), opened again whenever it is lost.
//
//   Session session(context, Address::parse("unix:/run/db.sock"), {}, observer);
//   session.start();                       // onOpen() follows, or onClosed() with why not
//   session.call("list_dbs", "[]", [](const JsonElement* result, JsonElement error) { ... });
//
// A server that says nothing is asked with "echo", and given up when it does not answer; while a
// call is outstanding it has longer, as a server that works on a large transaction answers nothing.
//
// Everything runs on the one thread that runs the context. A session outlives none of its handlers:
// after stop() none is called.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <boost/asio/io_context.hpp>

#include "agent/ovsdb/address.h"
#include "agent/ovsdb/value.h"

namespace vnagent::ovsdb {

struct SessionTimes {
  std::chrono::milliseconds firstPause{100};     // before the second attempt to connect; doubles
  std::chrono::milliseconds longestPause{2000};  // between two attempts
  std::chrono::milliseconds opening{10'000};     // longest time for an attempt
  std::chrono::milliseconds silence{10'000};     // of the server before it is asked
  std::chrono::milliseconds patience{10'000};    // for an answer then
  std::chrono::milliseconds working{120'000};    // silence while a call is outstanding
};

class Session {
 public:
  class Observer {
   public:
    virtual ~Observer() = default;

    // The session is open. Calls may be sent from now on.
    virtual void onOpen() = 0;
    // The session, or an attempt to open it, has ended; another attempt follows. Outstanding calls
    // are forgotten: their handlers are not called.
    virtual void onClosed(const std::string& reason) = 0;
    // A notification of the server. What throws ends the session, with what() as the reason.
    virtual void onNotification(std::string_view method, JsonElement params) = 0;
  };
  // `result` is null where the server answered with an error. Both last for the call.
  using Reply = std::function<void(const JsonElement* result, JsonElement error)>;

  Session(boost::asio::io_context& context, Address address, TlsFiles tls, Observer& observer,
          SessionTimes times = {});
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Begins to connect, and goes on with it until stop().
  void start();
  void stop();

  // Ends the session, as if the connection were lost. Another attempt follows.
  void reset(const std::string& reason);

  bool isOpen() const;

  // Sends a request; `params` is a JSON array, in one or more pieces. What `reply` throws ends the
  // session. REQUIRES: isOpen().
  void call(std::string_view method, std::string_view params, Reply reply) {
    call(method, {params}, std::move(reply));
  }
  void call(std::string_view method, std::initializer_list<std::string_view> params, Reply reply);

  // Since the start, over all connections.
  uint64_t bytesSent() const;
  uint64_t bytesReceived() const;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace vnagent::ovsdb
