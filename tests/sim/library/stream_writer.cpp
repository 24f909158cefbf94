#include "tests/sim/library/stream_writer.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/sim/library/names.h"

namespace sim {
namespace {

// A JSON value: an object, or anything else as text.
struct Json {
  std::string text;
  std::map<std::string, Json> members;

  bool isObject() const { return text.empty(); }
  Json& operator[](const std::string& key) { return members[key]; }
  bool operator==(const Json&) const = default;
};

Json value(std::string text) {
  return {std::move(text), {}};
}

std::string inQuotes(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + '"';
}

std::string number(double seconds) {
  std::ostringstream out;
  out << seconds;
  return out.str();
}

std::string key(Name kind, int number) {
  return std::string(nameOf(kind, number));
}

std::string print(const Json& json) {
  if (!json.isObject()) return json.text;
  std::string out = "{";
  for (const auto& [key, member] : json.members) {
    if (out.size() > 1) out += ", ";
    out += inQuotes(key) + ": " + print(member);
  }
  return out + "}";
}

Json documentOf(const Binding& binding, const Place& place) {
  Json json;
  if (!place.onHost()) json["host"] = value(inQuotes(nameOf(Name::element, binding.host)));
  Json& levels = json["segment"];
  for (const auto& [level, segment] : binding.levels) {
    levels[std::to_string(level)] = value(inQuotes(nameOf(Name::segment, segment)));
  }
  return json;
}

Json documentOf(const PortBinding& places) {
  Json json;
  for (const auto& [place, binding] : places) {
    const std::string element = key(Name::element, place.element);
    if (place.onHost()) {
      json["portToHostBinding"][element] = documentOf(binding, place);
    } else {
      json["portToSwitchInterfaceBinding"][element][key(Name::interface, place.interface)] =
          documentOf(binding, place);
    }
  }
  return json;
}

Json documentOf(const Region& region) {
  Json json;
  for (const auto& [id, segment] : region.segments) {
    Json& member = json["segment"][key(Name::segment, id)];
    member["segmentationType"] = value(segment.type == kVlan    ? "\"vlan\""
                                       : segment.type == kVxlan ? "\"vxlan\""
                                                                : std::to_string(segment.type));
    member["segmentationId"] = value(std::to_string(segment.number));
  }
  for (const auto& [id, vlanType] : region.ports) {
    json["port"][key(Name::port, id)]["vlanType"] = value(std::to_string(vlanType));
  }
  for (const auto& [port, places] : region.bindings) {
    json["portBinding"][key(Name::port, port)] = documentOf(places);
  }
  return json;
}

Json documentOf(const Cloud& cloud) {
  Json json;
  Json& regions = json["region"];  // there also when empty, so that no patch takes all of it away
  Json& assignments = json["config"]["vlanAssignment"];
  for (const auto& [name, entries] : cloud.assignments) {
    Json& vlans = assignments[key(Name::region, name)]["vlan"];
    for (const auto& [vlan, entry] : entries) {
      vlans[std::to_string(vlan)] = value(entry ? "true" : "false");
    }
  }
  for (const auto& [name, region] : cloud.regions) {
    regions[key(Name::region, name)] = documentOf(region);
  }
  return json;
}

// The smallest merge patch that leads from one document to the other.
Json difference(const Json& before, const Json& after) {
  Json patch;
  for (const auto& [key, old] : before.members) {
    if (!after.members.contains(key)) patch[key] = value("null");
  }
  for (const auto& [key, now] : after.members) {
    const auto old = before.members.find(key);
    if (old == before.members.end()) {
      patch[key] = now;
    } else if (!(old->second == now)) {
      patch[key] = now.isObject() ? difference(old->second, now) : now;
    }
  }
  return patch;
}

// Names the scalars that a patch writes, changed or not.
void nameScalars(Json& patch, const Cloud& after, const std::vector<Edit>& edits) {
  static constexpr std::string_view kStatuses[] = {"\"syncUnknown\"", "\"syncInProgress\"",
                                                   "\"syncTimedOut\"", "\"syncComplete\""};
  for (const Edit& edit : edits) {
    if (edit.what == What::driver) {
      patch["config"]["vlanTypeDriver"] = value(std::to_string(after.driver));
    }
    if (edit.what < What::requester || !after.regions.contains(edit.inRegion)) continue;
    Json& region = patch["region"][key(Name::region, edit.inRegion)];
    switch (edit.what) {
      case What::requester:
        region["requester"] = value(inQuotes(nameOf(Name::requester, edit.value)));
        break;
      case What::request:
        region["requestId"] = value(inQuotes(nameOf(Name::request, edit.value)));
        break;
      case What::heartbeat:
        region["syncHeartbeat"] = value(std::to_string(edit.value));
        break;
      default:
        region["syncStatus"] = value(std::string(kStatuses[edit.value]));
        break;
    }
  }
}

std::string eventText(const Event& event, Cloud& cloud) {
  switch (event.kind) {
    case Event::advance:
      return "{\"advance\": " + number(event.seconds) + "}";
    case Event::timeout:
      return "{\"regionSyncTimeout\": " + number(event.seconds) + "}";
    case Event::misuse:
      return "{\"patch\": {\"misuse\": " + std::to_string(event.value) + "}}";
    case Event::patch:
      break;
  }
  Cloud after = patched(cloud, event.edits);
  Json patch = difference(documentOf(cloud), documentOf(after));
  nameScalars(patch, after, event.edits);
  if (keepsRules(after)) cloud = std::move(after);
  return "{\"patch\": " + print(patch) + "}";
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace

std::string jsonLines(const Stream& stream) {
  Cloud cloud;
  std::string lines;
  for (const Event& event : stream.events) lines += eventText(event, cloud) + "\n";
  return lines;
}

std::string write(const Stream& stream, const std::filesystem::path& folder,
                  const std::string& name, const std::string& vnagent) {
  std::filesystem::create_directories(folder);
  const auto document = folder / (name + ".json");
  const auto events = folder / (name + ".jsonl");
  writeFile(document, "{}\n");
  writeFile(events, jsonLines(stream));
  const std::string command = vnagent + " run " + document.string() + " --events " +
                              events.string() + " --toggle " + (stream.toggleOn ? "on" : "off") +
                              " --region-sync-timeout " + number(stream.timeout) +
                              " --each --keep-going";
  writeFile(folder / (name + ".sh"), command + "\n");
  return command;
}

}  // namespace sim
