#include "tests/sim/live/wire.h"

#include <algorithm>
#include <cstring>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>

namespace sim {

namespace net = boost::asio;
using boost::system::error_code;
using vnagent::Connection;

class Wire::AgentEnd final : public Connection {
 public:
  AgentEnd(std::shared_ptr<Wire> wire, std::shared_ptr<vnagent::Hub> hub,
           vnagent::NetworkExecutor executor)
      : Connection(std::move(hub), executor, std::nullopt),
        wire_(std::move(wire)),
        executor_(std::move(executor)) {}

  // Something arrived, or the client has read something.
  void progress() {
    progressReading();
    progressWriting();
  }

 private:
  std::shared_ptr<AgentEnd> self() {
    return std::static_pointer_cast<AgentEnd>(shared_from_this());
  }

  void beginOpen() override { onOpened({}); }

  void beginRead(net::mutable_buffer buffer) override {
    readBuffer_ = buffer;
    reading_ = self();
    progressReading();
  }
  void progressReading() {
    if (!reading_) return;
    error_code error;
    size_t size = 0;
    if (isClosed_) {
      error = net::error::operation_aborted;
    } else if (wire_->isReset_) {
      error = net::error::connection_reset;
    } else if (!wire_->input_.empty()) {
      size = std::min(wire_->input_.size(), readBuffer_.size());
      std::memcpy(readBuffer_.data(), wire_->input_.data(), size);
      wire_->input_.erase(0, size);
    } else if (wire_->hasInputEnded_) {
      error = net::error::eof;
    } else {
      return;
    }
    net::post(executor_, [self = std::move(reading_), error, size] { self->onRead(error, size); });
    reading_ = nullptr;
  }

  void beginWrite(const Buffers& buffers) override {
    writeBuffers_ = buffers;
    writing_ = self();
    progressWriting();
  }
  void progressWriting() {
    if (!writing_) return;
    error_code error;
    size_t size = 0;
    if (isClosed_) {
      error = net::error::operation_aborted;
    } else if (wire_->isReset_) {
      error = net::error::broken_pipe;
    } else {
      const size_t room = wire_->window_ - std::min(wire_->window_, wire_->inFlight_);
      if (room == 0) return;
      std::string bytes;
      for (const net::const_buffer& buffer : writeBuffers_) {
        const size_t part = std::min(buffer.size(), room - bytes.size());
        bytes.append(static_cast<const char*>(buffer.data()), part);
      }
      if (bytes.size() > 1 && wire_->world_.once(4)) {
        bytes.resize(wire_->world_.pick(1, bytes.size()));
      }
      size = bytes.size();
      wire_->inFlight_ += size;
      wire_->world_.at(wire_->arrival(wire_->lastDown_),
                       [wire = wire_, bytes = std::move(bytes)] { wire->arrive(bytes); });
    }
    net::post(executor_,
              [self = std::move(writing_), error, size] { self->onWritten(error, size); });
    writing_ = nullptr;
  }

  void shutdownWriting() override { end(); }
  void closeSocket() override {
    isClosed_ = true;
    end();
    progress();
  }
  void end() {
    if (std::exchange(hasEnded_, true)) return;
    wire_->world_.at(wire_->arrival(wire_->lastDown_), [wire = wire_] {
      if (wire->isReset_ || std::exchange(wire->hasEnded_, true)) return;
      wire->hearer_.ended();
    });
  }

  const std::shared_ptr<Wire> wire_;
  const vnagent::NetworkExecutor executor_;
  std::shared_ptr<AgentEnd> reading_;
  net::mutable_buffer readBuffer_;
  std::shared_ptr<AgentEnd> writing_;
  Buffers writeBuffers_;
  bool isClosed_ = false;
  bool hasEnded_ = false;
};

std::shared_ptr<Connection> Wire::connect(const std::shared_ptr<Wire>& wire,
                                          std::shared_ptr<vnagent::Hub> hub,
                                          vnagent::NetworkExecutor executor) {
  auto end = std::make_shared<AgentEnd>(wire, std::move(hub), std::move(executor));
  wire->agentEnd_ = end;
  end->start();
  return end;
}

Nanoseconds Wire::arrival(Nanoseconds& last) {
  last = std::max(last, now() + world_.delay(latency_));
  return last;
}

void Wire::send(const std::string& bytes) {
  for (size_t begin = 0; begin < bytes.size();) {
    const size_t left = bytes.size() - begin;
    const size_t size = world_.once(3) ? world_.pick(1, left) : left;
    world_.at(arrival(lastUp_), [wire = shared_from_this(), part = bytes.substr(begin, size)] {
      wire->input_ += part;
      if (const auto end = wire->agentEnd_.lock()) end->progress();
    });
    begin += size;
  }
}

void Wire::finishSending() {
  world_.at(arrival(lastUp_), [wire = shared_from_this()] {
    wire->hasInputEnded_ = true;
    if (const auto end = wire->agentEnd_.lock()) end->progress();
  });
}

void Wire::reset() {
  isReset_ = true;
  world_.after(world_.delay(latency_), [wire = shared_from_this()] {
    if (const auto end = wire->agentEnd_.lock()) end->progress();
  });
}

void Wire::arrive(std::string bytes) {
  if (isReset_ || hasEnded_) return;
  const size_t size = bytes.size();
  hearer_.received(std::move(bytes));
  inFlight_ -= size;
  if (const auto end = agentEnd_.lock()) end->progress();
}

}  // namespace sim
