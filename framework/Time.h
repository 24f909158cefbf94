// Time: monotonic seconds, from a source that the host installs.
//
// Time is an input: it does not advance within a turn of the activity loop, and in tests and
// replays it advances only when it is set (VirtualTime). Activity thread only.
#pragma once

namespace [[gnu::visibility("default")]] Kiv {

// A number of seconds: a point of the monotonic time, or a span of it.
using Seconds = double;

// The source of the time.
class TimeSource {
 public:
  virtual ~TimeSource() = default;
  // The monotonic time, in seconds; never less than it was.
  virtual Seconds now() const = 0;
};

// The time of the system's steady clock.
class SteadyTime final : public TimeSource {
 public:
  Seconds now() const override;
};

// A time that advances only when it is set.
class VirtualTime final : public TimeSource {
 public:
  Seconds now() const override { return now_; }
  // REQUIRES: not less than now().
  void nowIs(Seconds now) { now_ = now; }

 private:
  Seconds now_ = 0;
};

// The time that the framework and the machines use.
class System {
 public:
  // The current monotonic time. Within a turn of the activity loop it is that of the turn's start.
  static Seconds currentTime();

  // Installs a time source, which the caller keeps alive; null brings the steady clock back.
  static void timeSourceIs(const TimeSource* source);

 private:
  friend class ActivityManager;
  // Freezes currentTime(), until the matching call with false.
  static void frozenIs(bool frozen);
};

}  // namespace Kiv
