// How long things took: a histogram with buckets of some 1.5 % of their value, so that millions of
// measurements take a few kilobytes and each costs a few nanoseconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vnagent {

class Latencies {
 public:
  Latencies();

  // Adds a time in nanoseconds; a negative one counts as 0.
  void add(int64_t nanoseconds);
  void add(const Latencies& other);

  uint64_t count() const { return count_; }
  int64_t max() const { return max_; }
  // The time in nanoseconds that the share `quantile`, 0 to 1, of the measurements did not exceed;
  // 0 without any.
  int64_t quantile(double quantile) const;

 private:
  std::vector<uint64_t> buckets_;
  uint64_t count_ = 0;
  int64_t max_ = 0;
};

}  // namespace vnagent
