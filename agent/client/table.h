// Rows of cells in aligned columns, for a terminal or as JSON.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vnagent {

class Table {
 public:
  explicit Table(std::vector<std::string> columns) : columns_(std::move(columns)) {}

  // REQUIRES: a cell for each column.
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }

  bool isEmpty() const { return rows_.empty(); }

  // Columns under their headings, two spaces between them; with `colour`, the headings stand out.
  // An empty cell shows as "-".
  std::string text(bool colour) const;

 private:
  std::vector<std::string> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace vnagent
