#include "agent/cli/cloud_file.h"

#include <utility>

#include "agent/cli/input_file.h"
#include "agent/cli/report.h"
#include "agent/document/input.h"

namespace vnagent {

CloudFile applyCloudFile(const std::string& name, CloudDocument& document) {
  const JsonTree tree = JsonTree::parse(readFile(name));
  CloudFile result;
  if (const auto& error = tree.error()) {
    if (error->kind == JsonError::Kind::kNotJson) {
      throw UnreadableFile(placeInFile(name, error->line) + ": not JSON: " + error->text);
    }
    result.faults.push_back({error->line, faultsOfText(tree, nullptr).front()});
    return result;
  }
  Outcome outcome = document.apply(tree.root(), faultsOfText(tree, nullptr));
  for (Fault& fault : outcome.faults) {
    const auto line = lineOf(tree.root(), fault.place);
    result.faults.push_back({line, std::move(fault)});
  }
  result.change = outcome.change;
  return result;
}

}  // namespace vnagent
