// Where the output documents of an export come from: the watch of a live agent, or a file.
//
// Each function runs until its source ends or `deliver` returns false, on the thread that calls it.
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <string>

#include <simdjson.h>

#include "agent/client/live_agent.h"

namespace vnagent {

struct OutputEvent {
  enum class Kind : uint8_t {
    kDocument,  // `data` is a whole document
    kPatch,     // `data` is a merge patch on the one before
    kBookmark,  // nothing has changed up to `id`
    kLost,      // the source does not answer, `text` says why; it is asked again
    kEnd,       // there is no more
    kFault,     // the source cannot be read on, `text` says why
  };

  Kind kind;
  simdjson::dom::element data = {};  // lasts for the call of DeliverOutput
  std::string id = {};               // the revision; the number of the line in a file
  std::string text = {};
};

using DeliverOutput = std::function<bool(const OutputEvent& event)>;

// Follows the output of a live agent, over restarts of the agent, until `deliver` returns false.
void followAgent(const LiveAgent& agent, const DeliverOutput& deliver);

// Reads one output document, or one in each line, or the lines of `vnagent run --each`.
void readOutputs(std::istream& in, const DeliverOutput& deliver);

}  // namespace vnagent
