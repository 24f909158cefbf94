#include "agent/live/record.h"

#include <bit>

#include "agent/live/digest.h"

namespace vnagent {

std::string nextCheck(std::string_view before, const Record& record) {
  Digest digest;
  digest.add(before);
  digest.add(record.sequence);
  digest.add(record.revision);
  digest.add(static_cast<uint64_t>(record.kind));
  digest.add(std::bit_cast<uint64_t>(record.advance));
  digest.add(record.event);
  for (const std::string& uuid : record.drawn) digest.add(uuid);
  return hexadecimal(digest.first64Bits());
}

}  // namespace vnagent
