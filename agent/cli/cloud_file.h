// Reads a cloud document from a file and hands it to the document layer.
#pragma once

#include <string>
#include <vector>

#include "agent/cli/report.h"
#include "agent/document/cloud_document.h"

namespace vnagent {

struct CloudFile {
  struct Located {
    uint32_t line;
    Fault fault;
  };
  ExitStatus status = ExitStatus::kOk;
  std::vector<Located> faults;
  Plan plan;
};

// Applies the file to an empty document. Throws UnreadableFile.
CloudFile applyCloudFile(const std::string& name, CloudDocument& document);

}  // namespace vnagent
