// Reads a cloud document from a file and hands it to the document layer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/document/cloud_document.h"

namespace vnagent {

struct CloudFile {
  struct Located {
    uint32_t line;
    Fault fault;
  };
  std::vector<Located> faults;     // none: the document was taken
  const Change* change = nullptr;  // good until the document takes the next patch
};

// Applies the file to an empty document. Throws UnreadableFile, also for what is not JSON.
CloudFile applyCloudFile(const std::string& name, CloudDocument& document);

}  // namespace vnagent
