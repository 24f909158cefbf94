// Tracing: lines with a level, passed to a sink that the host installs.
//
// A trace that is off costs one load and a branch, and evaluates none of its message:
//
//   TraceHelper::Storage storage;
//   if (auto* helper = TraceHelper::createIfEnabled(_defaultTraceHandle(), 9, storage)) {
//     const EnsureTraceHelperIsDestroyed ended(helper);
//     helper->stream() << "what happened";
//     helper->trace("File", __LINE__, "function");
//   }
//
// Levels rise with detail: 0 for broken invariants, 9 for the entry of each handler. Activity
// thread only.
#pragma once

#include <functional>
#include <memory>
#include <sstream>
#include <string_view>

namespace [[gnu::visibility("default")]] Kiv {

// One trace line, borrowed for the call of the sink.
struct TraceLine {
  int level;                  // from 0, the most important, to 9
  std::string_view file;      // the source unit
  int line;                   // in that unit
  std::string_view function;  // the short name of the handler
  std::string_view text;      // the message
};

// Decides which lines are written, and passes them to a sink.
class TraceHandle {
 public:
  // The function that is called with each line.
  using Sink = std::function<void(const TraceLine&)>;

  // The highest level that is written; below zero (the default) nothing is.
  int level() const { return level_; }
  void levelIs(int level) { level_ = level; }
  // Whether a line of this level is written.
  bool enabled(int level) const { return level <= level_; }

  // Installs the sink; without one, lines are dropped. A sink may not throw.
  void sinkIs(Sink sink) {
    sink_ = sink == nullptr ? nullptr : std::make_unique<Sink>(std::move(sink));
  }
  // Passes a line to the sink.
  void write(const TraceLine& line) const {
    if (sink_ != nullptr) (*sink_)(line);
  }

 private:
  int level_ = -1;
  std::unique_ptr<Sink> sink_;
};

namespace detail {
extern TraceHandle defaultTraceHandle;
}  // namespace detail

// The trace handle of the library: one for each process, there from its start.
inline TraceHandle& _defaultTraceHandle() {
  return detail::defaultTraceHandle;
}

// One line while it is written.
class TraceHelper {
 public:
  // Storage for a helper on the caller's stack.
  struct Storage {
    // The bytes of the helper.
    alignas(std::ostringstream) std::byte bytes[sizeof(std::ostringstream) + 2 * sizeof(void*)];
  };

  // A helper for a line of this level, or null where the level is off.
  static TraceHelper* createIfEnabled(const TraceHandle& handle, int level, Storage& storage) {
    return handle.enabled(level) ? create(handle, level, storage) : nullptr;
  }

  // The stream on which the message is built.
  std::ostream& stream() { return stream_; }
  // Passes the finished line to the handle's sink.
  void trace(std::string_view file, int line, std::string_view function);

 private:
  friend class EnsureTraceHelperIsDestroyed;
  TraceHelper(const TraceHandle& handle, int level) : handle_(handle), level_(level) {}
  static TraceHelper* create(const TraceHandle& handle, int level, Storage& storage);

  const TraceHandle& handle_;
  int level_;
  std::ostringstream stream_;
};

// Ends a helper with the scope.
class EnsureTraceHelperIsDestroyed {
 public:
  // For this helper; null is allowed.
  explicit EnsureTraceHelperIsDestroyed(TraceHelper* helper) : helper_(helper) {}
  ~EnsureTraceHelperIsDestroyed() {
    if (helper_ != nullptr) helper_->~TraceHelper();
  }
  EnsureTraceHelperIsDestroyed(const EnsureTraceHelperIsDestroyed&) = delete;
  EnsureTraceHelperIsDestroyed& operator=(const EnsureTraceHelperIsDestroyed&) = delete;

 private:
  TraceHelper* helper_;
};

// The source of a machine's line: the source unit, the handler's short name and its signature.
struct TraceSource {
  std::string_view file;       // the source unit
  std::string_view function;   // the handler's short name
  std::string_view signature;  // its full signature
};

// Writes a machine's trace line: the subject's address, " [ ", the signature, " ] ", the message.
// `message` is called with the stream, only where the level is on.
template <class Message>
void traceLine(int level, const TraceSource& source, const void* subject, int line,
               Message&& message) {
  const TraceHandle& handle = _defaultTraceHandle();
  if (!handle.enabled(level)) [[likely]] {
    return;
  }
  TraceHelper::Storage storage;
  TraceHelper* helper = TraceHelper::createIfEnabled(handle, level, storage);
  const EnsureTraceHelperIsDestroyed ended(helper);
  helper->stream() << subject << " [ " << source.signature << " ] ";
  message(helper->stream());
  helper->trace(source.file, line, source.function);
}

}  // namespace Kiv
