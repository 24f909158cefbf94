#include "agent/live/history.h"

#include <algorithm>
#include <utility>

namespace vnagent {
namespace {

// A difference that takes more is left to the storage.
constexpr size_t kBytesInMemory = size_t{1} << 16;

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
}

void History::add(const Record& record) {
  Entry entry{record.sequence, record.check, record.onDisk, {}, {}};
  const size_t bytes = record.output.size() + record.outputBefore.size() + record.cloud.size() +
                       record.cloudBefore.size();
  if (storage_ != nullptr && bytes > kBytesInMemory) entry.stored = true;
  if (!entry.stored) {
    entry.cloud = {shared(record.cloud), record.cloudBefore};
    entry.output = {shared(record.output), record.outputBefore};
  }
  entries_.push_back(std::move(entry));
  if (entries_.size() <= kRevisions) return;
  firstCheck_ = entries_.front().check;
  ++first_;
  entries_.pop_front();
}

void History::truncate(uint64_t revision) {
  while (last() > revision && !entries_.empty()) entries_.pop_back();
  merged_.clear();
}

const std::string& History::check(uint64_t revision) const {
  return revision == first_ ? firstCheck_ : entry(revision).check;
}

uint64_t History::sequence(uint64_t revision) const {
  return revision == first_ ? 0 : entry(revision).sequence;
}

Delta History::deltaOf(Document document, uint64_t revision) const {
  const Entry& of = entry(revision);
  if (!of.stored) {
    const Difference& difference = of.of(document);
    if (difference.forward == nullptr) return {};
    return Delta::of(*difference.forward, difference.backward);
  }
  Delta delta;
  storage_->read(revision, revision, [&](const Record& record) {
    const bool isCloud = document == Document::kCloud;
    delta.then(Delta::of(isCloud ? record.cloud : record.output,
                         isCloud ? record.cloudBefore : record.outputBefore));
    return true;
  });
  return delta;
}

Delta History::between(Document document, uint64_t from, uint64_t to) const {
  Delta delta;
  for (uint64_t revision = from + 1; revision <= to; ++revision) {
    delta.then(deltaOf(document, revision));
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
