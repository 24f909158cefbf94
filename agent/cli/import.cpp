#include <filesystem>
#include <utility>

#include "agent/cli/commands.h"
#include "agent/cli/input_file.h"
#include "agent/document/input.h"
#include "agent/import/neutron.h"

namespace vnagent {
namespace {

// Reads one answer. Throws UnreadableFile, and BadDump where its text has a flaw.
JsonTree readAnswer(const std::filesystem::path& directory, const std::string& file,
                    uint64_t maxBytes) {
  const std::string name = (directory / file).string();
  JsonTree tree = JsonTree::parse(readFile(name, maxBytes));
  if (const auto& error = tree.error()) {
    throw UnreadableFile(placeInFile(name, error->position.line) + ": not JSON: " + error->text);
  }
  Faults faults(tree.root(), faultsOfText(tree, nullptr));
  if (faults.none()) return tree;
  const Fault fault = faults.take().front();
  throw BadDump(placeInFile(file, fault.position.line) + ": " + fault.message());
}

NeutronImport importFrom(const std::filesystem::path& directory, uint64_t maxBytes) {
  const auto read = [&](const char* file) { return readAnswer(directory, file, maxBytes); };
  const JsonTree networks = read("networks.json");
  const JsonTree segments = read("segments.json");
  const JsonTree ports = read("ports.json");
  NeutronDump dump{networks.root(), segments.root(), ports.root()};
  if (!std::filesystem::exists(directory / "db_binding_levels.json")) return importNeutron(dump);
  const JsonTree levels = read("db_binding_levels.json");
  dump.bindingLevels = &levels.root();
  return importNeutron(dump);
}

}  // namespace

ExitStatus importNeutron(const ImportOptions& options) {
  const std::filesystem::path directory(options.directory);
  NeutronImport result;
  try {
    result = importFrom(directory, options.maxInputBytes);
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
