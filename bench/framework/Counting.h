// What the benchmarks of the framework observe and call. The classes that are called are defined
// out of sight of their callers, so that each call is a virtual one.
#pragma once

#include <cstdint>
#include <memory>

#include "framework/Attribute.h"

namespace bench {

// An entity that can be observed.
class Subject final : public Kiv::Entity<Subject> {
 public:
  static constexpr std::string_view kTypeName = "bench::Subject";

  class NotifieeConst : public Kiv::Notifiee<Subject> {
   public:
    virtual void onKey(Kiv::U32 /*key*/) {}
    virtual void onKeykivImmediate() {}
    // The sum of what it was called with.
    virtual std::uint64_t sum() const = 0;
  };
};

// Connects a new notifiee to the subject.
Kiv::Ptr<Subject::NotifieeConst> observe(const Kiv::Ptr<Subject>& subject);

// The same without a framework.
class Observer {
 public:
  virtual ~Observer() = default;
  virtual void onKey(std::uint32_t key) = 0;
  virtual void onChange() = 0;
};

// Makes one that adds up likewise.
std::unique_ptr<Observer> makeObserver();

}  // namespace bench
