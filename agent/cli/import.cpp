#include <cstdio>
#include <filesystem>
#include <utility>

#include "agent/cli/commands.h"
#include "agent/cli/input_file.h"
#include "agent/import/neutron.h"
#include "agent/json/json_tree.h"

namespace vnagent {
namespace {

// Throws UnreadableFile.
nlohmann::json readJson(const std::string& name) {
  const std::string text = readFile(name);
  auto value = nlohmann::json::parse(text, nullptr, false);
  if (!value.is_discarded()) return value;
  // The document's own parser says where.
  const JsonTree tree = JsonTree::parse(text);
  const JsonError error = tree.error().value_or(JsonError{});
  throw UnreadableFile(placeInFile(name, error.line) + ": not JSON: " + error.text);
}

}  // namespace

ExitStatus importNeutron(const ImportOptions& options) {
  const std::filesystem::path directory(options.directory);
  const auto read = [&](const char* file) { return readJson((directory / file).string()); };
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
  const bool written = std::fwrite(out.data(), 1, out.size(), stdout) == out.size();
  if (!written || std::fflush(stdout) != 0) {
    throw std::runtime_error("cannot write to standard output");
  }
  for (const std::string& line : result.leftOut) reportNote(line);
  return ExitStatus::kOk;
}

}  // namespace vnagent
