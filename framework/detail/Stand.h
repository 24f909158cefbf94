// Where a loop over a collection stands: on a member that may leave the collection meanwhile.
//
// A loop does not count its member, which the collection holds, so that to go over members is to
// read them only. Each loop that stands on a member is known to its thread instead; when that
// member leaves its collection, the loop takes a reference of its own.
#pragma once

#include "framework/Member.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

class Stand {
 public:
  Stand() = default;
  Stand(const Stand& other) { *this = other; }
  Stand& operator=(const Stand& other);
  ~Stand() {
    if (member_ != nullptr) goOn(nullptr);
  }

  // The member; null when it stands on none.
  Member* member() const { return member_; }
  // Begins on a member of a collection. REQUIRES: it stands on none.
  void begin(Member* member) {
    if (member == nullptr) return;
    enter();
    member_ = member;
  }
  // Goes on to a member of a collection; to none at the end. REQUIRES: it stands on one.
  void goOn(Member* member) {
    if (member == nullptr) leave();
    const Member* const before = member_;
    member_ = member;
    // Last, as it may end the other member, and with it anything.
    if (owns_) [[unlikely]] {
      giveUp(*before);
    }
  }

  // Says that a member leaves its collection, which has held it so far.
  static void leaves(const Member& member) {
    if (innermost != nullptr) holdOn(member);
  }

 private:
// A loop's stand on the stack of a function is known to its thread until the loop ends.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif
  void enter() {
    outer_ = innermost;
    innermost = this;
  }
  void leave() {
    if (innermost == this) [[likely]] {
      innermost = outer_;
    } else {
      takeOut();
    }
  }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
  // Has every loop that stands on the member hold it.
  static void holdOn(const Member& member);
  // Lets go of the member that it has held.
  void giveUp(const Member& member);
  // Out of the loops of the thread, as one that others stand within.
  void takeOut();

  [[gnu::tls_model("initial-exec")]] static thread_local constinit Stand* innermost;

  Member* member_ = nullptr;
  Stand* outer_ = nullptr;
  bool owns_ = false;
};

}  // namespace detail
}  // namespace Kiv
