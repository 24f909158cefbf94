#include "agent/load/http_channel.h"

#include <array>
#include <charconv>
#include <chrono>
#include <limits>
#include <optional>
#include <utility>

#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

namespace vnagent {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;

using Generic = asio::generic::stream_protocol;
using Socket = asio::basic_stream_socket<Generic, asio::io_context::executor_type>;
using TlsSocket = asio::ssl::stream<Socket>;
using Parser = http::response_parser<http::string_body>;
using Error = boost::system::error_code;

std::string_view view(boost::beast::string_view text) {
  return {text.data(), text.size()};
}

uint64_t numberOf(std::string_view text) {
  uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

// Where a socket connects to. Throws boost::system::system_error for a name that is not found.
Generic::endpoint addressOf(const Endpoint& endpoint) {
  if (!endpoint.socket.empty()) return asio::local::stream_protocol::endpoint(endpoint.socket);
  asio::io_context context;
  const auto found = asio::ip::tcp::resolver(context).resolve(endpoint.host, endpoint.port);
  return found.begin()->endpoint();
}

template <class Stream>
class Channel final : public HttpChannel {
 public:
  Channel(asio::io_context& context, const Endpoint& endpoint)
      : name_(endpoint.name()), endpoint_(endpoint) {
    if constexpr (std::is_same_v<Stream, TlsSocket>) {
      if (endpoint.authorities.empty()) {
        tls_.set_default_verify_paths();
      } else {
        tls_.load_verify_file(endpoint.authorities);
      }
      stream_.emplace(context.get_executor(), tls_);
      stream_->set_verify_mode(asio::ssl::verify_peer);
      stream_->set_verify_callback(asio::ssl::host_name_verification(endpoint.host));
      SSL_set_tlsext_host_name(stream_->native_handle(), endpoint.host.c_str());
    } else {
      stream_.emplace(context.get_executor());
    }
  }

  void open(Opened opened) override {
    Generic::endpoint address;
    try {
      address = addressOf(endpoint_);
    } catch (const boost::system::system_error& error) {
      return opened(message(error.code()));
    }
    opened_ = std::move(opened);
    lowest().async_connect(address, [this, self = shared_from_this()](const Error& error) {
      if (error) return isOpen(error);
      if (endpoint_.socket.empty()) lowest().set_option(asio::ip::tcp::no_delay(true));
      if constexpr (std::is_same_v<Stream, TlsSocket>) {
        stream_->async_handshake(asio::ssl::stream_base::client,
                                 [this, self](const Error& result) { isOpen(result); });
      } else {
        isOpen(error);
      }
    });
  }

  void send(std::string request, Answered answered) override {
    answered_ = std::move(answered);
    begin(std::move(request));
  }

  void stream(std::string request, Streamed streamed) override {
    streamed_ = std::move(streamed);
    begin(std::move(request));
  }

  void close() override {
    Error ignored;
    lowest().close(ignored);
  }

  int64_t waitingSince() const override { return waitingSince_; }

 private:
  Socket& lowest() {
    if constexpr (std::is_same_v<Stream, TlsSocket>) {
      return stream_->next_layer();
    } else {
      return *stream_;
    }
  }

  std::string message(const Error& error) const { return name_ + ": " + error.message(); }

  void isOpen(const Error& error) {
    std::exchange(opened_, nullptr)(error ? message(error) : std::string());
  }

  void begin(std::string request) {
    request_ = std::move(request);
    waitingSince_ = steadyNanoseconds();
    parser_.emplace();
    parser_->body_limit(std::numeric_limits<uint64_t>::max());
    parser_->header_limit(1 << 20);
    parser_->eager(true);
    hasHeader_ = false;
    asio::async_write(*stream_, asio::buffer(request_),
                      [this, self = shared_from_this()](const Error& error, size_t) {
                        if (error) return fail(error);
                        readMore();
                      });
  }

  void readMore() {
    if (input_.size() - end_ < kLeast) input_.resize(end_ + kLeast);
    stream_->async_read_some(asio::buffer(input_.data() + end_, input_.size() - end_),
                             [this, self = shared_from_this()](const Error& error, size_t size) {
                               if (error) return fail(error);
                               end_ += size;
                               parse();
                             });
  }

  void parse() {
    size_t begin = 0;
    while (begin < end_ && !parser_->is_done()) {
      Error error;
      begin += parser_->put(asio::buffer(input_.data() + begin, end_ - begin), error);
      if (error == http::error::need_more) break;
      if (error) return fail(error);
    }
    std::copy(input_.begin() + static_cast<std::ptrdiff_t>(begin),
              input_.begin() + static_cast<std::ptrdiff_t>(end_), input_.begin());
    end_ -= begin;
    if (streamed_) return takeParts();
    if (!parser_->is_done()) return readMore();
    takeReply();
  }

  void takeReply() {
    auto& message = parser_->get();
    ChannelReply reply;
    reply.status = message.result_int();
    if (const auto etag = message.find(http::field::etag); etag != message.end()) {
      std::string_view text = view(etag->value());
      if (text.size() >= 2 && text.front() == '"') text = text.substr(1, text.size() - 2);
      reply.etag = text;
    }
    if (const auto revision = message.find("Vnagent-Revision"); revision != message.end()) {
      reply.revision = numberOf(view(revision->value()));
    }
    reply.body = std::move(message.body());
    waitingSince_ = 0;
    std::exchange(answered_, nullptr)(std::move(reply));
  }

  void takeParts() {
    if (parser_->is_header_done() && !hasHeader_) {
      hasHeader_ = true;
      waitingSince_ = 0;
      streamed_({"", parser_->get().result_int(), {}});
    }
    if (!hasHeader_) return readMore();
    const std::string bytes = std::exchange(parser_->get().body(), {});
    if (!bytes.empty()) streamed_({"", parser_->get().result_int(), bytes});
    if (!parser_->is_done()) return readMore();
    std::exchange(streamed_, nullptr)({name_ + ": the stream has ended", 0, {}});
  }

  void fail(const Error& error) {
    waitingSince_ = 0;
    if (streamed_) {
      std::exchange(streamed_, nullptr)({message(error), 0, {}});
    } else if (answered_) {
      ChannelReply reply;
      reply.error = message(error);
      std::exchange(answered_, nullptr)(std::move(reply));
    }
  }

  // Room for a read.
  static constexpr size_t kLeast = 4096;

  const std::string name_;
  const Endpoint endpoint_;
  asio::ssl::context tls_{asio::ssl::context::tls_client};
  std::optional<Stream> stream_;
  std::string request_;
  std::vector<char> input_;
  size_t end_ = 0;  // of what was read and not parsed
  std::optional<Parser> parser_;
  bool hasHeader_ = false;
  int64_t waitingSince_ = 0;
  Opened opened_;
  Answered answered_;
  Streamed streamed_;
};

}  // namespace

int64_t steadyNanoseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

RequestHead::RequestHead(const Endpoint& endpoint)
    : lines_("Host: " + (endpoint.socket.empty() ? endpoint.host : "localhost") + "\r\n") {
  if (!endpoint.token.empty()) lines_ += "Authorization: Bearer " + endpoint.token + "\r\n";
}

std::string RequestHead::request(std::string_view method, std::string_view target,
                                 std::string_view body, std::string_view headers) const {
  const std::string_view type = body.empty()        ? ""
                                : method == "PATCH" ? "application/merge-patch+json"
                                                    : "application/json";
  return requestWithType(method, target, type, body, headers);
}

std::string RequestHead::requestWithType(std::string_view method, std::string_view target,
                                         std::string_view type, std::string_view body,
                                         std::string_view headers) const {
  std::string text;
  text.reserve(method.size() + target.size() + lines_.size() + headers.size() + body.size() + 96);
  text += method;
  text += ' ';
  text += target;
  text += " HTTP/1.1\r\n";
  text += lines_;
  text += headers;
  if (!type.empty()) {
    text += "Content-Type: ";
    text += type;
    text += "\r\n";
  }
  if (!body.empty() || method == "POST" || method == "PUT" || method == "PATCH") {
    text += "Content-Length: ";
    text += std::to_string(body.size());
    text += "\r\n";
  }
  text += "\r\n";
  text += body;
  return text;
}

std::shared_ptr<HttpChannel> HttpChannel::make(asio::io_context& context,
                                               const Endpoint& endpoint) {
  if (endpoint.tls) return std::make_shared<Channel<TlsSocket>>(context, endpoint);
  return std::make_shared<Channel<Socket>>(context, endpoint);
}

}  // namespace vnagent
