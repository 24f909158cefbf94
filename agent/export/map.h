// The map of an export: which database programs which switch, and where the hosts are.
//
// A JSON file. Only "switches", and "database" of each, are required:
//
//   {
//     "switches": {
//       "leaf-1": {                                  the switch's identifier in the output document
//         "database": "unix:/run/leaf-1/db.sock",    or tcp:HOST:PORT, ssl:HOST:PORT
//         "physicalSwitch": "leaf-1",                name in the database; else the identifier
//         "tunnelIp": "192.0.2.1",                   else the first address in the database
//         "ports": { "Ethernet7": "swp7" }           interface -> port in the database; else same
//       }
//     },
//     "hosts": {                                     where the VLANs of a host belong
//       "compute-1": [ { "switch": "leaf-1", "port": "Ethernet1" },
//                      { "switch": "leaf-2", "port": "Ethernet1" } ]    several for a bond
//     },
//     "tls": { "certificate": FILE, "privateKey": FILE, "authorities": FILE }    for ssl:
//   }
//
// A port of a host is named like an interface of the output document, so "ports" applies to it.
// A host with an empty list is known to have no place, and nothing is reported about it.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vnagent {

// The files of a TLS client; each may be empty. Without authorities those of the system count.
struct ExportTls {
  std::string certificate;
  std::string privateKey;
  std::string authorities;
};

// A port of a switch, by the names of the output document.
struct SwitchPortName {
  std::string switchName;
  std::string port;

  friend auto operator<=>(const SwitchPortName&, const SwitchPortName&) = default;
};

struct ExportMap {
  struct Switch {
    std::string database;
    std::string physicalSwitch;
    std::string tunnelIp;                      // IPv4; empty: the database says it
    std::map<std::string, std::string> ports;  // only those whose name differs
  };

  std::map<std::string, Switch> switches;
  std::map<std::string, std::vector<SwitchPortName>> hosts;
  ExportTls tls;

  // Reads the text of a map file. Throws InvalidMap.
  static ExportMap parse(std::string_view text);
};

// A map that cannot be used. what() begins with the place as a JSON Pointer and ": ".
class InvalidMap : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace vnagent
