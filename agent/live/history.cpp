#include "agent/live/history.h"

#include <algorithm>
#include <utility>

namespace vnagent {
namespace {

// A record that takes more is left to the storage.
constexpr size_t kBytesInMemory = size_t{1} << 16;

// All of them together take no more, where there is a storage.
constexpr size_t kMostBytes = size_t{4} << 20;

// A reader reads no more differences at once from the storage.
constexpr size_t kReadAtOnce = 64;

// Some watches are a few revisions behind others; each of them asks for the same patches.
constexpr size_t kMergedPatches = 16;

size_t patchBytes(const Record& record) {
  return record.output.size() + record.outputBefore.size() + record.cloud.size() +
         record.cloudBefore.size();
}

const std::string& forward(const Record& record, Document document) {
  return document == Document::kCloud ? record.cloud : record.output;
}

Delta deltaOf(const Record& record, Document document) {
  return document == Document::kCloud ? Delta::of(record.cloud, record.cloudBefore)
                                      : Delta::of(record.output, record.outputBefore);
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
  return record == nullptr ? 0 : sizeof(Record) + record->event.size() + patchBytes(*record);
}

void History::add(std::shared_ptr<const Record> record) {
  Entry entry;
  entry.sequence = record->sequence;
  entry.check = record->check;
  if (!record->onDisk) {
    entry.changesCloud = !record->cloud.empty();
    entry.changesOutput = !record->output.empty();
    if (storage_ == nullptr || record->event.size() + patchBytes(*record) <= kBytesInMemory) {
      entry.record = std::move(record);
    }
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
    oldest.record = nullptr;
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
    if (!forward(record, document).empty()) delta.then(deltaOf(record, document));
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
    if (!entry(revision).isStored()) {
      const Record& record = *entry(revision).record;
      if (!forward(record, document).empty()) delta.then(deltaOf(record, document));
      continue;
    }
    if (!entry(revision).isRead(document)) continue;
    // Those that follow each other are read together.
    const uint64_t first = revision;
    while (revision < to && entry(revision + 1).isStored()) ++revision;
    delta.then(storedDelta(document, first, revision));
  }
  return delta;
}

std::shared_ptr<const std::string> History::patch(Document document, uint64_t from,
                                                  uint64_t to) const {
  if (to == from + 1 && !entry(to).isStored()) {
    const auto& record = entry(to).record;
    const std::string& text = forward(*record, document);
    return text.empty() ? noPatch() : std::shared_ptr<const std::string>(record, &text);
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
