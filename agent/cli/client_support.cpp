#include "agent/cli/client_support.h"

#include <cstdlib>

#include <fmt/format.h>
#include <unistd.h>

#include "agent/cli/input_file.h"
#include "agent/json/utf8.h"

namespace vnagent {
namespace {

constexpr const char* kDefaultSocket = "/run/vnagent/vnagent.sock";

Endpoint endpointOf(const ClientOptions& options) {
  if (!options.url.empty()) return Endpoint::ofUrl(options.url);
  if (!options.socket.empty()) return Endpoint::ofSocket(options.socket);
  const char* socket = std::getenv("VNAGENT_SOCKET");
  return Endpoint::ofSocket(socket != nullptr && *socket != '\0' ? socket : kDefaultSocket);
}

constexpr std::string_view colourOf(char sign) {
  switch (sign) {
    case '+':
      return "\033[32m";
    case '-':
      return "\033[31m";
    default:
      return "\033[33m";
  }
}

// A value as a line shows it; a whole region would be a page.
std::string shortened(std::string text) {
  constexpr size_t kLongest = 120;
  if (text.size() <= kLongest) return text;
  size_t end = kLongest;
  while ((text[end] & 0xc0) == 0x80) --end;
  return text.substr(0, end) + "…";
}

}  // namespace

LiveAgent connected(const ClientOptions& options) {
  Endpoint endpoint = endpointOf(options);
  endpoint.authorities = options.authorities;
  if (!options.tokenFile.empty()) {
    endpoint.token = readFile(options.tokenFile);
    const size_t end = endpoint.token.find_last_not_of(" \t\r\n");
    endpoint.token.erase(end == std::string::npos ? 0 : end + 1);
    if (endpoint.token.empty() || endpoint.token.find('\n') != std::string::npos) {
      throw UnreadableFile(options.tokenFile + ": is not one line with a token");
    }
  }
  return LiveAgent(std::move(endpoint), options.deadline);
}

Place placeOf(std::string_view text) {
  for (const std::string_view document : {"cloud", "output"}) {
    std::string_view rest = text;
    if (rest.starts_with('/')) rest.remove_prefix(1);
    if (!rest.starts_with(document)) continue;
    rest.remove_prefix(document.size());
    if (rest.empty() || rest.starts_with('/')) return {std::string(document), std::string(rest)};
  }
  if (text.empty() || text.starts_with('/')) return {"cloud", std::string(text)};
  throw RejectedArgument(
      fmt::format("'{}' is no place; one is cloud/region/NAME or output/regionStatus", text));
}

Json readJson(const std::string& file) {
  Json value = Json::parse(readFile(file), nullptr, false);
  if (value.is_discarded()) throw UnreadableFile(inputName(file) + ": is not JSON");
  return value;
}

void printJson(const Json& value, bool oneLine) {
  printOut(value.dump(oneLine ? -1 : 2) + "\n");
}

void printTable(const Table& table) {
  printOut(table.text(mayColour(STDOUT_FILENO)));
}

void printChanges(const Json& before, const Json& patch) {
  const bool colour = mayColour(STDOUT_FILENO);
  std::string out;
  for (const ChangedPlace& place : changedPlaces(before, patch)) {
    const std::string line = fmt::format(
        "{} {}  {}", place.sign, escapeControls(place.pointer.empty() ? "/" : place.pointer),
        escapeControls(shortened(place.text)));
    out += colour ? fmt::format("{}{}\033[0m\n", colourOf(place.sign), line) : line + "\n";
  }
  printOut(out.empty() ? "no changes\n" : out);
}

const Json& memberOf(const Json& object, std::string_view key) {
  static const Json kNone;
  if (!object.is_object()) return kNone;
  const auto found = object.find(std::string(key));
  return found == object.end() ? kNone : *found;
}

std::string textOf(const Json& value) {
  if (value.is_null()) return {};
  return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace vnagent
