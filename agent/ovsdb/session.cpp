#include "agent/ovsdb/session.h"

#include <algorithm>
#include <array>
#include <deque>
#include <random>
#include <unordered_map>

#include <boost/asio/steady_timer.hpp>

#include "agent/ovsdb/json_stream.h"
#include "agent/ovsdb/transport.h"

namespace vnagent::ovsdb {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

constexpr size_t kReadBytes = size_t{1} << 16;

}  // namespace

class Session::Impl : public std::enable_shared_from_this<Impl> {
 public:
  Impl(asio::io_context& context, Address address, TlsFiles tls, Observer& observer,
       SessionTimes times)
      : context_(context),
        address_(std::move(address)),
        tls_(std::move(tls)),
        observer_(observer),
        times_(times),
        pause_(times.firstPause),
        retry_(context),
        watchdog_(context) {}

  void start() {
    isStarted_ = true;
    connect();
  }

  void stop() {
    isStarted_ = false;
    retry_.cancel();
    close();
  }

  void reset(const std::string& reason) {
    if (!isStarted_) return;
    // A server that ends each connection soon is not asked again and again.
    if (isOpen_ && Clock::now() - opened_ > times_.longestPause) pause_ = times_.firstPause;
    close();
    // From the first pause to the longest, and up to a quarter more, so that many sessions that
    // were lost at once do not return at once.
    std::uniform_int_distribution<int64_t> spread(0, pause_.count() / 4);
    retry_.expires_after(pause_ + std::chrono::milliseconds(spread(random_)));
    pause_ = std::min(2 * pause_, times_.longestPause);
    retry_.async_wait([self = shared_from_this()](error_code error) {
      if (!error && self->isStarted_) self->connect();
    });
    observer_.onClosed(reason);
  }

  bool isOpen() const { return isOpen_; }

  void call(std::string_view method, std::initializer_list<std::string_view> params, Reply reply) {
    const uint64_t id = ++lastId_;
    calls_.emplace(id, std::move(reply));
    size_t size = 0;
    for (const std::string_view piece : params) size += piece.size();
    std::string text;
    text.reserve(size + method.size() + 48);
    text += R"({"method":")";
    text += method;
    text += R"(","params":)";
    for (const std::string_view piece : params) text += piece;
    text += R"(,"id":)";
    text += std::to_string(id);
    text += '}';
    send(std::move(text));
  }

  uint64_t sent_ = 0;
  uint64_t received_ = 0;

 private:
  // A handler that keeps what it works on, and does nothing once the connection is another.
  template <class Handler>
  auto guarded(Handler handler) {
    return [self = shared_from_this(), transport = transport_, generation = generation_,
            handler = std::move(handler)](error_code error, auto... more) {
      if (self->generation_ == generation) handler(error, more...);
    };
  }

  void connect() {
    try {
      transport_ = Transport::make(context_, address_, tls_);
    } catch (const std::exception& error) {
      reset(error.what());
      return;
    }
    stream_ = JsonStream();
    lastHeard_ = Clock::now();
    watch();
    transport_->open(guarded([this](error_code error) {
      if (error) {
        reset(error.message());
        return;
      }
      isOpen_ = true;
      lastHeard_ = opened_ = Clock::now();
      read();
      observer_.onOpen();
    }));
  }

  void close() {
    isOpen_ = false;
    isAsked_ = false;
    watchdog_.cancel();
    ++generation_;
    if (transport_) transport_->close();
    transport_.reset();
    queue_.clear();
    isWriting_ = false;
    calls_.clear();
  }

  void read() {
    transport_->readSome(
        asio::buffer(*buffer_), guarded([this](error_code error, size_t bytes) {
          if (error) {
            reset(error == asio::error::eof ? "the server closed the connection" : error.message());
            return;
          }
          received_ += bytes;
          lastHeard_ = Clock::now();
          isAsked_ = false;
          takeBytes({buffer_->data(), bytes});
        }));
  }

  void takeBytes(std::string_view bytes) {
    const uint64_t generation = generation_;
    std::string fault;
    bool isGood = false;
    try {
      isGood = stream_.feed(bytes, [&](std::string_view text) {
        if (generation_ == generation) takeMessage(text);
      });
    } catch (const std::exception& error) {
      fault = error.what();
    }
    if (generation_ != generation) return;
    if (!isGood) {
      reset(fault.empty() ? "the server sent what is not JSON-RPC" : fault);
      return;
    }
    read();
  }

  void takeMessage(std::string_view text) {
    simdjson::dom::parser parser;
    JsonElement message;
    if (const auto fault = parser.parse(text.data(), text.size()).get(message)) {
      throw ProtocolError(std::string("the server sent what is not JSON: ") +
                          simdjson::error_message(fault));
    }
    JsonElement method;
    if (message["method"].get(method)) {
      takeReply(message);
      return;
    }
    std::string_view name;
    JsonElement params;
    if (method.get(name) || message["params"].get(params)) {
      throw ProtocolError("the server sent a request without method or params");
    }
    if (name == "echo") {
      JsonElement id;
      const bool hasId = !message["id"].get(id);
      send(R"({"result":)" + simdjson::minify(params) + R"(,"error":null,"id":)" +
           (hasId ? simdjson::minify(id) : "null") + "}");
    } else {
      observer_.onNotification(name, params);
    }
  }

  void takeReply(JsonElement message) {
    JsonElement id, result, error;
    if (message["id"].get(id) || message["result"].get(result) || message["error"].get(error)) {
      throw ProtocolError("the server sent what is neither a request nor a reply");
    }
    uint64_t number = 0;
    if (id.get(number)) return;  // of an echo
    const auto found = calls_.find(number);
    if (found == calls_.end()) return;
    const Reply reply = std::move(found->second);
    calls_.erase(found);
    reply(error.is_null() ? &result : nullptr, error);
  }

  void send(std::string text) {
    queue_.push_back(std::move(text));
    if (!isWriting_) write();
  }

  void write() {
    isWriting_ = true;
    // The text lives as long as the operation, also after the queue was cleared.
    const auto text = std::make_shared<const std::string>(std::move(queue_.front()));
    queue_.pop_front();
    transport_->write(*text, guarded([this, text](error_code error) {
      if (error) {
        reset(error.message());
        return;
      }
      sent_ += text->size();
      isWriting_ = false;
      if (!queue_.empty()) write();
    }));
  }

  // Looks whether the server still answers, and does so again for as long as the connection lasts.
  void watch() {
    const auto shortest = std::min({times_.silence, times_.patience, times_.opening});
    watchdog_.expires_after(std::max(shortest / 2, std::chrono::milliseconds(1)));
    watchdog_.async_wait(guarded([this](error_code error) {
      if (error) return;
      const auto silent = Clock::now() - lastHeard_;
      if (!isOpen_) {
        if (silent > times_.opening) return reset("no connection in time");
      } else if (!calls_.empty()) {
        if (silent > times_.working) return reset("the server does not answer");
      } else if (isAsked_) {
        if (silent > times_.silence + times_.patience) return reset("the server does not answer");
      } else if (silent > times_.silence) {
        isAsked_ = true;
        send(R"({"method":"echo","params":[],"id":"echo"})");
      }
      watch();
    }));
  }

  asio::io_context& context_;
  const Address address_;
  const TlsFiles tls_;
  Observer& observer_;
  const SessionTimes times_;
  std::chrono::milliseconds pause_;
  asio::steady_timer retry_;
  asio::steady_timer watchdog_;
  std::minstd_rand random_{std::random_device()()};
  bool isStarted_ = false;

  // Of the present connection.
  std::shared_ptr<Transport> transport_;
  uint64_t generation_ = 0;
  bool isOpen_ = false;
  bool isAsked_ = false;
  Clock::time_point opened_;
  Clock::time_point lastHeard_;
  JsonStream stream_;
  std::shared_ptr<std::array<char, kReadBytes>> buffer_ =
      std::make_shared<std::array<char, kReadBytes>>();
  std::deque<std::string> queue_;
  bool isWriting_ = false;
  std::unordered_map<uint64_t, Reply> calls_;
  uint64_t lastId_ = 0;
};

Session::Session(asio::io_context& context, Address address, TlsFiles tls, Observer& observer,
                 SessionTimes times)
    : impl_(std::make_shared<Impl>(context, std::move(address), std::move(tls), observer, times)) {}

Session::~Session() {
  impl_->stop();
}

void Session::start() {
  impl_->start();
}

void Session::stop() {
  impl_->stop();
}

void Session::reset(const std::string& reason) {
  impl_->reset(reason);
}

bool Session::isOpen() const {
  return impl_->isOpen();
}

void Session::call(std::string_view method, std::initializer_list<std::string_view> params,
                   Reply reply) {
  impl_->call(method, params, std::move(reply));
}

uint64_t Session::bytesSent() const {
  return impl_->sent_;
}

uint64_t Session::bytesReceived() const {
  return impl_->received_;
}

}  // namespace vnagent::ovsdb
