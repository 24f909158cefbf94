#include "agent/ovsdb/transport.h"

#include <stdexcept>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>

namespace vnagent::ovsdb {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using Local = asio::local::stream_protocol;
using Tcp = asio::ip::tcp;

template <class Stream>
class StreamTransport : public Transport {
 public:
  void readSome(asio::mutable_buffer buffer, DoneBytes done) override {
    stream().async_read_some(buffer, std::move(done));
  }

  void write(std::string_view bytes, Done done) override {
    asio::async_write(stream(), asio::buffer(bytes.data(), bytes.size()),
                      [done = std::move(done)](error_code error, size_t) { done(error); });
  }

  void close() override {
    error_code ignored;
    stream().lowest_layer().close(ignored);
  }

 protected:
  virtual Stream& stream() = 0;
};

class UnixTransport final : public StreamTransport<Local::socket> {
 public:
  UnixTransport(asio::io_context& context, std::string path)
      : socket_(context), path_(std::move(path)) {}

  void open(Done done) override {
    try {
      socket_.async_connect(Local::endpoint(path_), std::move(done));
    } catch (const boost::system::system_error& error) {
      // A path that is too long for a socket.
      asio::post(socket_.get_executor(),
                 [done = std::move(done), code = error.code()] { done(code); });
    }
  }

 private:
  Local::socket& stream() override { return socket_; }

  Local::socket socket_;
  std::string path_;
};

// Resolves a name and connects to one of its addresses.
class TcpConnector {
 public:
  TcpConnector(asio::io_context& context, const Address& address)
      : resolver_(context), host_(address.host), port_(address.port) {}

  void open(Tcp::socket& socket, Transport::Done done) {
    resolver_.async_resolve(
        host_, port_, [this, &socket, done = std::move(done)](error_code error, const auto& found) {
          if (error || isClosed_) {
            done(error ? error : asio::error::operation_aborted);
            return;
          }
          asio::async_connect(socket, found, [&socket, done](error_code result, const auto&) {
            error_code ignored;
            if (!result) socket.set_option(Tcp::no_delay(true), ignored);
            done(result);
          });
        });
  }

  void close() {
    isClosed_ = true;
    resolver_.cancel();
  }

 private:
  Tcp::resolver resolver_;
  std::string host_;
  std::string port_;
  bool isClosed_ = false;
};

class TcpTransport final : public StreamTransport<Tcp::socket> {
 public:
  TcpTransport(asio::io_context& context, const Address& address)
      : connector_(context, address), socket_(context) {}

  void open(Done done) override { connector_.open(socket_, std::move(done)); }

  void close() override {
    connector_.close();
    StreamTransport::close();
  }

 private:
  Tcp::socket& stream() override { return socket_; }

  TcpConnector connector_;
  Tcp::socket socket_;
};

using TlsStream = asio::ssl::stream<Tcp::socket>;

class TlsTransport final : public StreamTransport<TlsStream> {
 public:
  TlsTransport(asio::io_context& context, const Address& address, const TlsFiles& files)
      : connector_(context, address),
        tls_(contextOf(files)),
        stream_(context, tls_),
        host_(address.host) {}

  void open(Done done) override {
    SSL_set_tlsext_host_name(stream_.native_handle(), host_.c_str());
    connector_.open(stream_.next_layer(), [this, done = std::move(done)](error_code error) {
      if (error) {
        done(error);
      } else {
        stream_.async_handshake(asio::ssl::stream_base::client, done);
      }
    });
  }

  void close() override {
    connector_.close();
    StreamTransport::close();
  }

 private:
  static asio::ssl::context contextOf(const TlsFiles& files) {
    asio::ssl::context context(asio::ssl::context::tls_client);
    error_code error;
    const auto check = [&error](const std::string& file) {
      if (error) throw std::runtime_error(file + ": " + error.message());
    };
    context.set_verify_mode(asio::ssl::verify_peer);
    if (files.authorities.empty()) {
      context.set_default_verify_paths(error);
    } else {
      context.load_verify_file(files.authorities, error);
    }
    check(files.authorities);
    if (!files.certificate.empty()) {
      context.use_certificate_chain_file(files.certificate, error);
      check(files.certificate);
    }
    if (!files.privateKey.empty()) {
      context.use_private_key_file(files.privateKey, asio::ssl::context::pem, error);
      check(files.privateKey);
    }
    return context;
  }

  TlsStream& stream() override { return stream_; }

  TcpConnector connector_;
  asio::ssl::context tls_;
  TlsStream stream_;
  std::string host_;
};

}  // namespace

std::unique_ptr<Transport> Transport::make(asio::io_context& context, const Address& address,
                                           const TlsFiles& tls) {
  switch (address.kind) {
    case Address::Kind::kUnix:
      return std::make_unique<UnixTransport>(context, address.path);
    case Address::Kind::kTcp:
      return std::make_unique<TcpTransport>(context, address);
    case Address::Kind::kSsl:
      break;
  }
  return std::make_unique<TlsTransport>(context, address, tls);
}

}  // namespace vnagent::ovsdb
