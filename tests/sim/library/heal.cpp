#include "tests/sim/library/heal.h"

#include "tests/sim/library/compare.h"
#include "tests/sim/library/model.h"

namespace sim {

std::vector<Fact> present(std::vector<Fact> facts, bool pools) {
  std::erase_if(facts, [&](const Fact& fact) {
    const bool entry = fact.kind == Fact::exists && fact.holder != Fact::switchPort;
    const bool pool = fact.kind >= Fact::assigned && fact.kind <= Fact::allocated;
    return entry || fact.kind == Fact::remoteHost || fact.kind == Fact::configured ||
           fact.kind == Fact::hostname || fact.kind >= Fact::syncStatus || (pool && !pools);
  });
  return facts;
}

void bindAnew(Subject& subject, const Cloud& cloud, bool toggleOn) {
  subject.removeAll();
  subject.apply({.kind = Operation::driverIs, .value = cloud.driver});
  subject.idle();
  for (const Phase& phase : planOf({}, cloud, {}, toggleOn)) {
    for (const Operation& operation : phase) subject.apply(operation);
    subject.idle();
  }
}

std::string healDifference(Subject& subject, const Cloud& cloud, bool toggleOn) {
  bindAnew(subject, cloud, toggleOn);
  Model fresh(toggleOn, 1);
  fresh.apply({.kind = Operation::driverIs, .value = cloud.driver});
  fresh.idle();
  for (const Phase& phase : planOf({}, cloud, {}, toggleOn)) {
    for (const Operation& operation : phase) fresh.apply(operation);
    fresh.idle();
  }
  const std::string found =
      difference(present(fresh.facts(), true), present(subject.picture().facts, true));
  return found.empty() ? leftDifference(subject) : "bound anew:\n" + found;
}

std::string leftDifference(Subject& subject) {
  subject.removeAll();
  const std::string found = difference({}, present(subject.picture().facts, true));
  return found.empty() ? found : "left behind:\n" + found;
}

}  // namespace sim
