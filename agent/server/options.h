// The options of `vnagent serve`: one table for the command line and the configuration file.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "agent/live/principal.h"

namespace vnagent {

struct ServeOptions {
  std::string socket = "/run/vnagent/vnagent.sock";  // empty: none
  Role socketRole = Role::kAdmin;
  std::string listen;  // empty: none
  std::string tlsCertificate;
  std::string tlsKey;
  std::string clientCa;
  std::string tokens;
  std::string stateDirectory;  // empty: everything is in memory only
  double keepSeconds = 7 * 24 * 3600.0;
  uint64_t keepRevisions = 10'000;
  bool requireLock = false;
  uint64_t maxBody = uint64_t{64} << 20;
  uint64_t maxBodies = 0;  // 0: four times maxBody
  uint64_t maxConnections = 1024;
  double regionSyncTimeout = 60;
  bool toggle = true;
  std::string cloud;  // the document that an empty state begins with; empty: none
};

// One option. Its name is also that of its key in a configuration file.
struct ServeOption {
  std::string_view name;
  std::string_view value;  // what stands for it in a help text; empty: a flag
  std::string_view about;
  // Sets it; returns what is wrong with the text, or an empty one.
  std::string (*set)(ServeOptions& options, const std::string& text);
};

std::span<const ServeOption> serveOptions();

// What a configuration file holds cannot be used; what() names the file and the line.
class BadConfiguration : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads a configuration file, TOML, but for the options in `given`, which the command line has set.
// Throws BadConfiguration.
void readConfiguration(const std::string& file, const std::set<std::string, std::less<>>& given,
                       ServeOptions& options);

// Why these options do not go together; empty where they do. Throws CannotListen for an address
// that is none.
std::string faultOf(const ServeOptions& options);

}  // namespace vnagent
