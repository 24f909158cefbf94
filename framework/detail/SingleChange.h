// The change of one member that a collection is notifying of.
//
// A collection opens a SingleChange for the time of its mutator, immediate notifications included.
// An observer that mirrors the collection and was synchronised just before that change then looks
// at one member and not at all of them; it asks the collection (Collection::singleChangeSince).
// Changes nest, as an immediate handler may make another; the inner one hides the outer one, and
// after it the outer one of the same collection is not its only change any more. Activity thread
// only.
#pragma once

#include "framework/Integers.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

class SingleChange {
 public:
  // Opens the change of the member with `key` in `collection`, whose version was `before`.
  // REQUIRES: both outlive this object.
  SingleChange(const void* collection, U64 before, const void* key)
      : collection_(collection), key_(key), before_(before), outer_(innermost_) {
    innermost_ = this;
  }
  ~SingleChange() {
    innermost_ = outer_;
    // An outer change of this collection is no single one any more, whoever missed this one.
    for (SingleChange* change = outer_; change != nullptr; change = change->outer_) {
      if (change->collection_ == collection_) change->before_ = kNoVersion;
    }
  }
  SingleChange(const SingleChange&) = delete;
  SingleChange& operator=(const SingleChange&) = delete;

  // The key of the innermost open change, when it is one of `collection` and the first since this
  // version; else null.
  static const void* keySince(const void* collection, U64 version) {
    const SingleChange* change = innermost_;
    if (change == nullptr || change->collection_ != collection || change->before_ != version) {
      return nullptr;
    }
    return change->key_;
  }

 private:
  static constexpr U64 kNoVersion = ~U64{0};

  inline static constinit SingleChange* innermost_ = nullptr;

  const void* collection_;
  const void* key_;
  U64 before_;
  SingleChange* outer_;
};

}  // namespace detail
}  // namespace Kiv
