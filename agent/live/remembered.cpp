#include "agent/live/remembered.h"

#include "agent/live/digest.h"

namespace vnagent {

std::string fingerprintOf(const Request& request) {
  Digest digest;
  digest.add(request.method);
  digest.add(request.target);
  digest.add(request.body);
  return hexadecimal(digest.first64Bits());
}

std::string RememberedReplies::joined(std::string_view principal, std::string_view key) {
  // A header holds no control character.
  std::string both(principal);
  both += '\0';
  both += key;
  return both;
}

const RememberedReplies::Entry* RememberedReplies::find(std::string_view principal,
                                                        std::string_view key) const {
  const auto entry = entries_.find(joined(principal, key));
  return entry == entries_.end() ? nullptr : &entry->second;
}

void RememberedReplies::add(const Record& record) {
  if (record.key.empty()) return;
  std::string both = joined(record.principal, record.key);
  order_.emplace_back(both, record.sequence);
  entries_.insert_or_assign(
      std::move(both), Entry{record.fingerprint, record.status, record.reply, record.sequence});
  if (order_.size() <= kReplies) return;
  const auto oldest = entries_.find(order_.front().first);
  if (oldest != entries_.end() && oldest->second.sequence == order_.front().second) {
    entries_.erase(oldest);
  }
  order_.pop_front();
}

void RememberedReplies::truncate(uint64_t sequence) {
  while (!order_.empty() && order_.back().second > sequence) {
    entries_.erase(order_.back().first);
    order_.pop_back();
  }
}

}  // namespace vnagent
