// The configuration file of `vnagent serve`.
#include <algorithm>
#include <fstream>

#include <fmt/format.h>
#include <toml.hpp>

#include "agent/server/options.h"

namespace vnagent {
namespace {

// A value as the command line would have it; nothing for a list, a table or a date.
std::optional<std::string> textOf(const toml::value& value) {
  if (value.is_string()) return value.as_string().str;
  if (value.is_boolean()) return value.as_boolean() ? "true" : "false";
  if (value.is_integer()) return std::to_string(value.as_integer());
  if (value.is_floating()) return fmt::format("{}", value.as_floating());
  return std::nullopt;
}

// What the parser says, in one line: its first line, without the name of the parser's function.
std::string firstLine(std::string_view text) {
  text = text.substr(0, text.find('\n'));
  if (const auto function = text.find("toml::"); function != text.npos) {
    const auto colon = text.find(": ", function);
    if (colon != text.npos) text.remove_prefix(colon + 2);
  }
  return std::string(text);
}

toml::value parse(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw BadConfiguration(file + ": cannot be read");
  try {
    return toml::parse(stream, file);
  } catch (const toml::syntax_error& error) {
    throw BadConfiguration(
        fmt::format("{}:{}: {}", file, error.location().line(), firstLine(error.what())));
  } catch (const std::exception& error) {
    throw BadConfiguration(fmt::format("{}: {}", file, firstLine(error.what())));
  }
}

}  // namespace

void readConfiguration(const std::string& file, const std::set<std::string, std::less<>>& given,
                       ServeOptions& options) {
  const toml::value document = parse(file);
  for (const auto& [key, value] : document.as_table()) {
    const auto place = fmt::format("{}:{}", file, value.location().line());
    const auto known = std::ranges::find(serveOptions(), key, &ServeOption::name);
    if (known == serveOptions().end()) {
      throw BadConfiguration(fmt::format("{}: there is no option '{}'", place, key));
    }
    const auto text = textOf(value);
    if (!text) throw BadConfiguration(fmt::format("{}: '{}' needs one value", place, key));
    if (given.contains(key)) continue;
    const auto fault = known->set(options, *text);
    if (!fault.empty()) throw BadConfiguration(fmt::format("{}: {}: {}", place, key, fault));
  }
}

}  // namespace vnagent
