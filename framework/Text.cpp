#include "framework/Text.h"

#include <algorithm>
#include <new>

#include "framework/Type.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace {

constinit AllocTrackTypeInfo textAllocations{"Kiv::Text"};

}  // namespace

Text::Rep* Text::newRep(std::size_t size) {
  const std::size_t bytes = sizeof(Rep) + size;
  auto* rep = new (kivMemAlloc(bytes)) Rep{{1}, 0, static_cast<U32>(size)};
  AllocTrackTypeInfo::trackAllocation(textAllocations, bytes);
  return rep;
}

Text::Text(std::string_view text) : Text(text, std::string_view()) {}

Text::Text(std::string_view a, std::string_view b) {
  if (a.empty() && b.empty()) return;
  Rep* rep = newRep(a.size() + b.size());
  std::copy(b.begin(), b.end(), std::copy(a.begin(), a.end(), rep->text()));
  rep->order = kivOrder(std::string_view(rep->text(), rep->size));
  rep_ = rep;
}

bool Text::hasSameCharacters(const Text& other) const {
  return view() == other.view();
}

void Text::free() const noexcept {
  const std::size_t bytes = sizeof(Rep) + rep_->size;
  rep_->~Rep();
  kivMemFree(const_cast<Rep*>(rep_), bytes);
  AllocTrackTypeInfo::trackDeallocation(textAllocations, bytes);
}

}  // namespace Kiv
