#include "bench/limit/Interned.h"

#include <cstring>
#include <new>

namespace bench {

Interned::Table& Interned::table() {
  static Table texts;
  return texts;
}

Interned Interned::of(std::string_view text) {
  const auto at =
      table().lazy_emplace(text, [&](const Table::constructor& make) { make(newRep(text)); });
  return Interned(*at);
}

Interned Interned::find(std::string_view text) {
  const auto at = table().find(text);
  return at == table().end() ? Interned() : Interned(*at);
}

Interned::Rep* Interned::newRep(std::string_view text) {
  auto* rep = new (::operator new(sizeof(Rep) + text.size()))
      Rep{0, static_cast<std::uint32_t>(text.size())};
  std::memcpy(rep->text(), text.data(), text.size());
  return rep;
}

void Interned::drop(Rep* rep) noexcept {
  table().erase(rep);
  ::operator delete(rep);
}

}  // namespace bench
