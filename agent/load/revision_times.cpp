#include "agent/load/revision_times.h"

#include <algorithm>

namespace vnagent {
namespace {

// Revisions whose times are kept.
constexpr size_t kKept = 100'000;
// Gaps of other clients' revisions that are bridged.
constexpr uint64_t kFarthest = 1'000'000;

}  // namespace

RevisionTimes::Times* RevisionTimes::at(uint64_t revision) {
  if (first_ == 0 || revision > first_ + kFarthest + times_.size()) {
    times_.clear();
    first_ = revision;
  }
  if (revision < first_) return nullptr;
  while (first_ + times_.size() <= revision) times_.emplace_back();
  while (times_.size() > kKept) {
    times_.pop_front();
    ++first_;
  }
  return revision < first_ ? nullptr : &times_[revision - first_];
}

void RevisionTimes::sent(uint64_t revision, int64_t when) {
  Times* times = at(revision);
  if (times == nullptr) return;
  times->sent = when;
  for (const int64_t seen : times->early) toWatcher_.add(seen - when);
  times->early = {};
  finish(*times);
}

void RevisionTimes::seen(uint64_t revision, int64_t when) {
  Times* times = at(revision);
  if (times == nullptr) return;
  ++times->seen;
  times->last = std::max(times->last, when);
  if (times->sent == 0) {
    times->early.push_back(when);
  } else {
    toWatcher_.add(when - times->sent);
  }
  finish(*times);
}

void RevisionTimes::finish(const Times& times) {
  if (watchers_ == 0 || times.seen != watchers_ || times.sent == 0) return;
  toLast_.add(times.last - times.sent);
}

}  // namespace vnagent
