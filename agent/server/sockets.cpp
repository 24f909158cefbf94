// The two kinds of sockets below a connection.
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/stream.hpp>

#include "agent/server/connection.h"
#include "agent/server/tls.h"

namespace vnagent {
namespace {

namespace net = boost::asio;
using boost::system::error_code;

class PlainConnection final : public Connection {
 public:
  PlainConnection(std::shared_ptr<Hub> hub, PlainSocket socket, std::optional<Principal> principal)
      : Connection(std::move(hub), socket.get_executor(), std::move(principal)),
        socket_(std::move(socket)) {}

 private:
  std::shared_ptr<PlainConnection> self() {
    return std::static_pointer_cast<PlainConnection>(shared_from_this());
  }

  void beginOpen() override { onOpened({}); }
  void beginRead(net::mutable_buffer buffer) override {
    socket_.async_read_some(buffer, [self = self()](const error_code& error, size_t size) {
      self->onRead(error, size);
    });
  }
  void beginWrite(const Buffers& buffers) override {
    socket_.async_write_some(buffers, [self = self()](const error_code& error, size_t size) {
      self->onWritten(error, size);
    });
  }
  void shutdownWriting() override {
    error_code ignored;
    socket_.shutdown(net::socket_base::shutdown_send, ignored);
  }
  void closeSocket() override {
    error_code ignored;
    socket_.close(ignored);
  }

  PlainSocket socket_;
};

class TlsConnection final : public Connection {
 public:
  TlsConnection(std::shared_ptr<Hub> hub, TcpSocket socket, std::shared_ptr<net::ssl::context> tls)
      : Connection(std::move(hub), socket.get_executor(), std::nullopt),
        tls_(std::move(tls)),
        stream_(std::move(socket), *tls_) {}

 private:
  std::shared_ptr<TlsConnection> self() {
    return std::static_pointer_cast<TlsConnection>(shared_from_this());
  }

  void beginOpen() override {
    stream_.async_handshake(net::ssl::stream_base::server,
                            [self = self()](const error_code& error) { self->handshaken(error); });
  }
  void handshaken(const error_code& error) {
    if (!error) {
      if (const auto name = peerCommonName(stream_.native_handle())) certificateIs(*name);
    }
    onOpened(error);
  }
  void beginRead(net::mutable_buffer buffer) override {
    stream_.async_read_some(buffer, [self = self()](const error_code& error, size_t size) {
      // Requests are framed: an end without a farewell cuts none of them in two unnoticed.
      self->onRead(error == net::ssl::error::stream_truncated ? net::error::eof : error, size);
    });
  }
  void beginWrite(const Buffers& buffers) override {
    stream_.async_write_some(buffers, [self = self()](const error_code& error, size_t size) {
      self->onWritten(error, size);
    });
  }
  void shutdownWriting() override {
    stream_.async_shutdown([self = self()](const error_code&) {});
  }
  void closeSocket() override {
    error_code ignored;
    stream_.next_layer().close(ignored);
  }

  const std::shared_ptr<net::ssl::context> tls_;
  net::ssl::stream<TcpSocket> stream_;
};

}  // namespace

std::shared_ptr<Connection> makeConnection(std::shared_ptr<Hub> hub, PlainSocket socket,
                                           std::optional<Principal> principal) {
  return std::make_shared<PlainConnection>(std::move(hub), std::move(socket), std::move(principal));
}

std::shared_ptr<Connection> makeTlsConnection(std::shared_ptr<Hub> hub, TcpSocket socket,
                                              std::shared_ptr<net::ssl::context> tls) {
  return std::make_shared<TlsConnection>(std::move(hub), std::move(socket), std::move(tls));
}

}  // namespace vnagent
