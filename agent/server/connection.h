// One connection: reads requests, hands each to the service, and writes the replies in order. A
// read is always pending, so that a client that goes away is noticed while its request waits or its
// events are sent.
//
// Everything runs on the connection's strand, except where noted. It lives for as long as an
// operation on its socket or a request of it is pending.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/strand.hpp>

#include "agent/server/event_feed.h"
#include "agent/server/hub.h"
#include "agent/server/reply_writer.h"
#include "agent/server/request_reader.h"

namespace vnagent {

using NetworkExecutor = boost::asio::strand<boost::asio::io_context::executor_type>;
using PlainSocket =
    boost::asio::basic_stream_socket<boost::asio::generic::stream_protocol, NetworkExecutor>;
using TcpSocket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, NetworkExecutor>;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  virtual ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Begins; any thread, once.
  void start();

  // Takes no further request; what was accepted is answered. Any thread.
  void stop();
  // Closes at once. Any thread.
  void abort();
  // Whether it has waited for longer than it may; then deadlinePassed() ends it. Any thread.
  bool isOverdue() const;
  void deadlinePassed();

 protected:
  // `principal`: who the peer is, whatever it sends; nothing where its requests say so.
  Connection(std::shared_ptr<Hub> hub, NetworkExecutor executor,
             std::optional<Principal> principal);

  using Buffers = std::vector<boost::asio::const_buffer>;

  // The socket. Each operation calls onOpened(), onRead() or onWritten() later.
  virtual void beginOpen() = 0;
  virtual void beginRead(boost::asio::mutable_buffer buffer) = 0;
  virtual void beginWrite(const Buffers& buffers) = 0;
  // Says that nothing more will be written.
  virtual void shutdownWriting() = 0;
  virtual void closeSocket() = 0;

  void onOpened(const boost::system::error_code& error);
  void onRead(const boost::system::error_code& error, size_t size);
  void onWritten(const boost::system::error_code& error, size_t size);
  void certificateIs(const std::string& commonName);

 private:
  enum class Phase : uint8_t {
    kOpening,    // TLS
    kReceiving,  // between requests, or inside one
    kWaiting,    // the service has the request
    kReplying,
    kStreaming,
    kLingering,  // everything is written; the client reads it
    kClosed,
  };
  struct Exchange;
  using Bytes = std::shared_ptr<const std::string>;

  // Requests.
  void readMore();
  void receive();
  // Both return whether receiving goes on.
  bool takeHeader();
  bool takeRequest();
  void authenticate();
  bool enterShare();
  bool isProbe() const;
  Reply probe(const Request& request) const;
  bool hasMemoryForBody();
  void refuseBody();
  void submit(Request request);
  bool mayWait() const;
  void inputEnded();
  void dropRequest();

  // Replies.
  void refuse(const Problem& problem, const Headers& headers = {});
  void reply(Reply reply, std::shared_ptr<EventFeed> feed = nullptr);
  void eventsAre(Bytes bytes);
  void send(Bytes bytes);
  void continueWriting();
  void replyIsWritten();

  void expectWithin(std::chrono::milliseconds time);
  void expectNothing();
  void linger();
  void close();

  const std::shared_ptr<Hub> hub_;
  const NetworkExecutor executor_;
  Phase phase_ = Phase::kOpening;
  bool isWelcome_ = true;          // false: there are too many connections
  std::atomic<int64_t> deadline_;  // nanoseconds of the steady clock

  // Receiving.
  RequestReader reader_;
  std::array<char, 2048> small_;
  std::unique_ptr<std::array<char, 65536>> large_;  // while a body arrives
  bool isReading_ = false;
  bool hasInputEnded_ = false;

  // Who it is.
  std::optional<Principal> peer_;  // of the Unix socket, or the certificate
  bool takesTokens_ = true;
  std::optional<Principal> principal_;  // of the present request
  std::string share_;                   // the principal that it counts to; empty: none

  // The present request.
  std::string method_;
  std::string target_;
  ReplyForm form_;
  std::shared_ptr<BodyShare> body_;     // where it has a body
  std::shared_ptr<Exchange> exchange_;  // while the service has it
  std::shared_ptr<EventFeed> feed_;

  // What is to be written.
  std::deque<Bytes> output_;
  size_t written_ = 0;  // of the first
  bool isWriting_ = false;
};

// A connection over the Unix socket or plain TCP, and one over TLS.
std::shared_ptr<Connection> makeConnection(std::shared_ptr<Hub> hub, PlainSocket socket,
                                           std::optional<Principal> principal);
std::shared_ptr<Connection> makeTlsConnection(std::shared_ptr<Hub> hub, TcpSocket socket,
                                              std::shared_ptr<boost::asio::ssl::context> tls);

}  // namespace vnagent
