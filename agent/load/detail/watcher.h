// A watcher of a load: it follows a place, notes when changes are shown, and has its document
// compared with what the agent says. One thread.
#pragma once

#include <memory>
#include <string>

#include "agent/load/detail/load_context.h"
#include "agent/load/detail/replica.h"
#include "agent/load/event_splitter.h"

namespace vnagent::detail {

class DocumentWatcher {
 public:
  // `document` is "output" or "cloud", `pointer` the place in it; empty: all of it.
  DocumentWatcher(LoadContext& context, ReplicaThread& thread, std::string document,
                  std::string pointer);

  void open();
  // Has the document as it stood when it began.
  bool isReady() const { return revision_ != kNone; }

  // Asks over `channel`, which has no request pending, and compares. `done` is called with what
  // came of it.
  void check(const std::shared_ptr<HttpChannel>& channel, Replica::Compared done);
  void giveUpCheck() { replica_->giveUpComparing(); }

  // "output/requestedResources/..."
  std::string name() const { return document_ + pointer_; }

 private:
  static constexpr uint64_t kNone = UINT64_MAX;

  void take(const SplitEvent& event);

  LoadContext& context_;
  const std::string document_;
  const std::string pointer_;
  std::shared_ptr<Replica> replica_;
  EventSplitter events_;
  uint64_t revision_ = kNone;  // of the last event
};

}  // namespace vnagent::detail
