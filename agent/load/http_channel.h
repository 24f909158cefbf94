// A connection to an HTTP/1.1 server for one request after another, asynchronous: thousands of them
// share a thread.
//
//   const auto channel = HttpChannel::make(context, endpoint);
//   channel->open([=](const std::string& error) {
//     channel->send(head.request("GET", "/v1"), [](const ChannelReply& reply) { ... });
//   });
//
// All calls and callbacks are on the thread that runs the context. A channel lives while an
// operation of it is pending; callbacks are called once for each operation, also after close().
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "agent/client/http.h"

namespace boost::asio {
class io_context;
}

namespace vnagent {

// Nanoseconds of the steady clock.
int64_t steadyNanoseconds();

struct ChannelReply {
  std::string error;  // not empty: there is no reply, and why
  unsigned status = 0;
  std::string etag;       // without its quotes; empty for none
  uint64_t revision = 0;  // of the header Vnagent-Revision; 0 for none
  std::string body;
};

// What the requests to one server have in common, made once.
class RequestHead {
 public:
  explicit RequestHead(const Endpoint& endpoint);

  // The bytes of a request. `headers` are whole lines, each with its end.
  std::string request(std::string_view method, std::string_view target, std::string_view body = {},
                      std::string_view headers = {}) const;
  // The same with a body of another type than that which the agent wants for the method.
  std::string requestWithType(std::string_view method, std::string_view target,
                              std::string_view type, std::string_view body,
                              std::string_view headers = {}) const;

 private:
  std::string lines_;  // Host, and Authorization where there is a token
};

class HttpChannel : public std::enable_shared_from_this<HttpChannel> {
 public:
  using Opened = std::function<void(const std::string& error)>;
  using Answered = std::function<void(ChannelReply reply)>;
  // What an answer without an end has so far; `error` is not empty when nothing more comes. The
  // first call has the status and no bytes.
  struct Part {
    std::string error;
    unsigned status = 0;
    std::string_view bytes;
  };
  using Streamed = std::function<void(const Part& part)>;

  // `context` outlives the channel.
  static std::shared_ptr<HttpChannel> make(boost::asio::io_context& context,
                                           const Endpoint& endpoint);
  virtual ~HttpChannel() = default;

  // Connects; error is empty when it has.
  virtual void open(Opened opened) = 0;
  // REQUIRES: open, and no other request pending.
  virtual void send(std::string request, Answered answered) = 0;
  virtual void stream(std::string request, Streamed streamed) = 0;
  virtual void close() = 0;
  // Since when it waits for an answer's end, in steady nanoseconds; 0: it does not.
  virtual int64_t waitingSince() const = 0;
};

}  // namespace vnagent
