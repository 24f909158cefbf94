// Part of every program and library of a coverage build: what ran is written also when an assertion
// stops the process, so that tests of assertions count.
#include <csignal>

extern "C" int __llvm_profile_write_file(void);

namespace {

using Handler = void (*)(int);
Handler previous = SIG_DFL;

// Each shared object has counters of its own, and so a handler of its own; they call each other.
void onAbort(int signal) {
  __llvm_profile_write_file();
  if (previous != SIG_DFL && previous != SIG_IGN) previous(signal);
  std::signal(signal, SIG_DFL);
}

[[gnu::constructor]] void install() {
  previous = std::signal(SIGABRT, onAbort);
}

}  // namespace
