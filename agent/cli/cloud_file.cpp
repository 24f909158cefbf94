#include "agent/cli/cloud_file.h"

#include "agent/cli/report.h"
#include "agent/document/input.h"

namespace vnagent {

Outcome applyCloudFile(const std::string& name, CloudDocument& document, uint64_t maxBytes) {
  const JsonTree tree = JsonTree::parse(readFile(name, maxBytes));
  if (const auto& error = tree.error()) {
    throw UnreadableFile(placeInFile(inputName(name), error->position.line) +
                         ": not JSON: " + error->text);
  }
  return document.apply(tree.root(), faultsOfText(tree, nullptr));
}

}  // namespace vnagent
