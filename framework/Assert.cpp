#include "framework/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace [[gnu::visibility("default")]] Kiv {

void assertionFailed(std::string_view text, std::string_view file,
                     std::string_view function) noexcept {
  std::fprintf(stderr, "Assertion \"%.*s\" failed: %.*s: %.*s\n", static_cast<int>(text.size()),
               text.data(), static_cast<int>(file.size()), file.data(),
               static_cast<int>(function.size()), function.data());
  std::fflush(stderr);
  std::abort();
}

void assertionFailed(std::string_view text, std::string_view file, std::string_view function,
                     std::string_view about) noexcept {
  if (!about.empty()) {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(about.size()), about.data());
  }
  assertionFailed(text, file, function);
}

}  // namespace Kiv
