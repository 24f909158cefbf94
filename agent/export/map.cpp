#include "agent/export/map.h"

#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "agent/json/json_tree.h"
#include "agent/ovsdb/address.h"

namespace vnagent {
namespace {

class MapReader {
 public:
  explicit MapReader(const JsonTree& tree) : root_(tree.root()) {}

  ExportMap read() {
    ExportMap map;
    forEachMember(root_, [&](const JsonValue& member) {
      if (member.key == "switches") {
        forEachMember(member, [&](const JsonValue& one) {
          map.switches[std::string(one.key)] = readSwitch(one);
        });
      } else if (member.key == "hosts") {
        forEachMember(member, [&](const JsonValue& one) {
          map.hosts[std::string(one.key)] = readPlaces(one);
        });
      } else if (member.key == "tls") {
        map.tls = readTls(member);
      } else {
        fail(member, "there is no such member; a map has switches, hosts and tls");
      }
    });
    if (map.switches.empty()) fail(root_, "\"switches\" is missing or empty");
    checkDatabases(map);
    checkPlaces(map);
    return map;
  }

 private:
  [[noreturn]] void fail(const JsonValue& value, const std::string& text) const {
    throw InvalidMap(pointerTo(value, root_) + ": " + text);
  }

  template <class Take>
  void forEachMember(const JsonValue& object, const Take& take) const {
    if (!object.isObject()) fail(object, "an object is expected");
    for (const JsonValue* member : object.all()) take(*member);
  }

  // A name of the output document may be empty.
  std::string name(const JsonValue& value) const {
    if (value.kind != JsonValue::Kind::kString) fail(value, "a string is expected");
    return std::string(value.text);
  }

  std::string text(const JsonValue& value) const {
    if (value.kind != JsonValue::Kind::kString || value.text.empty()) {
      fail(value, "a string is expected that is not empty");
    }
    return std::string(value.text);
  }

  ExportMap::Switch readSwitch(const JsonValue& object) const {
    ExportMap::Switch result;
    result.physicalSwitch = object.key;
    forEachMember(object, [&](const JsonValue& member) {
      if (member.key == "database") {
        result.database = text(member);
        try {
          ovsdb::Address::parse(result.database);
        } catch (const std::invalid_argument& error) {
          fail(member, error.what());
        }
      } else if (member.key == "physicalSwitch") {
        result.physicalSwitch = text(member);
      } else if (member.key == "tunnelIp") {
        result.tunnelIp = text(member);
      } else if (member.key == "ports") {
        std::set<std::string> used;
        forEachMember(member, [&](const JsonValue& port) {
          result.ports[std::string(port.key)] = text(port);
          if (!used.insert(text(port)).second) {
            fail(port, fmt::format("port \"{}\" has two interfaces", text(port)));
          }
        });
      } else {
        fail(member,
             "there is no such member; a switch has database, physicalSwitch, tunnelIp "
             "and ports");
      }
    });
    if (result.database.empty()) fail(object, "\"database\" is missing");
    return result;
  }

  std::vector<SwitchPortName> readPlaces(const JsonValue& array) const {
    if (array.kind != JsonValue::Kind::kArray) {
      fail(array, "an array of {\"switch\", \"port\"} is expected");
    }
    std::vector<SwitchPortName> places;
    for (const JsonValue* one : array.all()) {
      if (!one->isObject()) fail(*one, "an object is expected");
      for (const JsonValue* member : one->all()) {
        if (member->key != "switch" && member->key != "port") {
          fail(*member, "there is no such member; a place has switch and port");
        }
      }
      places.push_back({memberOf(*one, "switch"), memberOf(*one, "port")});
    }
    return places;
  }

  std::string memberOf(const JsonValue& object, const char* key) const {
    const JsonValue* member = object.find(key);
    if (member == nullptr) fail(object, fmt::format("\"{}\" is missing", key));
    return name(*member);
  }

  ExportTls readTls(const JsonValue& object) const {
    ExportTls tls;
    forEachMember(object, [&](const JsonValue& member) {
      if (member.key == "certificate") {
        tls.certificate = text(member);
      } else if (member.key == "privateKey") {
        tls.privateKey = text(member);
      } else if (member.key == "authorities") {
        tls.authorities = text(member);
      } else {
        fail(member, "there is no such member; tls has certificate, privateKey and authorities");
      }
    });
    return tls;
  }

  static void checkDatabases(const ExportMap& map) {
    std::map<std::string, std::string> users;
    for (const auto& [name, one] : map.switches) {
      const auto [user, isNew] = users.emplace(one.database, name);
      if (isNew) continue;
      throw InvalidMap(fmt::format("{}: switches \"{}\" and \"{}\" have the same database",
                                   placeOf("switches", name), user->second, name));
    }
  }

  static void checkPlaces(const ExportMap& map) {
    for (const auto& [host, places] : map.hosts) {
      std::set<SwitchPortName> seen;
      for (const SwitchPortName& place : places) {
        if (!map.switches.contains(place.switchName)) {
          throw InvalidMap(
              fmt::format("{}: no switch \"{}\"", placeOf("hosts", host), place.switchName));
        }
        if (!seen.insert(place).second) {
          throw InvalidMap(fmt::format("{}: port \"{}\" of \"{}\" is there twice",
                                       placeOf("hosts", host), place.port, place.switchName));
        }
      }
    }
  }

  static std::string placeOf(std::string_view collection, std::string_view key) {
    std::string pointer;
    appendToken(pointer, collection);
    appendToken(pointer, key);
    return pointer;
  }

  const JsonValue& root_;
};

}  // namespace

ExportMap ExportMap::parse(std::string_view text) {
  const JsonTree tree = JsonTree::parse(text);
  if (tree.error()) {
    throw InvalidMap(fmt::format(": line {}, column {}: {}", tree.error()->position.line,
                                 tree.error()->position.column, tree.error()->text));
  }
  if (!tree.flaws().empty()) {
    const JsonFlaw& flaw = tree.flaws().front();
    throw InvalidMap(pointerTo(*flaw.value, tree.root()) + ": " + flaw.message());
  }
  return MapReader(tree).read();
}

}  // namespace vnagent
