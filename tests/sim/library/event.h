// Events: changes of a random cloud, each a step of the agent's event stream.
//
// A patch is a list of edits. An edit names one place of the document and its new value, so that
// edits can be left out: an edit of something that does not exist does nothing, and a patch that
// breaks a rule is refused whole.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/sim/library/cloud.h"

namespace sim {

enum class What {
  region,
  segment,      // id; number, value: its type
  port,         // id; value: its VLAN type
  portBinding,  // id: the port
  binding,      // id: the port; place; value: the host behind a switch interface
  level,        // id: the port; place; level; value: the segment
  assignment,   // of the region
  vlanEntry,    // id: the VLAN; value: its entry
  driver,       // value
  requester,    // value, as the next three
  request,
  heartbeat,
  syncStatus,
};

struct Edit {
  What what = What::region;
  bool gone = false;
  int inRegion = 0;
  int id = 0;
  Place place{};
  int level = 0;
  int value = 0;
  unsigned number = 0;
};

struct Event {
  enum Kind {
    patch,
    advance,  // seconds
    timeout,  // seconds: the new region sync timeout
    misuse,   // value: a mutator is called as it must not be; in the stream, a line to be refused
  };
  Kind kind = patch;
  std::vector<Edit> edits{};
  double seconds = 0;
  int value = 0;
};

struct Stream {
  std::uint64_t seed = 0;
  bool toggleOn = true;
  double timeout = 60;
  std::vector<Event> events;
};

// Makes one edit of the cloud.
void apply(const Edit& edit, Cloud& cloud);

// The cloud after a patch, rules or no rules.
Cloud patched(Cloud cloud, const std::vector<Edit>& edits);

}  // namespace sim
