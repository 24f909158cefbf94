// The pending notifications of the activity loop: a first-in, first-out queue without duplicates.
//
// Technique: a ring buffer, and over it an index of hash chains, as data compressors keep one over
// their window. Each entry has a number, one more than that of the entry before it; its index in
// the ring is the number modulo the ring's size. newest_[hash] is the number of the newest entry
// with that hash, previous_[index] that of the one before it in its chain. Taking out the oldest
// entry does not touch the index: a number outside [first_, end_) is known to be dangling.
//
// An entry is three words: the notifiee, the handler (PackedHandler), and the key. A key that is an
// integer, a Name or String, or of no more than eight bytes that may be copied as such, is in its
// word. For any other key, and for a handler that cannot be packed, the word points to a box that
// holds both. The CallKind, which the handler leads to, knows which of these it is: it is the
// entry's table of functions.
//
// Invariants:
//   - The entries are those with the numbers in [first_, end_); never two that are the same call.
//   - The ring's size is a power of two, and at least end_ - first_. The index has twice as many
//     buckets.
//   - The numbers of a chain fall. A chain ends at the first number that is dangling.
//   - Of each run of neighbours with the same notifiee, the last holds one reference to it. last_
//     is the notifiee of the last run.
//
// Costs: queueing and delivering take constant time, amortised over the doubling of the ring, and
// allocate nothing but boxes and the ring. A pending notification takes 36 bytes. The ring shrinks
// only when the loop has emptied it.
#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "framework/Notifiee.h"
#include "framework/Text.h"
#include "framework/detail/PackedHandler.h"

namespace [[gnu::visibility("default")]] Kiv {

// The type in which a handler gets a key: integers by value, everything else by reference.
template <class K>
using KeyArgument = std::conditional_t<std::integral<K>, K, const K&>;

namespace detail {

// What can be done with the key word of an entry, and how its handler is called.
struct CallKind {
  void (*deliver)(NotifieeBase&, PackedHandler, U64 key);  // calls the handler, and drops the key
  bool (*same)(U64 a, U64 b);      // whether the calls are the same; null: when the words are
  U32 (*hash)(U64 key);            // null: the word
  void (*drop)(U64 key) noexcept;  // frees what the word holds; null: nothing
};

// One pending notification.
struct Pending {
  NotifieeBase* notifiee;
  PackedHandler handler;
  U64 key;  // a word, as the handler's CallKind understands it
};

// The hash of a key in the index: of those that it offers, the one that is cheapest to have.
template <class K>
U32 pendingHash(const K& key) {
  if constexpr (std::integral<K>) {
    return static_cast<U32>(key);
  } else if constexpr (requires { key.order(); }) {
    return key.order();
  } else {
    return kivHash(key);
  }
}

// A key in a word. word() is the word of a key and of each copy of it; keep() makes the copy that
// the word stands for, take() hands that copy out. A Borrowed shows the copy without
// taking it. Here for keys whose bytes are their value.
template <class K>
struct KeyWord {
  static constexpr bool kFits = sizeof(K) <= sizeof(U64) && std::is_trivially_copyable_v<K>;

  class Borrowed {
   public:
    explicit Borrowed(U64 word) : key_(take(word)) {}
    const K& key() const { return key_; }

   private:
    K key_;
  };

  static U64 word(const K& key) {
    U64 word = 0;
    std::memcpy(&word, &key, sizeof(key));
    return word;
  }
  static void keep(const K& /*key*/) {}
  static K take(U64 word) {
    std::array<std::byte, sizeof(K)> bytes;
    std::memcpy(bytes.data(), &word, sizeof(bytes));
    return std::bit_cast<K>(bytes);
  }
  static void drop(U64 /*word*/) noexcept {}
};

// The shared characters of a string as a word.
class TextWord {
 public:
  static U64 of(const Text& text) { return reinterpret_cast<std::uintptr_t>(text.rep_); }
  // Takes a reference more.
  static void keep(const Text& text) { text.inc(); }
  // Gives an empty string the characters, and one reference to them.
  static void set(Text& text, U64 word) {
    text.rep_ = reinterpret_cast<const Text::Rep*>(static_cast<std::uintptr_t>(word));
  }
  // Empties the string without dropping its reference.
  static void forget(Text& text) { text.rep_ = nullptr; }
};

// The same for strings: the word is the address of the shared characters.
template <std::derived_from<Text> K>
struct KeyWord<K> {
  static constexpr bool kFits = true;

  class Borrowed {
   public:
    explicit Borrowed(U64 word) { TextWord::set(key_, word); }
    ~Borrowed() { TextWord::forget(key_); }
    Borrowed(const Borrowed&) = delete;
    Borrowed& operator=(const Borrowed&) = delete;
    const K& key() const { return key_; }

   private:
    K key_;
  };

  static U64 word(const K& key) { return TextWord::of(key); }
  static void keep(const K& key) { TextWord::keep(key); }
  static K take(U64 word) {
    K key;
    TextWord::set(key, word);
    return key;
  }
  static void drop(U64 word) noexcept { (void)take(word); }
};

// A packed handler without a key.
template <class N>
struct PlainCall {
  static void deliver(NotifieeBase& notifiee, PackedHandler handler, U64) {
    (static_cast<N&>(notifiee).*handler.member<void (N::*)()>())();
  }
  static constexpr CallKind kind{&deliver, nullptr, nullptr, nullptr};
};

// A packed handler with an integer.
template <class N, class K>
struct IntegerCall {
  static U64 word(K key) { return static_cast<U64>(key); }
  static void keep(K) {}
  static void deliver(NotifieeBase& notifiee, PackedHandler handler, U64 key) {
    (static_cast<N&>(notifiee).*handler.member<void (N::*)(K)>())(static_cast<K>(key));
  }
  static constexpr CallKind kind{&deliver, nullptr, nullptr, nullptr};
};

// A packed handler with any other key that fits into a word.
template <class N, class K>
struct WordCall {
  using Word = KeyWord<K>;
  static U64 word(const K& key) { return Word::word(key); }
  static void keep(const K& key) { Word::keep(key); }
  static void deliver(NotifieeBase& notifiee, PackedHandler handler, U64 word) {
    const K key = Word::take(word);
    (static_cast<N&>(notifiee).*handler.member<void (N::*)(const K&)>())(key);
  }
  static bool same(U64 a, U64 b) {
    return typename Word::Borrowed(a).key() == typename Word::Borrowed(b).key();
  }
  static U32 hash(U64 word) { return pendingHash(typename Word::Borrowed(word).key()); }
  static void drop(U64 word) noexcept { Word::drop(word); }
  static constexpr CallKind kind{&deliver, &same, &hash, &drop};
};

// Any handler, without a key or with some, in a box.
template <class N, class... K>
struct BoxedCall {
  struct Box {
    void (N::*handler)(KeyArgument<K>...);
    std::tuple<K...> key;
  };

  static Box* box(U64 word) { return reinterpret_cast<Box*>(static_cast<std::uintptr_t>(word)); }
  static U64 word(const Box* box) { return reinterpret_cast<std::uintptr_t>(box); }
  static void deliver(NotifieeBase& notifiee, PackedHandler, U64 word) {
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
    return std::apply([](const K&... key) { return (U32{0} + ... + pendingHash(key)); },
                      box(word)->key);
  }
  static void drop(U64 word) noexcept { delete box(word); }
  static constexpr CallKind kind{&deliver, &same, &hash, &drop};
};

// The queue; see above.
class PendingQueue {
 public:
  PendingQueue() = default;
  PendingQueue(const PendingQueue&) = delete;
  PendingQueue& operator=(const PendingQueue&) = delete;
  ~PendingQueue();

  bool empty() const { return first_ == end_; }
  std::size_t size() const { return end_ - first_; }

  // Adds a call at the end, unless the same call is pending. Throws std::bad_alloc; the queue is
  // then as it was.
  template <class N>
  void push(N& notifiee, void (N::*handler)()) {
    if (!PackedHandler::packs(handler)) return pushBoxed<N>(notifiee, handler);
    (void)add(notifiee, PackedHandler(PlainCall<N>::kind, handler), 0, 0);
  }
  template <class N, class K>
  void push(N& notifiee, void (N::*handler)(KeyArgument<K>), const K& key) {
    if constexpr (KeyWord<K>::kFits) {
      using Call = std::conditional_t<std::integral<K>, IntegerCall<N, K>, WordCall<N, K>>;
      if (!PackedHandler::packs(handler)) return pushBoxed<N, K>(notifiee, handler, key);
      const PackedHandler packed(Call::kind, handler);
      if (add(notifiee, packed, Call::word(key), pendingHash(key))) Call::keep(key);
    } else {
      pushBoxed<N, K>(notifiee, handler, key);
    }
  }

  // The number of the oldest entry, end() where there is none; and of the next one.
  U32 first() const { return first_; }
  U32 end() const { return end_; }
  // How many entries were taken out without being delivered, as the notifiee did not listen.
  U64 skipped() const { return skipped_; }
  // How many calls were not added, as the same was pending.
  U64 coalesced() const { return coalesced_; }
  // Removes what was added since end() was this number. REQUIRES: nothing was delivered since.
  [[gnu::cold]] void removeSince(U32 end) noexcept;

  // Removes the entries from the first on, also those that are added meanwhile, and delivers each
  // whose notifiee listens. What a handler throws passes through; the other entries stay. REQUIRES:
  // not called from a handler that it calls.
  void deliverAll() {
    for (U32 number = first_; number != end_;) {
      const Pending& first = at(number);
      NotifieeBase& notifiee = *first.notifiee;
      const PackedHandler handler = first.handler;
      const U64 key = first.key;
      first_ = ++number;
      if (number != end_ && at(number).notifiee == &notifiee) [[likely]] {
        deliver(notifiee, handler, key);
      } else {
        const EndOfRun hold(*this, notifiee);
        deliver(notifiee, handler, key);
      }
    }
  }

  // Frees the memory of a large burst. REQUIRES: empty.
  void shrink() {
    if (mask_ >= kSizeToKeep) freeRing();
  }

 private:
  static constexpr U32 kInitialSize = 64;
  static constexpr U32 kSizeToKeep = 1024;

  // The reference that the last entry of a run held, for the time of its delivery.
  class EndOfRun {
   public:
    EndOfRun(PendingQueue& queue, NotifieeBase& notifiee) : notifiee_(notifiee) {
      if (queue.empty()) queue.last_ = nullptr;
    }
    ~EndOfRun() { notifiee_.referencesDec(); }
    EndOfRun(const EndOfRun&) = delete;
    EndOfRun& operator=(const EndOfRun&) = delete;

   private:
    NotifieeBase& notifiee_;
  };
  void deliver(NotifieeBase& notifiee, PackedHandler handler, U64 key) {
    if (notifiee.listens()) [[likely]] {
      handler.kind().deliver(notifiee, handler, key);
    } else {
      ++skipped_;
      drop(handler, key);
    }
  }
  static void drop(PackedHandler handler, U64 key) noexcept {
    if (handler.kind().drop != nullptr) handler.kind().drop(key);
  }

  // The bucket of a call: the number of its newest entry. Integers that follow each other are
  // spread evenly.
  U32& newest(const NotifieeBase& notifiee, PackedHandler handler, U32 keyHash) const {
    constexpr U64 kSpread = 0x9e3779b99e3779b1U;
    const U64 whom = reinterpret_cast<std::uintptr_t>(&notifiee);
    const U64 mixed = (whom + handler.hash() + (static_cast<U64>(keyHash) << 32)) * kSpread;
    return newest_[mixed >> shift_];
  }
  // The bucket of an entry.
  U32& newest(const Pending& entry) const;
  Pending& at(U32 number) const { return ring_[number & mask_]; }
  // The number of the entry before this one in its chain; dangling where there is none.
  U32& previous(U32 number) const { return previous_[number & mask_]; }

  template <class N, class... K>
  [[gnu::cold, gnu::noinline]] void pushBoxed(N& notifiee, void (N::*handler)(KeyArgument<K>...),
                                              const K&... key) {
    using Call = BoxedCall<N, K...>;
    std::unique_ptr<typename Call::Box> box(new typename Call::Box{handler, {key...}});
    const U64 word = Call::word(box.get());
    if (add(notifiee, PackedHandler(Call::kind), word, Call::hash(word))) (void)box.release();
  }
  // Adds an entry, unless the same call is pending; returns whether it did. What is not usual is in
  // functions of their own, which are called last, so that the usual case needs no stack frame.
  [[gnu::hot]] bool add(NotifieeBase& notifiee, PackedHandler handler, U64 key, U32 keyHash);
  [[gnu::hot, gnu::noinline]] bool addUnlessPending(NotifieeBase& notifiee, PackedHandler handler,
                                                    U64 key, U32 keyHash);
  [[gnu::noinline]] bool addAtLimit(NotifieeBase& notifiee, PackedHandler handler, U64 key,
                                    U32 keyHash);
  bool append(U32& newest, NotifieeBase& notifiee, PackedHandler handler, U64 key);
  void grow();
  void freeRing();

  std::unique_ptr<Pending[]> ring_;  // the entries, by number
  std::unique_ptr<U32[]> previous_;  // the chains, by number
  std::unique_ptr<U32[]> newest_;    // their beginnings, by hash; twice as many
  U32 mask_ = 0;                     // the ring's size, less one
  U32 shift_ = 0;                    // shifts a hash down to a bucket
  U32 first_ = 1;                    // the oldest entry; 0 is no entry's number, but after 2^32
  U32 end_ = 1;                      // the number of the next entry
  U32 limit_ = 1;                    // the number at which the ring may be full
  NotifieeBase* last_ = nullptr;     // of the last run; null when the queue is empty
  U64 skipped_ = 0;
  U64 coalesced_ = 0;
};

}  // namespace detail
}  // namespace Kiv
