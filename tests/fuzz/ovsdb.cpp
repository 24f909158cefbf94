// Fuzz target: what an OVSDB server sends. The first byte says how the rest is cut into pieces; the
// rest is a stream of JSON-RPC objects, whose last parameter is an update of rows. The rows go to
// the replica of a hardware_vtep database, and the planner compares them with an output document.
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/export/planner.h"
#include "agent/ovsdb/json_stream.h"
#include "tests/fuzz/fuzz.h"

namespace {

using Fuzz::require;
using nlohmann::json;
using vnagent::ovsdb::JsonStream;

constexpr const char* kMap =
    R"({"switches": {"a": {"database": "unix:a"}, "b": {"database": "unix:b", "tunnelIp": "9"}},
        "hosts": {"h": [{"switch": "a", "port": "p"}, {"switch": "b", "port": "p"}]}})";
constexpr const char* kOutput =
    R"({"requestedResources": {"resourcesForHostname": {"h": {"vlan": {
        "1": {"mappedVni": {"1": []}}, "2": {"mappedVni": {}}}}}}})";

struct Framed {
  std::vector<std::string> objects;
  bool isGood = true;
};

Framed framed(std::string_view text, size_t piece) {
  JsonStream stream(size_t{1} << 20);
  Framed result;
  for (size_t at = 0; at < text.size() && result.isGood; at += piece) {
    result.isGood = stream.feed(text.substr(at, piece), [&](std::string_view object) {
      result.objects.emplace_back(object);
    });
  }
  return result;
}

// One database, fed with everything, in the form that the method has.
class Database {
 public:
  Database()
      : map_(vnagent::ExportMap::parse(kMap)),
        desired_(map_, problems_),
        replica_("a", desired_.at(0), desired_.changesOf(0)) {
    simdjson::dom::parser parser;
    desired_.replace(parser.parse(kOutput, std::strlen(kOutput)));
    replica_.reset();
  }

  void take(vnagent::ovsdb::JsonElement message) {
    std::string_view method;
    simdjson::dom::array params;
    if (message["params"].get(params) || params.size() == 0) return;
    vnagent::ovsdb::JsonElement updates;
    if (message["method"].get(method) || params.at(params.size() - 1).get(updates)) return;
    using vnagent::ovsdb::UpdateForm;
    const auto form = method == "update" ? UpdateForm::kOldAndNew : UpdateForm::kDifferences;
    try {
      vnagent::ovsdb::forEachRow(updates, form,
                                 [this](const auto& change) { replica_.apply(change); });
    } catch (const vnagent::ovsdb::ProtocolError&) {
      // The connection ends, and the copy is thrown away.
      replica_.reset();
    }
    replica_.settle();
    desired_.tunnelAddressIs(0, replica_.tunnelAddress());
    for (const auto mode : {vnagent::ExportMode::kAddOnly, vnagent::ExportMode::kRepair}) {
      vnagent::SwitchChanges changes = desired_.changesOf(0);
      changes.normalise();
      vnagent::Planner planner(desired_, 0, replica_, mode, problems_);
      const auto plan = planner.plan(changes, true);
      require(json::accept("[" + plan.operations + "]"), "a plan is JSON");
    }
  }

 private:
  vnagent::Problems problems_;
  const vnagent::ExportMap map_;
  vnagent::Desired desired_;
  vnagent::Replica replica_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const Framed whole = framed(text, std::max<size_t>(text.size(), 1));
  const Framed pieces = framed(text, size_t{data[0]} + 1);
  require(whole.isGood == pieces.isGood, "the pieces do not matter");
  require(whole.objects == pieces.objects, "the pieces do not matter");
  Database database;
  for (const std::string& object : whole.objects) {
    simdjson::dom::parser parser;
    vnagent::ovsdb::JsonElement message;
    if (!parser.parse(object).get(message)) database.take(message);
  }
  return 0;
}
