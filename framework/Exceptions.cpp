#include "framework/Exceptions.h"

#include <sstream>

#include "framework/Type.h"

namespace [[gnu::visibility("default")]] Kiv {

void throwRangeException(const std::string& text) {
  throw RangeException(text);
}

void throwNameInUseException(const std::string& text) {
  throw NameInUseException(text);
}

std::string nullArgumentText(std::string_view collection, std::string_view type) {
  return std::string("null _")
      .append(collection)
      .append(" parameter to mutator for ")
      .append(type)
      .append("::")
      .append(collection)
      .append(" not allowed\"");
}

void throwNullArgument(std::string_view collection, std::string_view type) {
  throwRangeException(nullArgumentText(collection, type));
}

std::string valueToStrepOfRawPtr(const void* pointer, const Type& type) {
  std::ostringstream text;
  text << type.name() << '(';
  if (pointer == nullptr) {
    text << "null";
  } else {
    text << pointer;
  }
  text << ')';
  return std::move(text).str();
}

}  // namespace Kiv
