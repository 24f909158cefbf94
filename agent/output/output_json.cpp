#include "agent/output/output_json.h"

namespace vnagent {
namespace {

class OutputWriter {
 public:
  explicit OutputWriter(JsonWriter& json) : json_(json) {}

  void write(const OutputDocument& output) {
    json_.open('{');
    writeMember("regionStatus", output.regionStatus);
    writeMember("requestedResources", output.requestedResources);
    writeMember("networkElement", output.networkElement);
    json_.close('}');
  }

 private:
  // Values. A member without a value is left out by writeMember(), which is how a change leaves out
  // what is as it was.

  void write(std::string_view text) { json_.text(text); }

  void write(uint32_t number) { json_.number(uint64_t{number}); }

  void write(const Texts& texts) { json_.texts(texts); }

  void write(const VlanIds& numbers) {
    json_.open('[');
    for (const auto number : numbers) json_.number(uint64_t{number});
    json_.close(']');
  }

  template <class Value>
  void writeMember(std::string_view key, const std::optional<Value>& value) {
    if (!value) return;
    json_.key(key);
    write(*value);
  }

  // Things: key() is the key of one among others, write() its value.

  static uint64_t key(const VniOutput& vni) { return vni.vni; }
  void write(const VniOutput& vni) { write(*vni.referrer); }

  static std::string_view key(const DomainOutput& domain) { return domain.region; }
  void write(const DomainOutput& domain) { write(*domain.referrer); }

  template <class Thing>
  void write(const std::vector<Thing>& things) {
    json_.open('{');
    for (const Thing& thing : things) {
      json_.key(key(thing));
      if (thing.removed) {
        json_.null();
      } else {
        write(thing);
      }
    }
    json_.close('}');
  }

  static uint64_t key(const VlanOutput& vlan) { return vlan.vlan; }
  void write(const VlanOutput& vlan) {
    json_.open('{');
    writeMember("referrer", vlan.referrer);
    writeMember("mappedVni", vlan.mappedVni);
    json_.close('}');
  }

  void write(const VlanPoolOutput& pool) {
    json_.open('{');
    writeMember("assignedVlan", pool.assignedVlan);
    writeMember("availableVlan", pool.availableVlan);
    writeMember("allocatedVlan", pool.allocatedVlan);
    json_.close('}');
  }

  static std::string_view key(const RegionOutput& region) { return region.name; }
  void write(const RegionOutput& region) {
    json_.open('{');
    writeMember("syncStatus", region.syncStatus);
    writeMember("oldSyncStatus", region.oldSyncStatus);
    writeMember("owner", region.owner);
    writeMember("requestId", region.requestId);
    writeMember("vlanAssignmentUuid", region.vlanAssignmentUuid);
    writeMember("vlanPool", region.vlanPool);
    json_.close('}');
  }

  static std::string_view key(const HostOutput& host) { return host.host; }
  void write(const HostOutput& host) {
    json_.open('{');
    writeMember("domain", host.domain);
    writeMember("vlan", host.vlan);
    json_.close('}');
  }

  static std::string_view key(const SwitchportOutput& port) { return port.interfaceName; }
  void write(const SwitchportOutput& port) {
    json_.open('{');
    writeMember("vlan", port.vlan);
    writeMember("nativeVlan", port.nativeVlan);
    writeMember("remoteHost", port.remoteHost);
    writeMember("referrer", port.referrer);
    json_.close('}');
  }

  static std::string_view key(const SwitchOutput& of) { return of.switchIdentifier; }
  void write(const SwitchOutput& of) { write(of.port); }

  static std::string_view key(const PhysicalInterfaceOutput& interface) { return interface.name; }
  void write(const PhysicalInterfaceOutput& interface) {
    json_.open('{');
    writeMember("vlan", interface.vlan);
    writeMember("nativeVlan", interface.nativeVlan);
    writeMember("configuredElement", interface.configuredElement);
    json_.close('}');
  }

  static std::string_view key(const NetworkElementOutput& element) { return element.name; }
  void write(const NetworkElementOutput& element) {
    json_.open('{');
    writeMember("hostname", element.hostname);
    writeMember("referrer", element.referrer);
    writeMember("domain", element.domain);
    writeMember("vlan", element.vlan);
    writeMember("physicalInterface", element.physicalInterface);
    json_.close('}');
  }

  void write(const RequestedResourcesOutput& resources) {
    json_.open('{');
    writeMember("resourcesForHostname", resources.resourcesForHostname);
    writeMember("resourcesForSwitchport", resources.resourcesForSwitchport);
    json_.close('}');
  }

  JsonWriter& json_;
};

}  // namespace

void writeOutput(const OutputDocument& output, JsonWriter& json) {
  OutputWriter(json).write(output);
}

}  // namespace vnagent
