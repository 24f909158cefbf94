#include "agent/live/principal.h"

namespace vnagent {

std::string Principal::roleText() const {
  switch (role) {
    case Role::kRead:
      return "read";
    case Role::kWrite:
      return "write";
    case Role::kAdmin:
      return "admin";
    case Role::kWriteRegions:
      break;
  }
  std::string text = "write:";
  for (const std::string& region : regions) {
    if (text.back() != ':') text += ',';
    text += region;
  }
  return text;
}

}  // namespace vnagent
