#include "framework/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kiv {

void assertionFailed(const char* text, const char* file, const char* function) noexcept {
  std::fprintf(stderr, "Assertion \"%s\" failed: %s: %s\n", text, file, function);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kiv
