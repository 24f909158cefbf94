// How the machines write trace lines.
#pragma once

#include <concepts>
#include <ostream>

#include "OpenStackSm/Attributes.h"
#include "framework/Trace.h"

namespace OpenStack::detail {

// Where the trace lines of a handler of machine M come from, by its name in M's table.
template <class M>
constexpr Kiv::TraceSource handler(std::string_view name) {
  return M::kAttributes.handler(kSourceUnit, name);
}

// Writes a line at `level` for the handler that `here` describes, run by the machine or reactor at
// `subject`. The message is a callable that writes to the stream it is given, and is called only
// where the level is on; or fixed text.
template <class Message>
void trace(int level, const Kiv::TraceSource& here, const void* subject, Message&& message,
           int line = __builtin_LINE()) {
  if constexpr (std::convertible_to<Message, std::string_view>) {
    const std::string_view text = message;
    Kiv::traceLine(level, here, subject, line, [text](std::ostream& out) { out << text; });
  } else {
    Kiv::traceLine(level, here, subject, line, message);
  }
}

}  // namespace OpenStack::detail
