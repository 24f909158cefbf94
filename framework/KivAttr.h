// Attribute descriptors: the properties of an attribute that traces, exception texts and tools use.
#pragma once

#include <string_view>

#include "framework/Integers.h"

namespace [[gnu::visibility("default")]] Kiv {

// The kind of an attribute.
enum class KivAttrKind : U8 {
  plain,       // one value or object
  handler,     // something that can be called
  collection,  // members by key
};

// One attribute of a machine, a reactor or an entity.
struct KivAttr {
  U16 index = 0;  // as tools number it; 0 for the handler of a nested reactor
  KivAttrKind kind = KivAttrKind::plain;  // what can be done with it
  std::string_view name;       // "regionConfigSm"; of a nested reactor's "KivSegment::doCleanup"
  std::string_view key;        // of a collection: the name of its key, where it has one; else empty
  std::string_view signature;  // of a handler: its full signature, as traces print it; else empty
  std::string_view argument;   // its name as an argument of the constructor; empty when it is none
  // Filled in by the description of a class (GenericIf), from the types of its members.
  std::string_view type = {};     // of its value, or of a collection's members; of a handler: empty
  std::string_view keyType = {};  // of a collection's key, or of what a handler takes; else empty
  bool writable = false;  // whether it can be written, or members be made and deleted through it
};

}  // namespace Kiv
