#include "agent/session/source_event.h"

namespace vnagent {

SourceEvent SourceEvent::ofLine(std::string_view line) {
  SourceEvent event;
  event.tree = JsonTree::parse(line);
  event.reading = readEvent(*event.tree);
  return event;
}

SourceEvent SourceEvent::ofDocument(std::string_view text) {
  SourceEvent event;
  event.tree = JsonTree::parse(text);
  event.reading.faults = faultsOfText(*event.tree, nullptr);
  if (!event.tree->error()) event.reading.event = PatchEvent{&event.tree->root()};
  return event;
}

}  // namespace vnagent
