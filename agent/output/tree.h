// The output document as a tree for people.
#pragma once

#include <string>

#include "agent/cloud/output_document.h"

namespace vnagent {

// Appends the tree to `out`: hosts, switch interfaces, network elements and regions, then a line of
// counts. With `colour`, escape sequences set off what matters. REQUIRES: a whole document.
void writeTree(const OutputDocument& output, bool colour, std::string& out);

// Numbers that follow each other as ranges: "100-110, 120"; "none" for none. REQUIRES: ascending.
std::string ranges(const std::vector<uint16_t>& numbers);

// Names in one short cell: the first few, UUIDs by their first block, then how many more there are.
std::string abbreviated(const Texts& names);

}  // namespace vnagent
