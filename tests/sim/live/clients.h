// Who uses the agent: clients that send requests over simulated connections, lose them, and try
// again; and watchers that resume. Each checks what it receives.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/sim/live/agent_process.h"
#include "tests/sim/live/wire.h"
#include "tests/sim/live/world.h"

namespace sim {

// What clients share.
struct Cloud {
  World& world;
  Knowledge& knowledge;
  // Connects a wire to the agent; returns false while there is none.
  std::function<bool(const std::shared_ptr<Wire>&)> connect;
  uint64_t lastRequest = 0;
  bool isCalm = false;  // no client does harm any more
};

// A reply as its bytes arrive.
class ReplyReader {
 public:
  void append(const std::string& bytes) { input_ += bytes; }
  // Reads on; returns whether the head of a reply, and then whether its end, was reached.
  bool hasHead();
  bool hasBody();
  // Of a body in chunks: what has arrived of it.
  std::string takePart();

  unsigned status = 0;
  std::map<std::string, std::string> headers;
  std::string body;
  void next();

 private:
  void readChunks();
  std::string input_;
  bool isInside_ = false;
  bool isComplete_ = false;
};

class Client {
 public:
  Client(Cloud& cloud, Role role) : cloud_(cloud), role_(std::move(role)) {}
  virtual ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  virtual void start() = 0;
  // Whether it has nothing more to do.
  virtual bool isDone() const = 0;

 protected:
  World& world() { return cloud_.world; }
  std::string bytesOf(uint64_t number, const RequestText& request) const;
  // Opens a connection, unless one is open; returns whether it is.
  bool open();
  void drop();
  virtual void received(const std::string& bytes) = 0;
  virtual void lost() = 0;
  // What it may not see of other regions.
  void checkVisible(const std::string& bytes);

  Cloud& cloud_;
  const Role role_;
  std::shared_ptr<Wire> wire_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// Sends requests of all kinds, one after the other.
class Driver final : public Client {
 public:
  Driver(Cloud& cloud, Role role, size_t requests)
      : Client(cloud, std::move(role)), left_(requests) {}
  void start() override { actLater(); }
  bool isDone() const override { return left_ == 0 && !pending_; }

 private:
  struct Pending {
    uint64_t number;
    RequestText text;
    int attempts = 0;
    Nanoseconds sent = 0;
  };

  void actLater();
  void act();
  void send();
  void sendLater(Nanoseconds mean);
  void received(const std::string& bytes) override;
  void lost() override;
  void finish();

  // Requests.
  RequestText choose();
  RequestText changeOf();
  RequestText syncCall();
  RequestText readOf();
  Json patchOfRegion(const std::string& region);
  Json wholeRegion(const std::string& region);
  std::string region();
  std::string thing(const std::string& region, const char* kind, uint64_t last);

  size_t left_;
  std::optional<Pending> pending_;
  ReplyReader reader_;
  uint64_t lastPlan_ = 0;  // of when to send, the last one counts
  uint64_t keys_ = 0;
  std::map<std::string, std::string> etags_;  // as they were read, by place
  std::string requestId_ = "free";
  uint64_t requestIds_ = 0;
};

// Follows a document.
class Watcher final : public Client {
 public:
  Watcher(Cloud& cloud, Role role, bool ofCloud)
      : Client(cloud, std::move(role)), ofCloud_(ofCloud) {}
  void start() override { connectLater(); }
  bool isDone() const override;

 private:
  void connectLater();
  void connect();
  void received(const std::string& bytes) override;
  void lost() override;
  void take(const std::string& event);

  const bool ofCloud_;
  ReplyReader reader_;
  std::string events_;
  std::optional<Json> document_;
  std::string id_;
  uint64_t revision_ = 0;
};

}  // namespace sim
