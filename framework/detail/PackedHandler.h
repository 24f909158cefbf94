// PackedHandler: which handler of a notifiee is to be called, and how, in one word.
//
// The one file that knows how the compiler lays out virtual functions and addresses; the common C++
// ABI of g++ and clang on 64-bit x86 and ARM. It uses that for two things:
//
//   - A pointer to a virtual member function is the offset of its vtable slot. Beside the address
//     of a CallKind, which has at most 48 bits, a slot fits into one word.
//   - Whether a class has overridden a handler shows in the vtable: its slot holds another address
//     than that of a class that overrides nothing. So a notification that would end in an empty
//     handler is not queued.
//
// On other platforms, or with the build option OPENSTACKSM_PORTABLE_HANDLERS, the second version
// below replaces it. It packs no handler, so that the queue keeps each as an ordinary pointer
// to a member in a box of its own, and regards each as overridden. Observers see no difference,
// except that ActivityManager::waiting() counts calls of empty handlers, too. The library and
// whoever includes its headers must agree on the version; if they do not, they do not link.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "framework/Integers.h"

#ifndef KIV_PORTABLE_HANDLERS
#if defined(__GXX_ABI_VERSION) && (defined(__x86_64__) || defined(__aarch64__)) && defined(__LP64__)
#define KIV_PORTABLE_HANDLERS 0
#else
#define KIV_PORTABLE_HANDLERS 1
#endif
#endif

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

struct CallKind;

#if !KIV_PORTABLE_HANDLERS

inline namespace abi {

class PackedHandler {
 public:
  // Whether handlers can be packed at all, and whether overridden() knows the answer.
  static constexpr bool kPacks = true;

  // Whether this handler can be packed: a virtual one of the object's first base, among the first
  // 8191 of its class.
  template <class Handler>
  static bool packs(Handler handler) {
    return slotOf(handler) != 0;
  }

  // Packs a handler and how it is called. REQUIRES: packs(handler).
  template <class Handler>
  PackedHandler(const CallKind& kind, Handler handler) : PackedHandler(kind, slotOf(handler)) {}
  // How it is called alone, where that says which handler.
  explicit PackedHandler(const CallKind& kind) : PackedHandler(kind, U32{0}) {}
  PackedHandler() = default;

  // How it is called.
  const CallKind& kind() const {
    return *reinterpret_cast<const CallKind*>(static_cast<std::uintptr_t>(word_ & kAddress));
  }
  // The handler. REQUIRES: it was packed, as one of this type.
  template <class Handler>
  Handler member() const {
    const Parts parts = partsOf((word_ >> kAddressBits) & ~kTaken);
    Handler handler;
    static_assert(sizeof(parts) == sizeof(handler));
    std::memcpy(&handler, &parts, sizeof(parts));
    return handler;
  }
  U64 hash() const { return word_; }
  friend bool operator==(PackedHandler, PackedHandler) = default;

  // Whether the notifiee's class has overridden the handler; also true where that is not known.
  // `unsubscribed` is an object of a class that overrides nothing; null where there is none.
  template <class N, class Handler>
  static bool overridden(const N& notifiee, const N* unsubscribed, Handler handler) {
    const U32 slot = slotOf(handler);
    return slot == 0 || unsubscribed == nullptr ||
           functionAt(notifiee, slot) != functionAt(*unsubscribed, slot);
  }

 private:
  static constexpr unsigned kAddressBits = 48;
  static constexpr U64 kAddress = (U64{1} << kAddressBits) - 1;
  static constexpr U32 kTaken = 1;  // set in each slot, as an offset may be 0

  PackedHandler(const CallKind& kind, U32 slot) {
    const auto address = reinterpret_cast<std::uintptr_t>(&kind);
    if (address > kAddress) [[unlikely]]
      failAddress();
    word_ = U64{slot} << kAddressBits | address;
  }
  // Stops the process, as the address takes more than 48 bits.
  [[noreturn, gnu::cold]] static void failAddress();

  // What a pointer to a member function is made of: for a virtual one the offset of its slot in the
  // vtable, in bytes, and the offset of the base that declares it, which is 0 for the first. x86
  // marks it as virtual in the first part, ARM in the second.
  struct Parts {
    std::uintptr_t pointer;
    std::ptrdiff_t adjustment;
  };
#if defined(__aarch64__)
  static constexpr bool isVirtual(Parts parts) {
    return parts.adjustment == 1;
  }
  static constexpr Parts partsOf(std::uintptr_t offset) {
    return {offset, 1};
  }
#else
  static constexpr bool isVirtual(Parts parts) {
    return parts.adjustment == 0 && (parts.pointer & 1) != 0;
  }
  static constexpr Parts partsOf(std::uintptr_t offset) {
    return {offset | 1, 0};
  }
#endif

  // The slot of a handler, with kTaken; 0 for one that cannot be packed.
  template <class Handler>
  static U32 slotOf(Handler handler) {
    Parts parts;
    static_assert(sizeof(parts) == sizeof(handler));
    std::memcpy(&parts, &handler, sizeof(parts));
    const bool near = parts.pointer >> (64 - kAddressBits) == 0;
    return isVirtual(parts) && near ? static_cast<U32>(parts.pointer) | kTaken : 0;
  }
  // What the object's vtable holds in a slot.
  template <class N>
  static const void* functionAt(const N& object, U32 slot) {
    const char* vtable = nullptr;
    std::memcpy(&vtable, static_cast<const void*>(&object), sizeof(vtable));
    const void* function = nullptr;
    std::memcpy(&function, vtable + (slot & ~kTaken), sizeof(function));
    return function;
  }

  U64 word_;
};

}  // namespace abi

#else

inline namespace portable {

class PackedHandler {
 public:
  static constexpr bool kPacks = false;

  // As no handler can be packed, the constructor from one and member() are never called.
  template <class Handler>
  static constexpr bool packs(Handler /*handler*/) {
    return false;
  }
  template <class Handler>
  PackedHandler(const CallKind& kind, Handler /*handler*/) : kind_(&kind) {}
  explicit PackedHandler(const CallKind& kind) : kind_(&kind) {}
  PackedHandler() = default;

  const CallKind& kind() const { return *kind_; }
  template <class Handler>
  Handler member() const {
    return nullptr;
  }
  U64 hash() const { return static_cast<U64>(reinterpret_cast<std::uintptr_t>(kind_)); }
  friend bool operator==(PackedHandler, PackedHandler) = default;

  template <class N, class Handler>
  static bool overridden(const N& /*notifiee*/, const N* /*unsubscribed*/, Handler /*handler*/) {
    return true;
  }

 private:
  const CallKind* kind_;
};

}  // namespace portable

#endif

}  // namespace detail
}  // namespace Kiv
