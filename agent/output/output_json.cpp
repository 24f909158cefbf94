#include "agent/output/output_json.h"

#include <type_traits>

namespace vnagent {
namespace {

bool isSame(uint16_t a, uint16_t b) {
  return a == b;
}
// Mostly they are views of the same text.
bool isSame(std::string_view a, std::string_view b) {
  return a.size() == b.size() && (a.data() == b.data() || a == b);
}

// The difference of two sets, both sorted.
template <class Keys>
struct Difference {
  Keys added;    // to the first, by the second
  Keys removed;  // from the first

  Difference(const Keys& before, const Keys& after) {
    auto was = before.begin();
    auto is = after.begin();
    while (was != before.end() && is != after.end()) {
      if (isSame(*was, *is)) {
        ++was;
        ++is;
      } else if (*was < *is) {
        removed.push_back(*was++);
      } else {
        added.push_back(*is++);
      }
    }
    removed.insert(removed.end(), was, before.end());
    added.insert(added.end(), is, after.end());
  }
};

// Writes a document or a change. Of a change back each value may come with the one of the change
// forward, `now`, which is null where there is none.
class OutputWriter {
 public:
  explicit OutputWriter(JsonWriter& json) : json_(json) {}

  void write(const OutputDocument& output, const OutputDocument* now = nullptr) {
    json_.open('{');
    writeMember("regionStatus", output, now, &OutputDocument::regionStatus);
    writeMember("requestedResources", output, now, &OutputDocument::requestedResources);
    writeMember("networkElement", output, now, &OutputDocument::networkElement);
    json_.close('}');
  }

 private:
  // Values. A member without a value is left out by writeMember(), which is how a change leaves out
  // what is as it was.

  void write(std::string_view text, const std::string_view*) { json_.text(text); }

  void write(uint32_t number, const uint32_t*) { json_.number(uint64_t{number}); }

  void writeKeys(const Texts& texts) { json_.texts(texts); }

  void writeKeys(const VlanIds& numbers) {
    json_.open('[');
    for (const auto number : numbers) json_.number(uint64_t{number});
    json_.close(']');
  }

  template <class Key>
  requires std::is_same_v<Key, std::string_view> || std::is_same_v<Key, uint16_t>
  void write(const std::vector<Key>& keys, const std::vector<Key>* now) {
    if (now == nullptr) return writeKeys(keys);
    const Difference back(*now, keys);
    if (back.added.size() + back.removed.size() >= keys.size()) return writeKeys(keys);
    json_.open('[');
    writeKeys(back.added);
    writeKeys(back.removed);
    json_.close(']');
  }

  template <class Thing, class Value>
  void writeMember(std::string_view key, const Thing& thing, const Thing* now,
                   std::optional<Value> Thing::*member) {
    const auto& value = thing.*member;
    if (!value) return;
    json_.key(key);
    write(*value, now != nullptr && now->*member ? &*(now->*member) : nullptr);
  }

  // Things: key() is the key of one among others, write() its value.

  // One that has nothing but referrers.
  template <class Thing>
  void writeReferrer(const Thing& thing, const Thing* now) {
    write(*thing.referrer, now != nullptr && now->referrer ? &*now->referrer : nullptr);
  }

  static uint64_t key(const VniOutput& vni) { return vni.vni; }
  void write(const VniOutput& vni, const VniOutput* now) { writeReferrer(vni, now); }

  static std::string_view key(const DomainOutput& domain) { return domain.region; }
  void write(const DomainOutput& domain, const DomainOutput* now) { writeReferrer(domain, now); }

  // A change forward and the one back have the same things.
  template <class Thing>
  void write(const std::vector<Thing>& things, const std::vector<Thing>* now) {
    json_.open('{');
    for (size_t i = 0; i < things.size(); ++i) {
      const Thing& thing = things[i];
      json_.key(key(thing));
      if (thing.removed) {
        json_.null();
      } else {
        write(thing, now == nullptr ? nullptr : &(*now)[i]);
      }
    }
    json_.close('}');
  }

  static uint64_t key(const VlanOutput& vlan) { return vlan.vlan; }
  void write(const VlanOutput& vlan, const VlanOutput* now) {
    json_.open('{');
    writeMember("referrer", vlan, now, &VlanOutput::referrer);
    writeMember("mappedVni", vlan, now, &VlanOutput::mappedVni);
    json_.close('}');
  }

  void write(const VlanPoolOutput& pool, const VlanPoolOutput* now) {
    json_.open('{');
    writeMember("assignedVlan", pool, now, &VlanPoolOutput::assignedVlan);
    writeMember("availableVlan", pool, now, &VlanPoolOutput::availableVlan);
    writeMember("allocatedVlan", pool, now, &VlanPoolOutput::allocatedVlan);
    json_.close('}');
  }

  static std::string_view key(const RegionOutput& region) { return region.name; }
  void write(const RegionOutput& region, const RegionOutput* now) {
    json_.open('{');
    writeMember("syncStatus", region, now, &RegionOutput::syncStatus);
    writeMember("oldSyncStatus", region, now, &RegionOutput::oldSyncStatus);
    writeMember("owner", region, now, &RegionOutput::owner);
    writeMember("requestId", region, now, &RegionOutput::requestId);
    writeMember("vlanAssignmentUuid", region, now, &RegionOutput::vlanAssignmentUuid);
    writeMember("vlanPool", region, now, &RegionOutput::vlanPool);
    json_.close('}');
  }

  static std::string_view key(const HostOutput& host) { return host.host; }
  void write(const HostOutput& host, const HostOutput* now) {
    json_.open('{');
    writeMember("domain", host, now, &HostOutput::domain);
    writeMember("vlan", host, now, &HostOutput::vlan);
    json_.close('}');
  }

  static std::string_view key(const SwitchportOutput& port) { return port.interfaceName; }
  void write(const SwitchportOutput& port, const SwitchportOutput* now) {
    json_.open('{');
    writeMember("vlan", port, now, &SwitchportOutput::vlan);
    writeMember("nativeVlan", port, now, &SwitchportOutput::nativeVlan);
    writeMember("remoteHost", port, now, &SwitchportOutput::remoteHost);
    writeMember("referrer", port, now, &SwitchportOutput::referrer);
    json_.close('}');
  }

  static std::string_view key(const SwitchOutput& of) { return of.switchIdentifier; }
  void write(const SwitchOutput& of, const SwitchOutput* now) {
    write(of.port, now == nullptr ? nullptr : &now->port);
  }

  static std::string_view key(const PhysicalInterfaceOutput& interface) { return interface.name; }
  void write(const PhysicalInterfaceOutput& interface, const PhysicalInterfaceOutput* now) {
    json_.open('{');
    writeMember("vlan", interface, now, &PhysicalInterfaceOutput::vlan);
    writeMember("nativeVlan", interface, now, &PhysicalInterfaceOutput::nativeVlan);
    writeMember("configuredElement", interface, now, &PhysicalInterfaceOutput::configuredElement);
    json_.close('}');
  }

  static std::string_view key(const NetworkElementOutput& element) { return element.name; }
  void write(const NetworkElementOutput& element, const NetworkElementOutput* now) {
    json_.open('{');
    writeMember("hostname", element, now, &NetworkElementOutput::hostname);
    writeMember("referrer", element, now, &NetworkElementOutput::referrer);
    writeMember("domain", element, now, &NetworkElementOutput::domain);
    writeMember("vlan", element, now, &NetworkElementOutput::vlan);
    writeMember("physicalInterface", element, now, &NetworkElementOutput::physicalInterface);
    json_.close('}');
  }

  void write(const RequestedResourcesOutput& resources, const RequestedResourcesOutput* now) {
    json_.open('{');
    writeMember("resourcesForHostname", resources, now,
                &RequestedResourcesOutput::resourcesForHostname);
    writeMember("resourcesForSwitchport", resources, now,
                &RequestedResourcesOutput::resourcesForSwitchport);
    json_.close('}');
  }

  JsonWriter& json_;
};

}  // namespace

void writeOutput(const OutputDocument& output, JsonWriter& json) {
  OutputWriter(json).write(output);
}

void writeOutputBack(const OutputDocument& before, const OutputDocument& now, JsonWriter& json) {
  OutputWriter(json).write(before, &now);
}

}  // namespace vnagent
