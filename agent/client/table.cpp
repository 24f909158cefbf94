#include "agent/client/table.h"

#include <algorithm>

#include "agent/json/utf8.h"

namespace vnagent {
namespace {

// Code points, which is what a terminal shows of the names that occur.
size_t widthOf(std::string_view text) {
  return static_cast<size_t>(
      std::ranges::count_if(text, [](char c) { return (c & 0xc0) != 0x80; }));
}

}  // namespace

std::string Table::text(bool colour) const {
  std::vector<std::vector<std::string>> lines{columns_};
  for (const auto& row : rows_) {
    auto& line = lines.emplace_back();
    for (const auto& cell : row) line.push_back(cell.empty() ? "-" : escapeControls(cell));
  }
  std::vector<size_t> widths(columns_.size());
  for (const auto& line : lines) {
    for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], widthOf(line[i]));
  }
  std::string out;
  for (size_t number = 0; number < lines.size(); ++number) {
    const bool stressed = colour && number == 0;
    if (stressed) out += "\033[1m";
    const auto& line = lines[number];
    for (size_t i = 0; i < line.size(); ++i) {
      out += line[i];
      if (i + 1 < line.size()) out.append(widths[i] - widthOf(line[i]) + 2, ' ');
    }
    if (stressed) out += "\033[0m";
    out += '\n';
  }
  return out;
}

}  // namespace vnagent
