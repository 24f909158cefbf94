#include <utility>

#include <boost/asio/post.hpp>

#include "agent/client/live_agent.h"
#include "agent/load/detail/replica.h"

namespace vnagent::detail {
namespace {

namespace asio = boost::asio;

// What a message shows of a difference.
constexpr size_t kMostText = 300;

std::string differenceText(const Json& watched, const Json& got) {
  std::string text;
  for (const ChangedPlace& place : changedPlaces(watched, differenceOf(watched, got))) {
    if (!text.empty()) text += "; ";
    text += place.sign;
    text += place.pointer + ' ' + place.text;
    if (text.size() > kMostText) return text.substr(0, kMostText) + "...";
  }
  return text;
}

}  // namespace

ReplicaThread::ReplicaThread()
    : work_(asio::make_work_guard(io_)), thread_([this] { io_.run(); }) {}

ReplicaThread::~ReplicaThread() {
  io_.stop();
  thread_.join();
}

// The owner's thread.

void Replica::event(std::string name, uint64_t revision, std::string data) {
  asio::post(io_, [self = shared_from_this(), name = std::move(name), revision,
                   data = std::move(data)] { self->take(name, revision, data); });
}

void Replica::compare(uint64_t revision, bool exists, std::string body, Compared compared) {
  asio::post(io_, [self = shared_from_this(), revision, exists, body = std::move(body),
                   compared = std::move(compared)]() mutable {
    Json document = Json::object();
    if (self->pointer_.empty()) {
      document = Json::parse(body, nullptr, false);
    } else if (exists) {
      document[Json::json_pointer(self->pointer_)] = Json::parse(body, nullptr, false);
    }
    self->expect({revision, std::move(document), std::move(compared)});
  });
}

void Replica::giveUpComparing() {
  asio::post(io_, [self = shared_from_this()] {
    if (self->expected_) self->answer(Verdict::kUnknown, {});
  });
}

// The thread.

void Replica::take(const std::string& name, uint64_t revision, const std::string& data) {
  if (name == "snapshot") {
    document_ = Json::parse(data, nullptr, false);
  } else if (name == "patch") {
    document_.merge_patch(Json::parse(data, nullptr, false));
  }
  revision_ = revision;
  decide();
}

void Replica::expect(Expected expected) {
  expected_.emplace(std::move(expected));
  decide();
}

void Replica::decide() {
  if (!expected_) return;
  if (document_ == expected_->document) return answer(Verdict::kEqual, {});
  if (revision_ == expected_->revision) {
    return answer(Verdict::kDifferent, differenceText(document_, expected_->document));
  }
  // Its events may have been merged over the revision.
  if (revision_ > expected_->revision) answer(Verdict::kUnknown, {});
}

void Replica::answer(Verdict verdict, std::string detail) {
  asio::post(owner_, [verdict, detail = std::move(detail),
                      compared = std::move(expected_->compared)] { compared(verdict, detail); });
  expected_.reset();
}

}  // namespace vnagent::detail
