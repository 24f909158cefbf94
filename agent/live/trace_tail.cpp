#include "agent/live/trace_tail.h"

#include <utility>

#include "agent/output/trace_lines.h"

namespace vnagent {
namespace {

// How much one reader may leave waiting.
constexpr size_t kWaitingBytes = size_t{1} << 20;

}  // namespace

class TraceTail final : public EventStream {
 public:
  explicit TraceTail(TraceTails& tails) : tails_(tails) { tails_.all_.insert(this); }
  ~TraceTail() override { tails_.all_.erase(this); }
  TraceTail(const TraceTail&) = delete;
  TraceTail& operator=(const TraceTail&) = delete;

  void add(const std::string& event) {
    if (waiting_.size() + event.size() > kWaitingBytes) {
      ++dropped_;
      return;
    }
    waiting_ += event;
    wake();
  }
  void wake() {
    if (std::exchange(asked_, false)) notify();
  }

  std::shared_ptr<const std::string> next() override {
    std::string text = std::exchange(waiting_, {});
    if (dropped_ > 0) {
      text += "event: dropped\ndata: {\"lines\": " + std::to_string(std::exchange(dropped_, 0)) +
              "}\n\n";
    }
    asked_ = text.empty();
    return asked_ ? nullptr : std::make_shared<const std::string>(std::move(text));
  }
  bool ended() const override { return tails_.ended_; }

 private:
  TraceTails& tails_;
  std::string waiting_;
  uint64_t dropped_ = 0;
  bool asked_ = false;
};

TraceTails::TraceTails() {
  Kiv::TraceHandle& handle = Kiv::_defaultTraceHandle();
  handle.levelIs(0);
  handle.sinkIs([this](const Kiv::TraceLine& line) { add(line); });
}

TraceTails::~TraceTails() {
  Kiv::TraceHandle& handle = Kiv::_defaultTraceHandle();
  handle.levelIs(-1);
  handle.sinkIs({});
}

int TraceTails::level() {
  return Kiv::_defaultTraceHandle().level();
}

void TraceTails::levelIs(int level) {
  Kiv::_defaultTraceHandle().levelIs(level);
}

std::unique_ptr<EventStream> TraceTails::newTail() {
  return std::make_unique<TraceTail>(*this);
}

void TraceTails::end() {
  ended_ = true;
  for (TraceTail* tail : all_) tail->wake();
}

void TraceTails::add(const Kiv::TraceLine& line) {
  if (all_.empty()) return;
  std::string event = "event: trace\ndata: ";
  appendTraceJson(event, revision_, line);
  event += '\n';
  for (TraceTail* tail : all_) tail->add(event);
}

}  // namespace vnagent
