#include "agent/client/http.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

namespace vnagent {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

// One type of stream for local sockets and TCP: what is made from the templates is large.
using Generic = asio::generic::stream_protocol;
using PlainStream = beast::basic_stream<Generic, asio::io_context::executor_type>;
using TlsStream = beast::ssl_stream<PlainStream>;
using Parser = http::response_parser<http::string_body>;

std::chrono::nanoseconds toDuration(double seconds) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(std::clamp(seconds, 0.0, 1e6)));
}

http::request<http::string_body> toBeast(const HttpRequest& request, const Endpoint& endpoint) {
  http::request<http::string_body> message;
  message.version(11);
  message.method_string(request.method);
  message.target(request.target);
  message.set(http::field::host, endpoint.socket.empty() ? endpoint.host : "localhost");
  message.set(http::field::user_agent, "vnagent");
  if (!endpoint.token.empty()) message.set(http::field::authorization, "Bearer " + endpoint.token);
  for (const auto& [name, value] : request.headers) message.set(name, value);
  message.body() = request.body;
  const bool hasBody = !request.body.empty() || request.method == "POST";
  if (hasBody) message.prepare_payload();
  return message;
}

std::string lowered(std::string_view text) {
  std::string lower(text);
  std::ranges::transform(lower, lower.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

// One connection with one request on it. Each step runs the context until it is done or the
// stream's timer has cancelled it.
template <class Stream>
class Connection final : public HttpStream {
 public:
  Connection(std::string name, double deadline) : name_(std::move(name)), deadline_(deadline) {
    parser_.body_limit(std::numeric_limits<uint64_t>::max());
    parser_.header_limit(1 << 20);
    if constexpr (std::is_same_v<Stream, TlsStream>) {
      stream_.emplace(context_, tls_);
    } else {
      stream_.emplace(context_);
    }
    beast::get_lowest_layer(*stream_).expires_after(toDuration(deadline));
  }

  void connect(const Endpoint& endpoint) {
    const std::vector<Generic::endpoint> addresses = addressesOf(endpoint);
    PlainStream& plain = beast::get_lowest_layer(*stream_);
    wait([&](auto done) {
      plain.async_connect(addresses,
                          [done](beast::error_code result, const auto&) { done(result); });
    });
    if (endpoint.socket.empty()) plain.socket().set_option(asio::ip::tcp::no_delay(true));
    if constexpr (std::is_same_v<Stream, TlsStream>) shakeHands(endpoint);
  }

  void send(const HttpRequest& request, const Endpoint& endpoint) {
    const auto message = toBeast(request, endpoint);
    wait([&](auto done) {
      http::async_write(*stream_, message,
                        [done](beast::error_code error, size_t) { done(error); });
    });
    parser_.skip(request.method == "HEAD");
    wait([&](auto done) {
      http::async_read_header(*stream_, buffer_, parser_,
                              [done](beast::error_code error, size_t) { done(error); });
    });
    response_.status = parser_.get().result_int();
    for (const auto& field : parser_.get()) {
      response_.headers.emplace_back(
          lowered({field.name_string().data(), field.name_string().size()}),
          std::string(field.value()));
    }
  }

  void readAll() {
    while (!parser_.is_done()) readSome();
    response_.body = std::move(parser_.get().body());
  }

  const HttpResponse& response() const override { return response_; }

  std::string read(double deadline) override {
    deadline_ = deadline;
    beast::get_lowest_layer(*stream_).expires_after(toDuration(deadline));
    while (parser_.get().body().empty() && !parser_.is_done()) readSome();
    return std::exchange(parser_.get().body(), {});
  }

 private:
  std::vector<Generic::endpoint> addressesOf(const Endpoint& endpoint) {
    if (!endpoint.socket.empty()) return {asio::local::stream_protocol::endpoint(endpoint.socket)};
    beast::error_code error;
    const auto found =
        asio::ip::tcp::resolver(context_).resolve(endpoint.host, endpoint.port, error);
    check(error);
    std::vector<Generic::endpoint> addresses;
    for (const auto& entry : found) addresses.emplace_back(entry.endpoint());
    return addresses;
  }

  void shakeHands(const Endpoint& endpoint) {
    beast::error_code error;
    if (endpoint.authorities.empty()) {
      tls_.set_default_verify_paths(error);
    } else {
      tls_.load_verify_file(endpoint.authorities, error);
    }
    check(error);
    // The stream was made before: what it verifies with is the context's store, which is shared.
    stream_->set_verify_mode(asio::ssl::verify_peer);
    stream_->set_verify_callback(asio::ssl::host_name_verification(endpoint.host));
    if (SSL_set_tlsext_host_name(stream_->native_handle(), endpoint.host.c_str()) != 1) {
      throw Unreachable(name_ + ": the host's name cannot be sent");
    }
    wait([&](auto done) { stream_->async_handshake(asio::ssl::stream_base::client, done); });
  }

  void readSome() {
    wait([&](auto done) {
      http::async_read_some(*stream_, buffer_, parser_,
                            [done](beast::error_code error, size_t) { done(error); });
    });
  }

  // Starts an operation with a function that takes its result, and waits for that.
  template <class Start>
  void wait(const Start& start) {
    std::optional<beast::error_code> result;
    start([&result](beast::error_code error) { result = error; });
    context_.restart();
    context_.run();
    check(result.value_or(beast::error::timeout));
  }

  void check(beast::error_code error) const {
    if (!error) return;
    if (error == beast::error::timeout) {
      throw Unreachable(name_ + ": no answer within " + seconds());
    }
    throw Unreachable(name_ + ": " + error.message());
  }

  std::string seconds() const {
    std::string text = std::to_string(deadline_);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text + " s";
  }

  std::string name_;
  double deadline_;
  asio::io_context context_;
  asio::ssl::context tls_{asio::ssl::context::tls_client};
  std::optional<Stream> stream_;
  beast::flat_buffer buffer_;
  Parser parser_;
  HttpResponse response_;
};

template <class Stream>
std::unique_ptr<HttpStream> opened(const Endpoint& endpoint, const HttpRequest& request,
                                   bool whole) {
  auto connection = std::make_unique<Connection<Stream>>(endpoint.name(), request.deadline);
  connection->connect(endpoint);
  connection->send(request, endpoint);
  if (whole || connection->response().status != 200) connection->readAll();
  return connection;
}

std::unique_ptr<HttpStream> opened(const Endpoint& endpoint, const HttpRequest& request,
                                   bool whole) {
  if (endpoint.tls) return opened<TlsStream>(endpoint, request, whole);
  return opened<PlainStream>(endpoint, request, whole);
}

}  // namespace

Endpoint Endpoint::ofSocket(std::string path) {
  Endpoint endpoint;
  endpoint.socket = std::move(path);
  return endpoint;
}

Endpoint Endpoint::ofUrl(std::string_view url) {
  Endpoint endpoint;
  const size_t scheme = url.find("://");
  const std::string_view name = scheme == url.npos ? "" : url.substr(0, scheme);
  if (name != "http" && name != "https") {
    throw std::invalid_argument("a URL begins with http:// or https://");
  }
  endpoint.tls = name == "https";
  url.remove_prefix(scheme + 3);
  if (url.ends_with('/')) url.remove_suffix(1);
  const size_t colon = url.ends_with(']') ? url.npos : url.rfind(':');
  std::string_view host = url.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  endpoint.host = host;
  endpoint.port = colon == url.npos ? (endpoint.tls ? "443" : "80") : url.substr(colon + 1);
  const bool isPort = !endpoint.port.empty() && std::ranges::all_of(endpoint.port, [](char c) {
    return c >= '0' && c <= '9';
  });
  if (endpoint.host.empty() || endpoint.host.find('/') != std::string::npos || !isPort) {
    throw std::invalid_argument("a URL is http://HOST:PORT or https://HOST:PORT");
  }
  return endpoint;
}

std::string Endpoint::name() const {
  return socket.empty() ? host + ":" + port : socket;
}

std::string HttpResponse::header(std::string_view name) const {
  const auto found =
      std::ranges::find_if(headers, [&](const auto& header) { return header.first == name; });
  return found == headers.end() ? std::string() : found->second;
}

HttpResponse HttpClient::send(const HttpRequest& request) const {
  return opened(endpoint_, request, true)->response();
}

std::unique_ptr<HttpStream> HttpClient::open(const HttpRequest& request) const {
  return opened(endpoint_, request, false);
}

}  // namespace vnagent
