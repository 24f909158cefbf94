#include <filesystem>
#include <utility>

#include "agent/cli/commands.h"
#include "agent/cli/input_file.h"
#include "agent/import/neutron.h"
#include "agent/json/json_tree.h"

namespace vnagent {
namespace {

// Throws UnreadableFile.
nlohmann::json readJson(const std::string& name, uint64_t maxBytes) {
  const std::string text = readFile(name, maxBytes);
  const JsonTree tree = JsonTree::parse(text);
  if (const auto& error = tree.error()) {
    throw UnreadableFile(placeInFile(name, error->position.line) + ": not JSON: " + error->text);
  }
  return nlohmann::json::parse(text);
}

}  // namespace

ExitStatus importNeutron(const ImportOptions& options) {
  const std::filesystem::path directory(options.directory);
  const auto read = [&](const char* file) {
    return readJson((directory / file).string(), options.maxInputBytes);
  };
  NeutronDump dump{read("networks.json"), read("segments.json"), read("ports.json"), {}};
  if (std::filesystem::exists(directory / "db_binding_levels.json")) {
    dump.bindingLevels = read("db_binding_levels.json");
  }
  NeutronImport result;
  try {
    result = importNeutron(dump);
  } catch (const BadDump& error) {
    reportError((directory / error.what()).string());
    return ExitStatus::kRefused;
  }
  std::string out;
  JsonWriter json(out, JsonWriter::Style::kIndented);
  writeCloud(result, options.region, json);
  out += '\n';
  printOut(out);
  for (const std::string& line : result.leftOut) reportNote(line);
  return ExitStatus::kOk;
}

}  // namespace vnagent
