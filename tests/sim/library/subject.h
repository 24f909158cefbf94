// The library under test: live entities, the root machine over them, the loop and a clock that
// stands still. Driven through the public entities as a host agent would, and read back as facts.
#pragma once

#include <memory>
#include <string>

#include "tests/sim/library/facts.h"
#include "tests/sim/library/plan.h"

namespace sim {

class ForeignNotifiees;

class Subject {
 public:
  Subject(bool toggleOn, double timeout);
  ~Subject();
  Subject(const Subject&) = delete;
  Subject& operator=(const Subject&) = delete;

  // Change
  void apply(const Operation& operation);
  // Runs the loop until idle.
  void idle();
  void timeoutIs(double seconds);
  // Moves the clock, firing each timer at its own time.
  void advance(double seconds);
  // Calls a mutator as it must not be called; returns what is wrong with the answer.
  std::string misuse(int which);

  // Faults
  // Connects foreign notifiees to some of the entities.
  void visitedBy(ForeignNotifiees& foreign);
  // apply(), unless what the operation is about has gone.
  void applyIfThere(const Operation& operation);
  // Takes out the port binding that comes after so many others, around and around; or one of its
  // bindings only. Does nothing when there is none.
  void removeOne(int number, bool whole);
  // Takes out every port binding, and when the loop has run everything else.
  void removeAll();

  // What is published.
  Picture picture() const;
  // What a second root machine publishes over the same inputs and fresh outputs.
  Picture rebuilt() const;

 private:
  struct World;
  std::unique_ptr<World> world_;
};

// The objects of the library that are alive, by their type: "OpenStack::Region: 1", a line each.
std::string liveObjects();
// The same without entries of the outputs that the machines never delete.
std::string liveObjectsThatGo();

}  // namespace sim
