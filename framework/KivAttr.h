// Attribute descriptors: one table for each machine type says what its attributes are. Traces, the
// fixed exception texts and tools are all fed from it.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "framework/Integers.h"
#include "framework/Trace.h"

namespace Kiv {

// One attribute of a machine.
struct KivAttr {
  U16 index;                   // as tools number it; 0 for the handler of a nested reactor
  std::string_view name;       // "regionConfigSm"; of a nested reactor's "KivSegment::doCleanup"
  std::string_view key;        // of a collection: the name of its key; else empty
  std::string_view signature;  // of a handler: its full signature, as traces print it; else empty
};

// The attributes of one machine type, in the order of their declaration.
template <std::size_t Count>
struct KivAttrTable {
  std::string_view machine;               // the machine's type name
  std::string_view file;                  // the source unit that its trace lines name
  std::array<KivAttr, Count> attributes;  // in the order of their declaration

  // The attribute with this name. A name that is not in the table does not compile in a
  // constant expression, which is where it is meant to be used.
  constexpr const KivAttr& operator[](std::string_view name) const {
    for (const KivAttr& attribute : attributes) {
      if (attribute.name == name) return attribute;
    }
    throw "no such attribute";
  }

  // Where the trace lines of a handler come from.
  constexpr TraceSource handler(std::string_view name) const {
    const KivAttr& attribute = (*this)[name];
    return {file, attribute.name.substr(attribute.name.rfind(':') + 1), attribute.signature};
  }
};

}  // namespace Kiv
