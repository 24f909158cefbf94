// Fuzz target: the answers of a Neutron server, as members of one JSON object. Either the import
// refuses them as no such answers, or what it makes of them is a document without a fault.
#include "agent/import/neutron.h"

#include "agent/document/cloud_document.h"
#include "agent/document/input.h"
#include "tests/fuzz/fuzz.h"

namespace {

using Fuzz::require;
using vnagent::JsonValue;

const JsonValue& memberOf(const JsonValue& answers, std::string_view key) {
  static constexpr JsonValue kNull;
  const JsonValue* member = answers.find(key);
  return member == nullptr ? kNull : *member;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto answers = vnagent::JsonTree::parse(Fuzz::textOf(data, size));
  if (answers.error() || !answers.flaws().empty()) return 0;
  const JsonValue& root = answers.root();
  const vnagent::NeutronDump dump{memberOf(root, "networks"), memberOf(root, "segments"),
                                  memberOf(root, "ports"), root.find("levels")};
  vnagent::NeutronImport result;
  try {
    result = importNeutron(dump);
  } catch (const vnagent::BadDump&) {
    return 0;
  }
  for (const auto& line : result.leftOut) {
    require(!line.empty() && line.find('\n') == line.npos, "what is left out is said on a line");
  }
  std::string text;
  vnagent::JsonWriter writer(text, vnagent::JsonWriter::Style::kIndented);
  writeCloud(result, "RegionOne", writer);
  const auto tree = vnagent::JsonTree::parse(text);
  require(!tree.error(), "an import is JSON");
  vnagent::CloudDocument document;
  const auto outcome = document.apply(tree.root(), faultsOfText(tree, nullptr));
  for (const auto& fault : outcome.faults) require(false, "no fault: " + fault.message());
  return 0;
}
