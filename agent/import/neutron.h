// Reads the state of a Neutron server, as its REST API prints it, into a cloud document.
//
// Nothing is guessed: what cannot be mapped, or would break a rule of the cloud document, is left
// out, with a line that says so. The result is one region that keeps all rules.
//
//   NeutronImport result = importNeutron({networks, segments, ports, &levels});  // throws BadDump
//   writeCloud(result, "RegionOne", json);
//   for (const auto& line : result.leftOut) report(line);
//
// Any thread.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/json/json_tree.h"
#include "agent/json/json_writer.h"

namespace vnagent {

// The server's answers: objects with a list under the collection's name, and the rows of the
// binding-levels table as a bare list; null where there are none.
struct NeutronDump {
  const JsonValue& networks;
  const JsonValue& segments;
  const JsonValue& ports;
  const JsonValue* bindingLevels = nullptr;
};

// One of the answers is not what the API gives; what() starts with the file's name, the line and
// the JSON Pointer.
class BadDump : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ImportedSegment {
  uint8_t type = 0;
  uint32_t id = 0;
};

struct ImportedBinding {
  std::string host;                         // behind a switch interface; empty otherwise
  std::map<uint8_t, std::string> segments;  // segment ids by level
};

struct ImportedPort {
  uint8_t vlanType = 0;
  bool bound = false;
  std::map<std::string, ImportedBinding> hosts;  // by host
  std::map<std::pair<std::string, std::string>, ImportedBinding>
      interfaces;  // by switch, interface
};

struct NeutronImport {
  std::map<std::string, ImportedSegment> segments;
  std::map<std::string, ImportedPort> ports;
  std::set<std::string> networks;
  std::set<std::string> vmInstances;
  std::set<std::string> dhcpInstances;
  std::set<std::string> baremetalInstances;
  std::set<std::string> routerInstances;
  std::vector<std::string> leftOut;  // one line each: which object, and why
};

// The dump need not outlive the call.
NeutronImport importNeutron(const NeutronDump& dump);

// Writes the import as a whole cloud document.
void writeCloud(const NeutronImport& import, std::string_view region, JsonWriter& json);

}  // namespace vnagent
