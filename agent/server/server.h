// `vnagent serve`: puts the service, its journal and its network together, and runs them until a
// signal ends it.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include "agent/server/options.h"

namespace vnagent {

// The document that an empty state was to begin with is refused; what() is why.
class RefusedCloud : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ServeSettings {
  ServeOptions options;
  std::string version;  // of the program
  std::string cloud;    // the content of the file that the options name; empty: none
  // Called with each line for whoever started it: where it listens.
  std::function<void(const std::string& line)> announce;
};

// Returns when SIGTERM or SIGINT has ended it: what was accepted is answered, and on the disk. A
// second signal ends the process at once. Throws BadConfiguration, BadCredentials, CannotListen,
// JournalError, RefusedCloud.
void serve(const ServeSettings& settings);

}  // namespace vnagent
