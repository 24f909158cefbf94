#include "agent/export/status_server.h"

#include <chrono>
#include <cstdio>

#include <unistd.h>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

namespace vnagent {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using Local = asio::local::stream_protocol;
using Tcp = asio::ip::tcp;
using Generic = asio::generic::stream_protocol;

constexpr auto kClientPatience = std::chrono::seconds(10);

// One connection, local or by TCP, with one request on it.
class Visit : public std::enable_shared_from_this<Visit> {
 public:
  Visit(Generic::socket socket, const StatusServer::Pages& pages)
      : stream_(std::move(socket)), pages_(pages) {}

  void start() {
    stream_.expires_after(kClientPatience);
    http::async_read(stream_, buffer_, request_,
                     [self = shared_from_this()](beast::error_code error, size_t) {
                       if (!error) self->answer();
                     });
  }

 private:
  void answer() {
    const std::string_view target(request_.target().data(), request_.target().size());
    response_.version(11);
    response_.set(http::field::content_type, "text/plain; charset=utf-8");
    if (request_.method() != http::verb::get) {
      response_.result(http::status::method_not_allowed);
      response_.set(http::field::allow, "GET");
    } else if (target == "/status") {
      response_.set(http::field::content_type, "application/json");
      response_.body() = pages_.status();
    } else if (target == "/metrics") {
      response_.set(http::field::content_type, "text/plain; version=0.0.4; charset=utf-8");
      response_.body() = pages_.metrics();
    } else {
      response_.result(http::status::not_found);
      response_.body() = "there is /status and /metrics\n";
    }
    response_.keep_alive(false);
    response_.prepare_payload();
    http::async_write(stream_, response_, [self = shared_from_this()](beast::error_code, size_t) {
      beast::error_code ignored;
      self->stream_.socket().shutdown(Generic::socket::shutdown_send, ignored);
    });
  }

  beast::basic_stream<Generic> stream_;
  const StatusServer::Pages& pages_;
  beast::flat_buffer buffer_;
  http::request<http::string_body> request_;
  http::response<http::string_body> response_;
};

template <class Protocol>
void acceptNext(typename Protocol::acceptor& acceptor, const StatusServer::Pages& pages) {
  acceptor.async_accept(
      [&acceptor, &pages](beast::error_code error, typename Protocol::socket socket) {
        if (error == asio::error::operation_aborted) return;
        if (!error) std::make_shared<Visit>(std::move(socket), pages)->start();
        acceptNext<Protocol>(acceptor, pages);
      });
}

}  // namespace

class StatusServer::Impl {
 public:
  Impl(asio::io_context& context, Pages pages)
      : context_(context), pages_(std::move(pages)), local_(context), tcp_(context) {}

  ~Impl() { stop(); }

  void listenOnSocket(const std::string& path) {
    try {
      const Local::endpoint endpoint(path);
      Local::socket probe(context_);
      beast::error_code error;
      probe.connect(endpoint, error);
      if (!error) throw CannotServeStatus(path + ": another exporter listens there");
      if (error == asio::error::connection_refused) ::unlink(path.c_str());
      local_.open(endpoint.protocol());
      local_.bind(endpoint);
      local_.listen();
    } catch (const boost::system::system_error& error) {
      throw CannotServeStatus(path + ": " + error.code().message());
    }
    path_ = path;
    acceptNext<Local>(local_, pages_);
  }

  unsigned short listenOnTcp(const std::string& address) {
    const size_t colon = address.rfind(':');
    std::string host = address.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    try {
      Tcp::resolver resolver(context_);
      const std::string port = colon == address.npos ? "" : address.substr(colon + 1);
      const Tcp::endpoint endpoint =
          *resolver.resolve(host, port, Tcp::resolver::passive | Tcp::resolver::numeric_service)
               .begin();
      tcp_.open(endpoint.protocol());
      tcp_.set_option(Tcp::acceptor::reuse_address(true));
      tcp_.bind(endpoint);
      tcp_.listen();
    } catch (const boost::system::system_error& error) {
      throw CannotServeStatus(address + ": " + error.code().message());
    }
    acceptNext<Tcp>(tcp_, pages_);
    return tcp_.local_endpoint().port();
  }

  void stop() {
    beast::error_code ignored;
    local_.close(ignored);
    tcp_.close(ignored);
    if (!path_.empty()) ::unlink(path_.c_str());
    path_.clear();
  }

 private:
  asio::io_context& context_;
  const Pages pages_;
  Local::acceptor local_;
  Tcp::acceptor tcp_;
  std::string path_;
};

StatusServer::StatusServer(asio::io_context& context, Pages pages)
    : impl_(std::make_unique<Impl>(context, std::move(pages))) {}

StatusServer::~StatusServer() = default;

void StatusServer::listenOnSocket(const std::string& path) {
  impl_->listenOnSocket(path);
}

unsigned short StatusServer::listenOnTcp(const std::string& address) {
  return impl_->listenOnTcp(address);
}

void StatusServer::stop() {
  impl_->stop();
}

}  // namespace vnagent
