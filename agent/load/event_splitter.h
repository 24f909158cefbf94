// Splits the bytes of a stream of Server-Sent Events into events, without reading their data.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace vnagent {

struct SplitEvent {
  std::string_view name;
  uint64_t revision = 0;  // of its id
  std::string_view data;
};

class EventSplitter {
 public:
  // Calls `take` for each event that `bytes` completes; what it is given ends with the call.
  void feed(std::string_view bytes, const std::function<void(const SplitEvent&)>& take);

 private:
  std::string rest_;
};

}  // namespace vnagent
