#include "agent/cli/cloud_file.h"

#include "agent/cli/report.h"

namespace vnagent {

SourceEvent readCloudFile(const std::string& name, uint64_t maxBytes) {
  SourceEvent document = SourceEvent::ofDocument(readFile(name, maxBytes));
  if (const auto& error = document.tree->error()) {
    throw UnreadableFile(placeInFile(inputName(name), error->position.line) +
                         ": not JSON: " + error->text);
  }
  return document;
}

}  // namespace vnagent
