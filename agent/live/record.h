// What the live agent's history consists of: a record for each event, and snapshots between them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vnagent {

// One event, and what it changed. Plain data.
struct Record {
  enum class Kind : uint8_t {
    kPatch = 1,    // `event` is a merge patch on the cloud document
    kExpiry = 2,   // the earliest timer fired
    kRestart = 3,  // the machines were made anew from a snapshot and the records after it
    kReply = 4,    // nothing happened, but a reply is to be remembered
  };

  uint64_t sequence = 0;  // counts from 1, without a gap
  uint64_t revision = 0;  // the agent's after the event; the one before where it takes none
  Kind kind = Kind::kPatch;
  double advance = 0;    // seconds since the record before, by the agent's clock
  int64_t wallTime = 0;  // milliseconds since 1970, for people and for how long records are kept

  std::string event;               // one line of JSON
  std::vector<std::string> drawn;  // the UUIDs that the machines drew, in order

  // The hash chain: 16 hexadecimal digits, made from the event (sequence, revision, kind, advance,
  // event, drawn) and the check value of the record before; see nextCheck().
  std::string check;

  // Exact merge patches between this revision and the one before, one line of JSON each; empty
  // where the document did not change. See Delta::of() for the one back of the output.
  std::string output;        // from the one before to this one
  std::string outputBefore;  // from this one back to the one before
  std::string cloud;
  std::string cloudBefore;

  // A change that carried an idempotency key: the reply to be given again.
  std::string principal;
  std::string key;          // empty: none
  std::string fingerprint;  // of the request: method, target and body
  unsigned status = 0;
  std::string reply;  // the body

  // Of a large or old record of Recovered::history: `event`, `drawn` and the four patches are left
  // empty here, and Storage::read() gives them.
  bool onDisk = false;
};

// The check value before the first record.
inline constexpr std::string_view kFirstCheck = "0000000000000000";

// The check value of a record, from that of the record before it; `record.check` is not read.
std::string nextCheck(std::string_view before, const Record& record);

// The whole state after a record: what a restart begins with.
struct Snapshot {
  uint64_t sequence = 0;  // of the record; 0: none yet
  uint64_t revision = 0;
  std::string check{kFirstCheck};
  std::string cloud;   // the cloud document, one line of JSON
  std::string output;  // the output document, one line of JSON
  std::string state;   // the rest: ETags, armed timers; one line of JSON
};

}  // namespace vnagent
