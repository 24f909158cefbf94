// What the fuzz targets share. A target is one file that defines LLVMFuzzerTestOneInput(); it is
// linked with libFuzzer, or with replay.cpp, which feeds it the files of its corpus.
//
// An input that breaks a promise stops the process: that is what both look for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "framework/Allocation.h"

// Works on one input. Returns 0; what it finds stops the process.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace Fuzz {

// Stops the process, saying what was promised, unless it holds.
inline void require(bool holds, std::string_view promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %.*s\n", static_cast<int>(promise.size()), promise.data());
  std::abort();
}

// An input as text.
inline std::string_view textOf(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Hands out an input byte by byte; zeros after its end.
class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}
  bool empty() const { return at_ == end_; }
  uint8_t next() { return empty() ? uint8_t{0} : *at_++; }

 private:
  const uint8_t* at_;
  const uint8_t* end_;
};

// Holds the scope that it leaves to freeing every object that was made in it. Declare one before
// everything else that makes objects.
class NothingIsLeft {
 public:
  NothingIsLeft() = default;
  NothingIsLeft(const NothingIsLeft&) = delete;
  NothingIsLeft& operator=(const NothingIsLeft&) = delete;
  ~NothingIsLeft() { require(liveCount() == before_, "no object is left behind"); }

 private:
  static Kiv::U64 liveCount() {
    Kiv::U64 count = 0;
    for (const Kiv::AllocTrackRecord& record : Kiv::AllocTrackTypeInfo::report()) {
      count += record.liveCount;
    }
    return count;
  }

  const Kiv::U64 before_ = liveCount();
};

}  // namespace Fuzz
