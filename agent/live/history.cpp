#include "agent/live/history.h"

#include <algorithm>
#include <utility>

namespace vnagent {
namespace {

// A difference that takes more is left to the storage.
constexpr size_t kBytesInMemory = size_t{1} << 16;

// All of them together take no more, where there is a storage.
constexpr size_t kMostBytes = size_t{4} << 20;

// A reader reads no more differences at once from the storage.
constexpr size_t kReadAtOnce = 64;

// Some watches are a few revisions behind others; each of them asks for the same patches.
constexpr size_t kMergedPatches = 16;

std::shared_ptr<const std::string> shared(const std::string& text) {
  return text.empty() ? nullptr : std::make_shared<const std::string>(text);
}

const std::shared_ptr<const std::string>& noPatch() {
  static const auto kNone = std::make_shared<const std::string>("{}");
  return kNone;
}

}  // namespace

void History::startIs(uint64_t revision, std::string check) {
  first_ = revision;
  firstCheck_ = std::move(check);
  entries_.clear();
  merged_.clear();
  bytes_ = 0;
  trimmed_ = revision;
}

size_t History::Entry::bytes() const {
  const auto of = [](const Difference& difference) {
    return (difference.forward == nullptr ? 0 : difference.forward->size()) +
           difference.backward.size();
  };
  return of(cloud) + of(output);
}

void History::add(const Record& record) {
  Entry entry;
  entry.sequence = record.sequence;
  entry.check = record.check;
  entry.stored = record.onDisk;
  if (!record.onDisk) {
    entry.changesCloud = !record.cloud.empty();
    entry.changesOutput = !record.output.empty();
  }
  const size_t bytes = record.output.size() + record.outputBefore.size() + record.cloud.size() +
                       record.cloudBefore.size();
  if (storage_ != nullptr && bytes > kBytesInMemory) entry.stored = true;
  if (!entry.stored) {
    entry.cloud = {shared(record.cloud), record.cloudBefore};
    entry.output = {shared(record.output), record.outputBefore};
  }
  bytes_ += entry.bytes();
  entries_.push_back(std::move(entry));
  trim();
  if (entries_.size() <= kRevisions) return;
  bytes_ -= entries_.front().bytes();
  firstCheck_ = entries_.front().check;
  ++first_;
  entries_.pop_front();
}

void History::truncate(uint64_t revision) {
  while (last() > revision && !entries_.empty()) {
    bytes_ -= entries_.back().bytes();
    entries_.pop_back();
  }
  trimmed_ = std::min(trimmed_, last());
  merged_.clear();
}

void History::durableIs(uint64_t revision) {
  durable_ = revision;
  trim();
}

void History::trim() {
  if (storage_ == nullptr) return;
  trimmed_ = std::max(trimmed_, first_);
  while (bytes_ > kMostBytes && trimmed_ < std::min(durable_, last())) {
    Entry& oldest = entries_[++trimmed_ - first_ - 1];
    bytes_ -= oldest.bytes();
    oldest.stored = true;
    oldest.cloud = {};
    oldest.output = {};
  }
}

const std::string& History::check(uint64_t revision) const {
  return revision == first_ ? firstCheck_ : entry(revision).check;
}

uint64_t History::sequence(uint64_t revision) const {
  return revision == first_ ? 0 : entry(revision).sequence;
}

Delta History::storedDelta(Document document, uint64_t first, uint64_t last) const {
  Delta delta;
  storage_->read(first, last, [&](const Record& record) {
    const bool isCloud = document == Document::kCloud;
    const std::string& forward = isCloud ? record.cloud : record.output;
    if (!forward.empty()) {
      delta.then(Delta::of(forward, isCloud ? record.cloudBefore : record.outputBefore));
    }
    return true;
  });
  return delta;
}

uint64_t History::portionEnd(Document document, uint64_t from, uint64_t to) const {
  size_t read = 0;
  for (uint64_t revision = from + 1; revision <= to; ++revision) {
    if (entry(revision).isRead(document) && ++read > kReadAtOnce) return revision - 1;
  }
  return to;
}

Delta History::between(Document document, uint64_t from, uint64_t to) const {
  Delta delta;
  for (uint64_t revision = from + 1; revision <= to; ++revision) {
    if (!entry(revision).stored) {
      const Difference& difference = entry(revision).of(document);
      if (difference.forward == nullptr) continue;
      delta.then(Delta::of(*difference.forward, difference.backward));
      continue;
    }
    if (!entry(revision).isRead(document)) continue;
    // Those that follow each other are read together.
    const uint64_t first = revision;
    while (revision < to && entry(revision + 1).stored) ++revision;
    delta.then(storedDelta(document, first, revision));
  }
  return delta;
}

std::shared_ptr<const std::string> History::patch(Document document, uint64_t from,
                                                  uint64_t to) const {
  if (to == from + 1 && !entry(to).stored) {
    const auto& forward = entry(to).of(document).forward;
    return forward == nullptr ? noPatch() : forward;
  }
  const auto known = std::ranges::find_if(merged_, [&](const Merged& merged) {
    return merged.document == document && merged.from == from && merged.to == to;
  });
  if (known != merged_.end()) return known->patch;
  auto text = std::make_shared<const std::string>(between(document, from, to).patch().dump());
  merged_.push_front({document, from, to, text});
  if (merged_.size() > kMergedPatches) merged_.pop_back();
  return text;
}

}  // namespace vnagent
