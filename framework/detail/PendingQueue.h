// The notifications that wait for the activity loop: a ring of small entries, and a table in which
// one that waits already is found.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <tuple>
#include <type_traits>
#include <utility>

#include "framework/Notifiee.h"
#include "framework/Text.h"
#include "framework/detail/Overrider.h"

namespace [[gnu::visibility("default")]] Kiv {

// How a handler takes a key: integers by value, everything else by reference.
template <class K>
using KeyArgument = std::conditional_t<std::integral<K>, K, const K&>;

namespace detail {

// What differs between handlers. Where a key is all in its word, there is little to call.
struct CallKind {
  void (*deliver)(NotifieeBase&, U64 key, U64 place);  // calls the handler, and drops the key
  bool (*same)(U64 a, U64 b);                          // whether keys are; null: as the words are
  U32 (*hash)(U64 key);                                // null: the word
  void (*drop)(U64 key) noexcept;                      // null: nothing is to be done
};

// A kind of handler, and the place of the one that is meant, in one word: addresses of static data
// have no more than 48 bits.
class Callee {
 public:
  Callee() = default;
  Callee(const CallKind& kind, U32 place)
      : word_(static_cast<U64>(place) << 48 | reinterpret_cast<std::uintptr_t>(&kind)) {}

  const CallKind& kind() const {
    return *reinterpret_cast<const CallKind*>(static_cast<std::uintptr_t>(word_ << 16 >> 16));
  }
  U64 place() const { return word_ >> 48; }
  U64 hash() const { return word_; }
  friend bool operator==(Callee, Callee) = default;

 private:
  U64 word_;
};

// One notification that waits.
struct Pending {
  NotifieeBase* notifiee;  // held once by those that stand next to each other
  Callee callee;
  U64 key;  // a word, which the kind understands
};

// The hash of a key among what waits: of those that it has, the one that takes nothing to compute.
template <class K>
U32 waitingHash(const K& key) {
  if constexpr (std::integral<K>) {
    return static_cast<U32>(key);
  } else if constexpr (requires { key.order(); }) {
    return key.order();
  } else {
    return kivHash(key);
  }
}

// A virtual handler without a key.
template <class N>
struct PlainCall {
  static void deliver(NotifieeBase& notifiee, U64, U64 place) {
    (static_cast<N&>(notifiee).*handlerAt<void (N::*)()>(place))();
  }
  static constexpr CallKind kind{&deliver, nullptr, nullptr, nullptr};
};

// A virtual handler with an integer.
template <class N, class K>
struct IntegerCall {
  static U64 word(K key) { return static_cast<U64>(key); }
  static void keep(K) {}
  static void deliver(NotifieeBase& notifiee, U64 key, U64 place) {
    (static_cast<N&>(notifiee).*handlerAt<void (N::*)(K)>(place))(static_cast<K>(key));
  }
  static constexpr CallKind kind{&deliver, nullptr, nullptr, nullptr};
};

// A virtual handler with a key that fits into a word, and may move as its bytes.
template <class N, class K>
struct WordCall {
  static constexpr bool kFits = sizeof(K) <= sizeof(U64) && alignof(K) <= alignof(U64) &&
                                (std::is_trivially_copyable_v<K> || std::derived_from<K, Text>);

  // A key that is in a word.
  class Held {
   public:
    explicit Held(U64 word) { std::memcpy(room_, &word, sizeof(room_)); }
    K& key() { return *std::launder(reinterpret_cast<K*>(room_)); }

   private:
    alignas(K) std::byte room_[sizeof(K)];
  };

  // The word of a key, and of any copy of it.
  static U64 word(const K& key) {
    U64 word = 0;
    std::memcpy(&word, static_cast<const void*>(&key), sizeof(key));
    return word;
  }
  // Makes the copy that its word stands for.
  static void keep(const K& key) {
    alignas(K) std::byte room[sizeof(K)];
    new (room) K(key);
  }
  static void deliver(NotifieeBase& notifiee, U64 word, U64 place) {
    struct Dropped {
      K& key;
      ~Dropped() { key.~K(); }
    };
    Held held(word);
    const Dropped taken{held.key()};
    (static_cast<N&>(notifiee).*handlerAt<void (N::*)(const K&)>(place))(taken.key);
  }
  static bool same(U64 a, U64 b) { return Held(a).key() == Held(b).key(); }
  static U32 hash(U64 word) { return waitingHash(Held(word).key()); }
  static void drop(U64 word) noexcept { Held(word).key().~K(); }
  static constexpr CallKind kind{&deliver, &same, &hash, &drop};
};

// Any handler, with a key or without: both lie elsewhere.
template <class N, class... K>
struct BoxedCall {
  struct Box {
    void (N::*handler)(KeyArgument<K>...);
    std::tuple<K...> key;
  };

  static Box* box(U64 word) { return reinterpret_cast<Box*>(static_cast<std::uintptr_t>(word)); }
  static U64 word(const Box* box) { return reinterpret_cast<std::uintptr_t>(box); }
  static void deliver(NotifieeBase& notifiee, U64 word, U64) {
    const std::unique_ptr<Box> taken(box(word));
    call(static_cast<N&>(notifiee), *taken, std::index_sequence_for<K...>());
  }
  // g++'s sanitizer takes the base that declares the handler for an object of class N.
  template <std::size_t... I>
  __attribute__((no_sanitize("vptr"))) static void call(N& object, const Box& box,
                                                        std::index_sequence<I...>) {
    (object.*box.handler)(std::get<I>(box.key)...);
  }
  static bool same(U64 a, U64 b) {
    return box(a)->handler == box(b)->handler && box(a)->key == box(b)->key;
  }
  static U32 hash(U64 word) {
    return std::apply([](const K&... key) { return (U32{0} + ... + waitingHash(key)); },
                      box(word)->key);
  }
  static void drop(U64 word) noexcept { delete box(word); }
  static constexpr CallKind kind{&deliver, &same, &hash, &drop};
};

// The queue; see above.
//
// Each entry has a number, one more than that of the one before it. A bucket keeps the number of
// the youngest of its hash, and beside each entry stands that of the one before it; numbers of
// those that are gone are left where they are, and known by being out of range.
class PendingQueue {
 public:
  PendingQueue() = default;
  PendingQueue(const PendingQueue&) = delete;
  PendingQueue& operator=(const PendingQueue&) = delete;
  ~PendingQueue();

  bool empty() const { return first_ == end_; }
  std::size_t size() const { return end_ - first_; }

  // Puts a call at the end, unless the same one waits. Throws std::bad_alloc.
  template <class N>
  void push(N& notifiee, void (N::*handler)()) {
    const U32 place = placeOf(handler);
    if (place == 0) return pushBoxed<N>(notifiee, handler);
    (void)add(notifiee, {PlainCall<N>::kind, place}, 0, 0);
  }
  template <class N, class K>
  void push(N& notifiee, void (N::*handler)(KeyArgument<K>), const K& key) {
    using Call = std::conditional_t<std::integral<K>, IntegerCall<N, K>, WordCall<N, K>>;
    if constexpr (WordCall<N, K>::kFits) {
      const U32 place = placeOf(handler);
      if (place == 0) return pushBoxed<N, K>(notifiee, handler, key);
      const bool added = add(notifiee, {Call::kind, place}, Call::word(key), waitingHash(key));
      if (added) Call::keep(key);
    } else {
      pushBoxed<N, K>(notifiee, handler, key);
    }
  }

  // Takes out one after the other, also what is put in meanwhile, and delivers it to a notifiee
  // that listens. What a handler throws passes through; the rest waits. REQUIRES: not within
  // itself.
  void deliverAll() {
    for (U32 number = first_; number != end_;) {
      const Pending& first = at(number);
      NotifieeBase& notifiee = *first.notifiee;
      const Callee callee = first.callee;
      const U64 key = first.key;
      first_ = ++number;
      if (number != end_ && at(number).notifiee == &notifiee) [[likely]] {
        deliver(notifiee, callee, key);
      } else {
        const Hold hold(*this, notifiee);
        deliver(notifiee, callee, key);
      }
    }
  }

  // Gives back the memory that a burst has left. REQUIRES: empty.
  void shrink() {
    if (mask_ >= kSizeToKeep) freeRing();
  }

 private:
  static constexpr U32 kSizeAtFirst = 64;
  static constexpr U32 kSizeToKeep = 1024;

  // The reference on a notifiee that goes with the last of its entries that stand next to each
  // other: that one was taken out.
  class Hold {
   public:
    Hold(PendingQueue& queue, NotifieeBase& notifiee) : notifiee_(notifiee) {
      if (queue.empty()) queue.last_ = nullptr;
    }
    ~Hold() { notifiee_.referencesDec(); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    NotifieeBase& notifiee_;
  };
  static void deliver(NotifieeBase& notifiee, Callee callee, U64 key) {
    if (notifiee.listens()) [[likely]] {
      callee.kind().deliver(notifiee, key, callee.place());
    } else if (callee.kind().drop != nullptr) {
      callee.kind().drop(key);
    }
  }

  // The bucket of a call. Integers that follow each other are spread evenly.
  U32& youngest(const NotifieeBase& notifiee, Callee callee, U32 keyHash) const {
    constexpr U64 kSpread = 0x9e3779b99e3779b1U;
    const U64 whom = reinterpret_cast<std::uintptr_t>(&notifiee);
    const U64 mixed = (whom + callee.hash() + (static_cast<U64>(keyHash) << 32)) * kSpread;
    return youngest_[mixed >> shift_];
  }
  Pending& at(U32 number) const { return ring_[number & mask_]; }
  // The number of the one before it with such a hash; where there is none, one that was left
  // behind.
  U32& older(U32 number) const { return older_[number & mask_]; }

  template <class N, class... K>
  [[gnu::cold, gnu::noinline]] void pushBoxed(N& notifiee, void (N::*handler)(KeyArgument<K>...),
                                              const K&... key) {
    using Call = BoxedCall<N, K...>;
    std::unique_ptr<typename Call::Box> box(new typename Call::Box{handler, {key...}});
    const U64 word = Call::word(box.get());
    if (add(notifiee, {Call::kind, 0}, word, Call::hash(word))) (void)box.release();
  }
  // Adds an entry, unless it waits; returns whether it did. What is not usual is a function of its
  // own, and called last, so that the usual one needs no room on the stack.
  [[gnu::hot]] bool add(NotifieeBase& notifiee, Callee callee, U64 key, U32 keyHash);
  [[gnu::hot, gnu::noinline]] bool addUnlessWaiting(NotifieeBase& notifiee, Callee callee, U64 key,
                                                    U32 keyHash);
  [[gnu::noinline]] bool addAtLimit(NotifieeBase& notifiee, Callee callee, U64 key, U32 keyHash);
  bool append(U32& newest, NotifieeBase& notifiee, Callee callee, U64 key);
  void grow();
  void freeRing();

  std::unique_ptr<Pending[]> ring_;  // those that wait, by number
  std::unique_ptr<U32[]> older_;     // likewise
  std::unique_ptr<U32[]> youngest_;  // by hash; twice as many
  U32 mask_ = 0;                     // the size of the ring, a power of two, less one
  U32 shift_ = 0;                    // what brings a hash down to a bucket
  U32 first_ = 1;                 // the number of the first that waits; 0 is in no bucket's range
  U32 end_ = 1;                   // the number of the next to come
  U32 limit_ = 1;                 // the number at which the ring may be full
  NotifieeBase* last_ = nullptr;  // of the last that waits; null when none does
};

}  // namespace detail
}  // namespace Kiv
