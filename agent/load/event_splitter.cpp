#include "agent/load/event_splitter.h"

#include <charconv>

namespace vnagent {
namespace {

SplitEvent eventOf(std::string_view text) {
  SplitEvent event;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
    const size_t colon = line.find(": ");
    if (colon == line.npos) continue;
    const std::string_view field = line.substr(0, colon);
    const std::string_view value = line.substr(colon + 2);
    if (field == "event") event.name = value;
    if (field == "data") event.data = value;
    if (field == "id") std::from_chars(value.data(), value.data() + value.size(), event.revision);
  }
  return event;
}

}  // namespace

void EventSplitter::feed(std::string_view bytes,
                         const std::function<void(const SplitEvent&)>& take) {
  // Where the end of an event may begin: large events come in many parts.
  size_t from = rest_.empty() ? 0 : rest_.size() - 1;
  rest_ += bytes;
  size_t begin = 0;
  for (size_t end = rest_.find("\n\n", from); end != rest_.npos; end = rest_.find("\n\n", begin)) {
    take(eventOf(std::string_view(rest_).substr(begin, end - begin)));
    begin = end + 2;
  }
  rest_.erase(0, begin);
}

}  // namespace vnagent
