// A server's state in the making, for the tests of the import.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "agent/document/cloud_document.h"
#include "agent/import/neutron.h"
#include "agent/json/json_tree.h"
#include "agent/json/json_writer.h"

namespace vnagent {

// The answers of a server.
struct NeutronAnswers {
  nlohmann::json networks;
  nlohmann::json segments;
  nlohmann::json ports;
  std::optional<nlohmann::json> bindingLevels;
};

// The import of answers. Throws BadDump.
inline NeutronImport importOf(const NeutronAnswers& answers) {
  const auto treeOf = [](const nlohmann::json& answer) { return JsonTree::parse(answer.dump()); };
  const JsonTree networks = treeOf(answers.networks);
  const JsonTree segments = treeOf(answers.segments);
  const JsonTree ports = treeOf(answers.ports);
  const JsonTree levels = treeOf(answers.bindingLevels.value_or(nlohmann::json()));
  return importNeutron({networks.root(), segments.root(), ports.root(),
                        answers.bindingLevels ? &levels.root() : nullptr});
}

// A server; everything is found under short names.
struct NeutronServer {
  using json = nlohmann::json;

  NeutronAnswers dump{{{"networks", json::array()}},
                      {{"segments", json::array()}},
                      {{"ports", json::array()}},
                      json::array()};

  void network(std::string_view id, json more = json::object()) {
    more["id"] = id;
    dump.networks["networks"].push_back(more);
  }
  void segment(std::string_view id, std::string_view network, std::string_view type, json number) {
    dump.segments["segments"].push_back({{"id", id},
                                         {"network_id", network},
                                         {"network_type", type},
                                         {"physical_network", nullptr},
                                         {"segmentation_id", std::move(number)}});
  }
  json& port(std::string_view id, std::string_view host, json more = json::object()) {
    json made{{"id", id},
              {"network_id", "n"},
              {"device_owner", "compute:nova"},
              {"device_id", "vm"},
              {"binding:vnic_type", "normal"},
              {"binding:vif_type", "ovs"},
              {"binding:host_id", host},
              {"binding:profile", json::object()}};
    made.update(more);
    dump.ports["ports"].push_back(made);
    return dump.ports["ports"].back();
  }
  void level(std::string_view port, std::string_view host, json number, std::string_view segment) {
    dump.bindingLevels->push_back(
        {{"port_id", port}, {"host", host}, {"level", std::move(number)}, {"segment_id", segment}});
  }
  static json link(std::string_view info, std::string_view id, std::string_view interface) {
    return {{"switch_info", info}, {"switch_id", id}, {"port_id", interface}};
  }
  // A list of its own type: compilers differ on whether one json in braces is a list or a copy.
  static json baremetal(std::initializer_list<json> links) {
    return {{"binding:vnic_type", "baremetal"},
            {"binding:vif_type", "other"},
            {"device_owner", "baremetal:none"},
            {"binding:profile", {{"local_link_information", json(json::array_t(links))}}}};
  }

  // The import, which must make a document that keeps all rules.
  NeutronImport import() const {
    NeutronImport result = importOf(dump);
    std::string text;
    JsonWriter writer(text, JsonWriter::Style::kIndented);
    writeCloud(result, "R", writer);
    CloudDocument document;
    const JsonTree tree = JsonTree::parse(text);
    EXPECT_FALSE(tree.error());
    for (const Fault& fault : document.apply(tree.root()).faults) ADD_FAILURE() << fault.message();
    return result;
  }
};

using LevelMap = std::map<uint8_t, std::string>;

}  // namespace vnagent
