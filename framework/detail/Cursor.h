// Registered cursors: the iterator guard of sequences that may change under an iteration.
//
// A cursor is at one object of a sequence: at a member of a collection, or at a notifiee of a list.
// It does not count a reference to that object, since the sequence holds it, so a loop that nobody
// disturbs only reads. Instead, each active cursor is registered with its thread, and a sequence
// that is about to change tells the cursors in it:
//
//   - invalidate(sequence): what the cursor remembers of its position is stale. The owner of the
//     cursor looks its position up again before it advances.
//   - remove(sequence, object): the same, and the cursors at this object pin it: they take a
//     reference, which each drops when it advances.
//
// Sequences differ in how they find the next object; that is not a cursor's business. A collection
// searches for the key of the object that the cursor is at (see HashMap::Iterator). A list of
// notifiees has no keys: its cursor (see NotifieeList) adds the successor and the last notifiee to
// call, and the list corrects both in forEachIn() before it unlinks a notifiee, and then calls
// remove(). Where the last reference to an object may go while a cursor is at it, pinAll() keeps
// the object.
//
// Cost: a registration is two words written on the stack; a change without active cursors is one
// load of a thread-local pointer. Nothing here allocates or throws. A cursor stays on its thread;
// cursors may end in any order.
#pragma once

#include "framework/PtrInterface.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

class Cursor {
 public:
  // At no object, not registered.
  Cursor() = default;
  // At the same object of the same sequence, registered by itself; pins the object if `other` does.
  Cursor(const Cursor& other) { *this = other; }
  Cursor& operator=(const Cursor& other);
  ~Cursor() {
    if (object_ != nullptr) advance(nullptr);
  }

  // The object; null when the cursor is at none. Alive, whether it is in the sequence or not.
  PtrInterface* object() const { return object_; }
  // Whether the sequence has changed since the cursor came to its object.
  bool stale() const { return stale_; }
  // Whether the object has left the sequence, or would have ended, since then.
  bool pinned() const { return pinned_; }

  // Goes to an object of this sequence, and registers; does nothing for null. REQUIRES: the cursor
  // is at none.
  void begin(const void* sequence, PtrInterface* object) {
    if (object == nullptr) return;
    sequence_ = sequence;
    object_ = object;
    enter();
  }
  // Goes to another object of the same sequence, or to none at its end, and is not stale. Drops the
  // reference to the object before, if it was pinned; that may end it and run any code. REQUIRES:
  // the cursor is at an object.
  void advance(PtrInterface* next) {
    if (next == nullptr) leave();
    const PtrInterface* const before = object_;
    object_ = next;
    // What is pinned has been removed, and so the cursor is stale.
    if (stale_) [[unlikely]]
      release(*before);
  }

  // What a sequence calls, before or after its change, and before other code can run:
  // its cursors are stale.
  static void invalidate(const void* sequence) {
    if (innermost_ != nullptr) invalidateAll(sequence);
  }
  // This object leaves it: its cursors are stale, and those at the object pin it. REQUIRES: the
  // object has a reference.
  static void remove(const void* sequence, const PtrInterface& object) {
    if (innermost_ != nullptr) removeFromAll(sequence, object);
  }
  // The object would end: the cursors of all sequences that are at it pin it.
  [[gnu::visibility("hidden")]] static void pinAll(const PtrInterface& object);
  // Calls each(cursor) for the active cursors in the sequence.
  template <class Each>
  static void forEachIn(const void* sequence, Each each) {
    for (Cursor* cursor = innermost_; cursor != nullptr; cursor = cursor->outer_) {
      if (cursor->sequence_ == sequence) each(*cursor);
    }
  }

 private:
// The cursor of a loop is on the stack of its function, and registered until the loop ends.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif
  void enter() {
    outer_ = innermost_;
    innermost_ = this;
  }
  void leave() {
    if (innermost_ == this) [[likely]] {
      innermost_ = outer_;
    } else {
      unlink();
    }
  }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
  // Takes it out of the list of its thread, where it is not the first.
  void unlink();
  static void invalidateAll(const void* sequence);
  static void removeFromAll(const void* sequence, const PtrInterface& object);
  [[gnu::visibility("hidden")]] void pin();
  // Is not stale any more, and drops the reference to the object that it was at.
  void release(const PtrInterface& before);

  [[gnu::tls_model("initial-exec")]] static thread_local constinit Cursor* innermost_;

  PtrInterface* object_ = nullptr;
  const void* sequence_ = nullptr;
  Cursor* outer_ = nullptr;  // registered before this one
  bool stale_ = false;
  bool pinned_ = false;  // whether it holds a reference to its object
};

}  // namespace detail
}  // namespace Kiv
