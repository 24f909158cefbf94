#include "agent/load/latencies.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace vnagent {
namespace {

// Each power of two has so many buckets.
constexpr unsigned kBits = 6;
constexpr uint64_t kEach = uint64_t{1} << kBits;
constexpr size_t kBuckets = (64 - kBits) * kEach;

size_t bucketOf(uint64_t value) {
  if (value < kEach) return static_cast<size_t>(value);
  const auto shift = static_cast<unsigned>(std::bit_width(value)) - kBits - 1;
  return static_cast<size_t>((uint64_t{shift} << kBits) + (value >> shift));
}

// The largest value of a bucket.
int64_t lastOf(size_t bucket) {
  if (bucket < 2 * kEach) return static_cast<int64_t>(bucket);
  const uint64_t shift = (bucket >> kBits) - 1;
  const uint64_t first = (bucket & (kEach - 1)) + kEach;
  return static_cast<int64_t>(((first + 1) << shift) - 1);
}

}  // namespace

Latencies::Latencies() : buckets_(kBuckets) {}

void Latencies::add(int64_t nanoseconds) {
  const int64_t value = std::max<int64_t>(nanoseconds, 0);
  ++buckets_[bucketOf(static_cast<uint64_t>(value))];
  ++count_;
  max_ = std::max(max_, value);
}

void Latencies::add(const Latencies& other) {
  for (size_t i = 0; i < kBuckets; ++i) buckets_[i] += other.buckets_[i];
  count_ += other.count_;
  max_ = std::max(max_, other.max_);
}

int64_t Latencies::quantile(double quantile) const {
  if (count_ == 0) return 0;
  const auto rank = std::max<uint64_t>(
      1, static_cast<uint64_t>(std::ceil(quantile * static_cast<double>(count_))));
  uint64_t seen = 0;
  for (size_t i = 0; i < kBuckets; ++i) {
    seen += buckets_[i];
    if (seen >= rank) return std::min(lastOf(i), max_);
  }
  return max_;
}

}  // namespace vnagent
