#include "agent/server/connection.h"

#include <limits>
#include <utility>

#include <fmt/format.h>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>

#include "agent/server/steady_time.h"

namespace vnagent {
namespace {

namespace net = boost::asio;

// What a client may send ahead while its request waits; then its bytes wait in the socket.
constexpr size_t kMaxAhead = 65536;
// Buffers that are handed to the socket at once.
constexpr size_t kMaxBuffers = 16;
constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

std::shared_ptr<const std::string> shared(std::string text) {
  return std::make_shared<const std::string>(std::move(text));
}

}  // namespace

// A request that the service has. Activity thread only.
struct Connection::Exchange {
  std::shared_ptr<BodyShare> body;  // any thread
  uint64_t ticket = 0;
  bool isTaken = false;
  bool isAnswered = false;
};

Connection::Connection(std::shared_ptr<Hub> hub, NetworkExecutor executor,
                       std::optional<Principal> principal)
    : hub_(std::move(hub)),
      executor_(std::move(executor)),
      deadline_(kNever),
      reader_(hub_->limits().headerBytes, hub_->limits().bodyBytes),
      peer_(std::move(principal)),
      takesTokens_(!peer_) {}

Connection::~Connection() = default;

// Life.

void Connection::start() {
  net::dispatch(executor_, [self = shared_from_this()] {
    self->hub_->observer().onConnected();
    self->isWelcome_ = self->hub_->enter(self);
    if (self->hub_->isStopping()) return self->close();
    self->expectWithin(self->hub_->limits().request);
    self->beginOpen();
  });
}

void Connection::onOpened(const boost::system::error_code& error) {
  if (phase_ != Phase::kOpening) return;
  if (error) return close();
  phase_ = Phase::kReceiving;
  expectWithin(hub_->limits().request);
  if (!isWelcome_) {
    refuse({429, "too-many", "There are too many connections",
            fmt::format("at most {} are served at once", hub_->limits().connections)});
  }
  readMore();
}

void Connection::stop() {
  net::post(executor_, [self = shared_from_this()] {
    if (self->phase_ == Phase::kOpening) return self->close();
    if (self->phase_ != Phase::kReceiving) return;
    if (!self->reader_.isInside()) return self->close();
    self->refuse({503, "not-ready", "The agent does not take this now", "the agent stops"});
  });
}

void Connection::abort() {
  net::post(executor_, [self = shared_from_this()] { self->close(); });
}

bool Connection::isOverdue() const {
  return deadline_.load(std::memory_order_relaxed) <= steadyNanoseconds();
}

void Connection::deadlinePassed() {
  net::post(executor_, [self = shared_from_this()] {
    if (!self->isOverdue() || self->phase_ == Phase::kClosed) return;
    if (self->phase_ == Phase::kReceiving && self->reader_.isInside()) {
      return self->refuse(
          {408, "timeout", "The request took too long", "the request did not arrive in time"});
    }
    if (self->phase_ == Phase::kReplying || self->phase_ == Phase::kStreaming) {
      self->hub_->observer().onCut();
    }
    self->close();
  });
}

void Connection::expectWithin(std::chrono::milliseconds time) {
  const auto span = std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
  deadline_.store(steadyNanoseconds() + span, std::memory_order_relaxed);
}

void Connection::expectNothing() {
  deadline_.store(kNever, std::memory_order_relaxed);
}

// The last bytes are written. Closing while bytes of the client are unread would make its system
// throw away the reply: its bytes are read, and dropped, until it closes too.
void Connection::linger() {
  phase_ = Phase::kLingering;
  expectWithin(hub_->limits().lingering);
  if (hasInputEnded_) return close();
  shutdownWriting();
  readMore();
}

void Connection::close() {
  if (phase_ == Phase::kClosed) return;
  phase_ = Phase::kClosed;
  expectNothing();
  dropRequest();
  body_ = nullptr;
  hub_->leaveShare(share_);
  hub_->leave(this);
  hub_->observer().onDisconnected();
  closeSocket();
}

// Nobody waits for the reply, or for events, any more.
void Connection::dropRequest() {
  if (feed_) feed_->close();
  feed_ = nullptr;
  if (!exchange_) return;
  net::post(hub_->activity(), [hub = hub_, exchange = std::move(exchange_)] {
    if (exchange->isAnswered) return;
    exchange->isAnswered = true;
    if (exchange->isTaken && hub->handler() != nullptr) hub->handler()->abandon(exchange->ticket);
  });
  exchange_ = nullptr;
}

// Receiving.

void Connection::readMore() {
  if (isReading_ || hasInputEnded_ || phase_ == Phase::kClosed || phase_ == Phase::kOpening) return;
  if (phase_ != Phase::kReceiving && phase_ != Phase::kLingering &&
      reader_.buffered() >= kMaxAhead) {
    return;
  }
  isReading_ = true;
  if (phase_ == Phase::kReceiving && reader_.isInside() && reader_.buffered() == 0) {
    if (!large_) large_ = std::make_unique<std::array<char, 65536>>();
    beginRead(net::buffer(*large_));
  } else {
    large_ = nullptr;
    beginRead(net::buffer(small_));
  }
}

void Connection::onRead(const boost::system::error_code& error, size_t size) {
  isReading_ = false;
  if (phase_ == Phase::kClosed) return;
  if (error) {
    hasInputEnded_ = true;
    // After anything but an orderly end nothing can be written either.
    if (error != net::error::eof) return close();
    return inputEnded();
  }
  if (phase_ != Phase::kLingering) {
    reader_.append({large_ ? large_->data() : small_.data(), size});
    receive();
  }
  readMore();
}

// The client sends nothing more. Whoever waits in line has given up its place; other requests that
// arrived whole are answered.
void Connection::inputEnded() {
  switch (phase_) {
    case Phase::kWaiting:
      if (mayWait()) close();
      break;
    case Phase::kReplying:
      break;
    default:
      close();
  }
}

// Requests that may stay with the service for a long time: for a lock, or for a revision.
bool Connection::mayWait() const {
  const std::string_view target = target_;
  const auto question = std::min(target.find('?'), target.size());
  if (method_ == "POST") return target.substr(0, question).ends_with("/lock");
  return target.find("wait", question) != target.npos;
}

void Connection::receive() {
  while (phase_ == Phase::kReceiving) {
    const bool wasInside = reader_.isInside();
    const auto status = reader_.advance();
    if (!wasInside && reader_.isInside()) expectWithin(hub_->limits().request);
    switch (status) {
      case RequestReader::Status::kMore:
        if (hasInputEnded_) return close();
        if (!hasMemoryForBody()) refuseBody();
        return;
      case RequestReader::Status::kRefused:
        method_ = reader_.request().method;
        form_ = {};
        return refuse(reader_.problem());
      case RequestReader::Status::kHeader:
        if (!takeHeader()) return;
        break;
      case RequestReader::Status::kComplete:
        if (!hasMemoryForBody()) return refuseBody();
        submit(reader_.takeRequest());
        break;
    }
  }
}

bool Connection::hasMemoryForBody() {
  const size_t size = reader_.bodySize();
  if (size <= BodyShare::kFreeBytes) return true;
  if (!body_) body_ = std::make_shared<BodyShare>(hub_->bodies());
  return body_->grow(size);
}

// The requests of others have the memory for bodies.
void Connection::refuseBody() {
  refuse({503, "not-ready", "The agent does not take this now",
          "the bodies of other requests take the memory for them"},
         {{"retry-after", "1"}});
}

bool Connection::takeHeader() {
  const Request& request = reader_.request();
  method_ = request.method;
  target_ = request.target;
  form_ = {.isHead = request.method == "HEAD",
           .isHttp10 = reader_.isHttp10(),
           .closes = !reader_.keepsAlive()};
  if (isProbe()) return true;
  authenticate();
  if (!principal_) {
    // Its body does not matter, and is not waited for.
    form_.closes = true;
    submit(reader_.takeRequest());
    return false;
  }
  if (!enterShare()) {
    refuse({429, "too-many", "There are too many connections",
            fmt::format("one principal may hold {}", hub_->limits().share())});
    return false;
  }
  if (reader_.expectsContinue() && reader_.buffered() == 0) {
    static const auto kContinue = shared("HTTP/1.1 100 Continue\r\n\r\n");
    send(kContinue);
  }
  return true;
}

void Connection::certificateIs(const std::string& commonName) {
  peer_ = Principal{.name = commonName, .role = Role::kRead, .regions = {}};
}

// A token says more than a certificate; a wrong one is never overlooked for one.
void Connection::authenticate() {
  principal_ = peer_;
  if (!takesTokens_) return;
  const auto tokens = hub_->tokens();
  if (peer_) principal_ = tokens->ofCertificate(peer_->name);
  const std::string* given = reader_.request().header("authorization");
  if (given == nullptr) return;
  principal_ = std::nullopt;
  constexpr std::string_view kScheme = "bearer ";
  const std::string_view value = *given;
  if (reader_.request().headerCount("authorization") != 1 || value.size() <= kScheme.size()) return;
  for (size_t i = 0; i < kScheme.size(); ++i) {
    const char c = value[i];
    if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) != kScheme[i]) return;
  }
  const auto begin = value.find_first_not_of(' ', kScheme.size());
  if (begin != value.npos) principal_ = tokens->ofToken(value.substr(begin));
}

bool Connection::enterShare() {
  if (share_ == principal_->name) return true;
  if (!hub_->moveShare(share_, principal_->name)) return false;
  share_ = principal_->name;
  return true;
}

bool Connection::isProbe() const {
  const std::string_view path = std::string_view(target_).substr(0, target_.find('?'));
  return path == "/healthz" || path == "/readyz";
}

Reply Connection::probe(const Request& request) const {
  if (target_.find('?') != target_.npos) {
    return problemReply({400, "bad-request", "The request cannot be read", "there is a query"});
  }
  if (request.method != "GET" && request.method != "HEAD") {
    Reply reply = problemReply(
        {405, "method-not-allowed", "The method is not allowed here", "GET and HEAD are"});
    reply.headers.emplace_back("allow", "GET, HEAD");
    return reply;
  }
  const auto fault = target_ == "/healthz" ? hub_->probes().unhealthy() : hub_->probes().unready();
  if (fault) return problemReply({503, "not-ready", "The agent is not ready", *fault});
  Reply reply;
  reply.headers = {{"content-type", "text/plain"}, {"cache-control", "no-store"}};
  static const auto kOk = shared("ok\n");
  reply.body = kOk;
  return reply;
}

void Connection::submit(Request request) {
  expectNothing();
  if (!isReading_) large_ = nullptr;
  if (isProbe()) return reply(probe(request));
  request.principal = principal_;
  phase_ = Phase::kWaiting;
  exchange_ = std::make_shared<Exchange>();
  exchange_->body = std::exchange(body_, nullptr);
  net::post(hub_->activity(), [self = shared_from_this(), exchange = exchange_,
                               request = std::move(request)]() mutable {
    if (exchange->isAnswered) return;
    // Called on the activity thread. A stream stays there; its feed is what others hold.
    const auto answer = [self, exchange](Reply reply) {
      exchange->isAnswered = true;
      std::shared_ptr<EventFeed> feed;
      if (reply.stream) {
        feed = std::make_shared<EventFeed>(self->hub_->activity(), std::move(reply.stream));
        feed->deliverIs([weak = std::weak_ptr(self)](Bytes bytes) {
          const auto connection = weak.lock();
          if (!connection) return;
          net::post(connection->executor_,
                    [connection, bytes = std::move(bytes)] { connection->eventsAre(bytes); });
        });
      }
      net::post(self->executor_, [self, exchange, feed, reply = std::move(reply)]() mutable {
        if (self->exchange_ != exchange) {
          if (feed) feed->close();
          return;
        }
        self->exchange_ = nullptr;
        self->reply(std::move(reply), feed);
      });
    };
    RequestHandler* handler = self->hub_->handler();
    if (handler == nullptr) {
      const auto fault = self->hub_->probes().unready();
      return answer(problemReply({503, "not-ready", "The agent does not take this now",
                                  fault.value_or("the agent is not ready")}));
    }
    exchange->isTaken = true;
    exchange->ticket = handler->handle(std::move(request), answer);
  });
}

// Replies.

// The connection cannot go on after this reply.
void Connection::refuse(const Problem& problem, const Headers& headers) {
  form_.isHead = method_ == "HEAD";
  form_.closes = true;
  Reply refusal = problemReply(problem);
  refusal.headers.insert(refusal.headers.end(), headers.begin(), headers.end());
  reader_.discard();
  body_ = nullptr;
  reply(std::move(refusal));
}

void Connection::reply(Reply reply, std::shared_ptr<EventFeed> feed) {
  hub_->observer().onReply(method_, target_, reply.status);
  feed_ = std::move(feed);
  form_.closes = form_.closes || hub_->isStopping() || (feed_ && form_.isHttp10);
  phase_ = feed_ ? Phase::kStreaming : Phase::kReplying;
  std::string head = replyHead(reply, form_, feed_ != nullptr);
  const bool hasBody = !feed_ && reply.body && !reply.body->empty() && !form_.isHead;
  constexpr size_t kSmall = 4096;
  if (hasBody && reply.body->size() <= kSmall) {
    head += *reply.body;
    send(shared(std::move(head)));
  } else {
    send(shared(std::move(head)));
    if (hasBody) send(std::move(reply.body));
  }
  // Requests that follow wait; a client that goes away does not go unnoticed.
  readMore();
}

// The next events of the stream; null: it has ended.
void Connection::eventsAre(Bytes bytes) {
  if (phase_ != Phase::kStreaming) return;
  static const auto kLineEnd = shared("\r\n");
  static const auto kLast = shared("0\r\n\r\n");
  if (!bytes) {
    feed_->close();
    feed_ = nullptr;
    form_.closes = true;
    phase_ = Phase::kReplying;
    if (form_.isHttp10) return replyIsWritten();
    return send(kLast);
  }
  if (form_.isHttp10) return send(std::move(bytes));
  send(shared(fmt::format("{:x}\r\n", bytes->size())));
  send(std::move(bytes));
  send(kLineEnd);
}

void Connection::send(Bytes bytes) {
  output_.push_back(std::move(bytes));
  // What follows in the same turn is written together with it.
  if (isWriting_) return;
  isWriting_ = true;
  net::post(executor_, [self = shared_from_this()] { self->continueWriting(); });
}

void Connection::continueWriting() {
  if (phase_ == Phase::kClosed) return;
  if (phase_ != Phase::kReceiving) expectWithin(hub_->limits().stalled);
  Buffers buffers;
  for (const Bytes& bytes : output_) {
    if (buffers.size() == kMaxBuffers) break;
    buffers.push_back(net::buffer(*bytes));
  }
  buffers.front() += written_;
  beginWrite(buffers);
}

void Connection::onWritten(const boost::system::error_code& error, size_t size) {
  if (phase_ == Phase::kClosed) return;
  if (error) return close();
  written_ += size;
  while (!output_.empty() && written_ >= output_.front()->size()) {
    written_ -= output_.front()->size();
    output_.pop_front();
  }
  if (!output_.empty()) return continueWriting();
  isWriting_ = false;
  if (phase_ == Phase::kReplying) {
    replyIsWritten();
  } else if (phase_ == Phase::kStreaming) {
    expectNothing();
    feed_->want();
  }
}

void Connection::replyIsWritten() {
  if (form_.closes || hub_->isStopping()) return linger();
  phase_ = Phase::kReceiving;
  expectWithin(principal_ ? hub_->limits().idle : hub_->limits().request);
  receive();
  readMore();
}

}  // namespace vnagent
