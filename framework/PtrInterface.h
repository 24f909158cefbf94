// The base of every entity, machine and reactor: an intrusive reference count and the object's
// flags, in one word.
//
// Objects are made with Kiv::make<T>() and held by Kiv::Ptr<T>; the last Ptr to be destroyed frees
// the object. The count is the lower 27 bits of the word; the upper five are flags:
//
//   31  marked for deletion: a zombie, which ignores every notification
//   30  registered, of a notifiee
//   29  notifications are active
//   28  a member of a keyed collection
//   27  initialized, of a machine
//
// Threads: while enableThreadSafePointers is set, counts may be raised and dropped on any thread;
// everything else belongs to the activity thread.
#pragma once

#include <atomic>
#include <cstddef>

#include "framework/Type.h"

namespace [[gnu::visibility("default")]] Kiv {

class GenericIf;
class NotifieeList;

class PtrInterface {
 public:
  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  // Counting. The count starts at one, which belongs to whoever constructed the object.
  void referencesInc() const noexcept {
    if (enableThreadSafePointers) {
      word_.fetch_add(1, std::memory_order_relaxed);
    } else {
      word_.store(word_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  // Drops one reference; frees the object when it was the last.
  void referencesDec() const noexcept {
    U32 before;
    if (enableThreadSafePointers) {
      before = word_.fetch_sub(1, std::memory_order_acq_rel);
    } else {
      before = word_.load(std::memory_order_relaxed);
      word_.store(before - 1, std::memory_order_relaxed);
    }
    if ((before & kCountMask) == 1) free();
  }
  // The number of references.
  U32 references() const { return word_.load(std::memory_order_relaxed) & kCountMask; }

  // Whether the object is a zombie.
  bool markedForDeletion() const { return flag(kMarkedForDeletion); }
  // Only sets the flag; see Reactor::kivDoZombieReactors() for what goes with it.
  void kivMarkedForDeletionIs(bool marked) { flagIs(kMarkedForDeletion, marked); }

  // Whether notifications are delivered to this object, and to what it owns.
  bool hasNotificationActive() const { return flag(kNotificationActive); }
  virtual void hasNotificationActiveIs(bool active) { flagIs(kNotificationActive, active); }

  // The record of the object's class, and its reflection; null for a class without.
  virtual const Type& fwkType() const = 0;
  virtual const GenericIf* genericIf() const { return nullptr; }

  // The observers of this object; null for an object that cannot be observed.
  virtual NotifieeList* notifieeList() const { return nullptr; }

  static void* operator new(std::size_t size) { return kivMemAlloc(size); }
  static void operator delete(void* memory, std::size_t size) { kivMemFree(memory, size); }

 protected:
  PtrInterface() = default;
  virtual ~PtrInterface() = default;

  // The flags of derived classes, which are here because the word has bits left.
  // Whether the object is a notifiee that is registered, or a machine that is starting.
  bool registered() const { return flag(kRegistered); }
  void registeredIs(bool registered) { flagIs(kRegistered, registered); }

  // Whether the object is registered, active and no zombie, in one test.
  bool listening() const {
    constexpr U32 kAll = kRegistered | kNotificationActive | kMarkedForDeletion;
    return (word_.load(std::memory_order_relaxed) & kAll) == (kRegistered | kNotificationActive);
  }

  // Whether the object is a member of a keyed collection.
  bool collected() const { return flag(kCollected); }
  void collectedIs(bool collected) { flagIs(kCollected, collected); }

  // Whether the object is a machine that was synchronised with its inputs for the first time, or a
  // notifiee that is passive.
  bool initialized() const { return flag(kInitialized); }
  void initializedIs(bool initialized) { flagIs(kInitialized, initialized); }

 private:
  static constexpr U32 kMarkedForDeletion = U32{1} << 31;
  static constexpr U32 kRegistered = U32{1} << 30;
  static constexpr U32 kNotificationActive = U32{1} << 29;
  static constexpr U32 kCollected = U32{1} << 28;
  static constexpr U32 kInitialized = U32{1} << 27;
  static constexpr U32 kCountMask = kInitialized - 1;

  bool flag(U32 bit) const { return (word_.load(std::memory_order_relaxed) & bit) != 0; }
  void flagIs(U32 bit, bool on) const {
    if (!enableThreadSafePointers) {
      const U32 word = word_.load(std::memory_order_relaxed);
      word_.store(on ? word | bit : word & ~bit, std::memory_order_relaxed);
    } else if (on) {
      word_.fetch_or(bit, std::memory_order_relaxed);
    } else {
      word_.fetch_and(~bit, std::memory_order_relaxed);
    }
  }
  void free() const noexcept;

  mutable std::atomic<U32> word_{1};
};

}  // namespace Kiv
