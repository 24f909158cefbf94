#include "framework/GenericValue.h"

#include <charconv>

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

std::optional<U64> parseNumber(std::string_view text, U64 most) {
  if (text.empty() || (text.size() > 1 && text.front() == '0')) return std::nullopt;
  U64 number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number > most) {
    return std::nullopt;
  }
  return number;
}

std::optional<Seconds> parseSeconds(std::string_view text) {
  Seconds seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return seconds;
}

std::string secondsText(Seconds seconds) {
  char buffer[32];
  const auto [end, error] = std::to_chars(buffer, buffer + sizeof(buffer), seconds);
  return std::string(buffer, error == std::errc() ? end : buffer);
}

}  // namespace detail

std::string GenericValue::objectText() const {
  if (!object_) return "null";
  return valueToStrepOfRawPtr(object_.get(), object_->fwkType());
}

void GenericValue::throwOther(std::string_view wanted) const {
  throwRangeException(std::string("a value of type ")
                          .append(wanted)
                          .append(" is wanted, not ")
                          .append(empty() ? "nothing" : typeName_));
}

}  // namespace Kiv
