// A network side of the live agent on a socket of its own, with a handler that the test controls,
// and a client that sends and reads bytes.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent/server/activity_thread.h"
#include "agent/server/network.h"

namespace vnagent::test {

inline constexpr std::chrono::seconds kPatience{20};

// Waits until a condition holds; returns whether it does.
inline bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

inline size_t openDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

// A folder that is removed at the end.
class Folder {
 public:
  Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "vnagent-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make a folder");
    path_ = name;
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Connects to a Unix socket, and speaks bytes.
class Client {
 public:
  explicit Client(const std::string& path) : descriptor_(socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("cannot connect");
    }
  }
  Client(Client&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)), buffer_(std::move(other.buffer_)) {}
  ~Client() { close(); }

  void send(std::string_view bytes) {
    while (!bytes.empty()) {
      const auto sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;  // the other side has closed
      bytes.remove_prefix(static_cast<size_t>(sent));
    }
  }
  // Sends nothing more, and reads on.
  void finish() { shutdown(descriptor_, SHUT_WR); }
  void close() {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
  }

  // Reads until the text has been read; returns all up to its end. At the end of the input, or when
  // nothing arrives, what there is.
  std::string readThrough(std::string_view text) {
    for (;;) {
      const auto found = buffer_.find(text);
      if (found != std::string::npos) return cut(found + text.size());
      if (!readSome()) return cut(buffer_.size());
    }
  }
  std::string readToEnd() {
    while (readSome()) {
    }
    return cut(buffer_.size());
  }
  // The head of a reply and its body, whose length the head gives.
  std::string readReply(bool hasBody = true) {
    std::string reply = readThrough("\r\n\r\n");
    const std::string_view name = "Content-Length: ";
    const auto found = reply.find(name);
    if (!hasBody || found == std::string::npos) return reply;
    const size_t size = std::stoul(reply.substr(found + name.size()));
    while (buffer_.size() < size && readSome()) {
    }
    return reply + cut(std::min(size, buffer_.size()));
  }
  // True where the other side has closed, or does so soon.
  bool isClosed() {
    while (readSome()) {
    }
    return hasEnded_;
  }

 private:
  bool readSome() {
    pollfd descriptor{descriptor_, POLLIN, 0};
    if (poll(&descriptor, 1, std::chrono::milliseconds(kPatience).count()) != 1) return false;
    std::array<char, 65536> bytes;
    const auto count = recv(descriptor_, bytes.data(), bytes.size(), 0);
    if (count <= 0) {
      hasEnded_ = true;
      return false;
    }
    buffer_.append(bytes.data(), static_cast<size_t>(count));
    return true;
  }
  std::string cut(size_t size) {
    std::string part = buffer_.substr(0, size);
    buffer_.erase(0, size);
    return part;
  }

  int descriptor_;
  std::string buffer_;
  bool hasEnded_ = false;
};

// A stream whose events the test adds. Activity thread, but for what is atomic.
class FakeStream final : public EventStream {
 public:
  explicit FakeStream(std::atomic<int>& alive) : alive_(alive) { ++alive_; }
  ~FakeStream() override { --alive_; }

  std::shared_ptr<const std::string> next() override {
    if (waiting_.empty()) return nullptr;
    auto bytes = waiting_.front();
    waiting_.pop_front();
    return bytes;
  }
  bool ended() const override { return hasEnded_; }

  void add(std::string bytes) {
    waiting_.push_back(std::make_shared<const std::string>(std::move(bytes)));
    notify();
  }
  void end() {
    hasEnded_ = true;
    notify();
  }

 private:
  std::atomic<int>& alive_;
  std::deque<std::shared_ptr<const std::string>> waiting_;
  bool hasEnded_ = false;
};

// Answers GET /v1 and echoes bodies; /…/sync/lock waits until the test answers; /stream streams;
// /large has so many bytes as its query says.
class FakeHandler final : public RequestHandler {
 public:
  uint64_t handle(Request request, Answer answer) override {
    const uint64_t ticket = ++tickets_;
    ++handled_;
    {
      const std::lock_guard lock(mutex_);
      last_ = request;
    }
    Reply reply;
    reply.headers = {{"content-type", "application/json"}};
    if (request.target.ends_with("/sync/lock")) {
      waiting_.emplace(ticket, std::move(answer));
      ++waitingCount_;
      return ticket;
    }
    if (!request.principal) {
      answer(problemReply({401, "unauthenticated", "Who this is is not known", "no token"}));
      return ticket;
    }
    if (request.target == "/stream") {
      auto stream = std::make_unique<FakeStream>(streams_);
      stream_ = stream.get();
      reply.headers = {{"content-type", "text/event-stream"}};
      reply.stream = std::move(stream);
    } else if (request.target.starts_with("/large?")) {
      reply.body = std::make_shared<std::string>(std::stoul(request.target.substr(7)), 'x');
    } else {
      reply.body =
          std::make_shared<std::string>(request.method + " " + request.target + " " + request.body);
    }
    answer(std::move(reply));
    return ticket;
  }
  void abandon(uint64_t ticket) override {
    waitingCount_ -= static_cast<int>(waiting_.erase(ticket));
    ++abandoned_;
  }

  // Answers all that wait.
  void answerAll(unsigned status) {
    auto waiting = std::move(waiting_);
    waiting_.clear();
    waitingCount_ = 0;
    for (auto& [ticket, answer] : waiting) {
      Reply reply;
      reply.status = status;
      answer(std::move(reply));
    }
  }
  FakeStream* stream() { return stream_; }

  // Any thread.
  Request last() const {
    const std::lock_guard lock(mutex_);
    return last_;
  }
  int handled() const { return handled_; }
  int waitingCount() const { return waitingCount_; }
  int abandoned() const { return abandoned_; }
  int streams() const { return streams_; }

 private:
  std::map<uint64_t, Answer> waiting_;
  uint64_t tickets_ = 0;
  FakeStream* stream_ = nullptr;
  mutable std::mutex mutex_;
  Request last_;
  std::atomic<int> handled_{0};
  std::atomic<int> waitingCount_{0};
  std::atomic<int> abandoned_{0};
  std::atomic<int> streams_{0};
};

class Counts final : public NetworkObserver {
 public:
  void onConnected() override { ++connected; }
  void onDisconnected() override { ++disconnected; }
  void onCut() override { ++cuts; }

  std::atomic<int> connected{0};
  std::atomic<int> disconnected{0};
  std::atomic<int> cuts{0};
};

// A network that listens on a Unix socket in a folder of its own, for an administrator.
class TestNetwork {
 public:
  explicit TestNetwork(const NetworkLimits& limits = {})
      : network(limits, activity,
                {.unhealthy = [this] { return fault(unhealthy); },
                 .unready = [this] { return fault(unready); }},
                counts) {
    network.listenOnUnixSocket(path(), {.name = "", .role = Role::kAdmin, .regions = {}});
    activity.start();
    network.start();
    activity.run([this] { network.handlerIs(&handler); });
  }
  ~TestNetwork() {
    network.finish();
    activity.run([] {});
  }

  std::string path() const { return folder / "socket"; }
  Client client() const { return Client(path()); }
  static std::string get(const std::string& target) {
    return "GET " + target + " HTTP/1.1\r\nHost: a\r\n\r\n";
  }
  static std::string post(const std::string& target, const std::string& body) {
    return "POST " + target +
           " HTTP/1.1\r\nHost: a\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
  }

  Folder folder;
  std::atomic<bool> unhealthy{false};
  std::atomic<bool> unready{false};
  Counts counts;
  FakeHandler handler;
  ActivityThread activity;
  Network network;

 private:
  static std::optional<std::string> fault(bool is) {
    return is ? std::optional<std::string>("the test says so") : std::nullopt;
  }
};

}  // namespace vnagent::test
