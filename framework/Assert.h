// Assertions: broken invariants that stop the process, in every build type.
#pragma once

#include <string_view>

namespace [[gnu::visibility("default")]] Kiv {

// Prints the assertion's text, the source unit and the function to standard error, and aborts.
[[noreturn]] void assertionFailed(std::string_view text, std::string_view file,
                                  std::string_view function) noexcept;

// The same; prints before it, on a line of its own, what the assertion is about,
// unless that is empty.
[[noreturn]] void assertionFailed(std::string_view text, std::string_view file,
                                  std::string_view function, std::string_view about) noexcept;

}  // namespace Kiv

// Stops the process unless `condition` holds. `file` and `function` say where, as text.
#define KIV_ASSERT(condition, file, function) \
  (static_cast<bool>(condition) ? void() : ::Kiv::assertionFailed(#condition, file, function))

// The same, for an invariant of which objects are part: `about` names them. It is text, evaluated
// only where the condition does not hold.
#define KIV_ASSERT_ABOUT(condition, file, function, about) \
  (static_cast<bool>(condition) ? void()                   \
                                : ::Kiv::assertionFailed(#condition, file, function, about))
