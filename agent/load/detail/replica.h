// The document of a watcher, as its events make it, on a thread of its own: reading and comparing
// large documents must not delay what is measured.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <nlohmann/json.hpp>

namespace vnagent::detail {

class ReplicaThread {
 public:
  ReplicaThread();
  // Ends the thread; what was posted and has not begun is dropped.
  ~ReplicaThread();
  ReplicaThread(const ReplicaThread&) = delete;
  ReplicaThread& operator=(const ReplicaThread&) = delete;

  boost::asio::io_context& io() { return io_; }

 private:
  boost::asio::io_context io_{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  std::thread thread_;
};

class Replica : public std::enable_shared_from_this<Replica> {
 public:
  enum class Verdict : uint8_t {
    kEqual,
    kDifferent,  // at the same revision
    kUnknown,    // the events have passed the revision, or not reached it yet
  };
  // Called on the owner's thread; `detail` says where the documents differ.
  using Compared = std::function<void(Verdict verdict, const std::string& detail)>;

  // `pointer`: the place that is watched, empty for the whole document. `owner` runs what is called
  // back, and outlives the thread.
  Replica(ReplicaThread& thread, boost::asio::io_context& owner, std::string pointer)
      : io_(thread.io()), owner_(owner), pointer_(std::move(pointer)) {}

  // For the owner's thread.
  // An event came.
  void event(std::string name, uint64_t revision, std::string data);
  // Compares the document with what the place has at a revision; not `exists`: the place was not
  // there. At most one comparison at a time.
  void compare(uint64_t revision, bool exists, std::string body, Compared compared);
  // Whether a comparison waits for events does not matter any more.
  void giveUpComparing();

 private:
  struct Expected {
    uint64_t revision;
    nlohmann::json document;
    Compared compared;
  };

  void take(const std::string& name, uint64_t revision, const std::string& data);
  void expect(Expected expected);
  // Decides what waits, if that can be.
  void decide();
  void answer(Verdict verdict, std::string detail);

  boost::asio::io_context& io_;
  boost::asio::io_context& owner_;
  const std::string pointer_;

  // Of the thread.
  uint64_t revision_ = 0;
  nlohmann::json document_ = nlohmann::json::object();
  std::optional<Expected> expected_;
};

}  // namespace vnagent::detail
