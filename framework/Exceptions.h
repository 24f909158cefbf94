// The exceptions that the framework throws at programming errors: misuse of an interface by the
// code that embeds it. An operator's input never causes one.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace [[gnu::visibility("default")]] Kiv {

class PtrInterface;
class Type;

// The base of the framework's exceptions; what() is the fixed text that each mutator documents.
class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An argument is out of its range: a null entity given to a mutator, an entity of another type.
class RangeException final : public Exception {
 public:
  using Exception::Exception;
};

// A child exists under the given name, and was made with other arguments.
class NameInUseException final : public Exception {
 public:
  using Exception::Exception;
};

// Throws one with this text.
[[noreturn]] void throwRangeException(const std::string& text);
// Throws one with this text.
[[noreturn]] void throwNameInUseException(const std::string& text);

// The fixed text of the exception for a null argument to a collection's mutator. It closes with a
// double-quote character, which readers of old logs search for.
std::string nullArgumentText(std::string_view collection, std::string_view type);
// Throws a range exception with that text.
[[noreturn]] void throwNullArgument(std::string_view collection, std::string_view type);

// A pointer value as text for an exception's message: the type's name and the address, or "null".
std::string valueToStrepOfRawPtr(const void* pointer, const Type& type);

}  // namespace Kiv
