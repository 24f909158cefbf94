// The model: what the library must publish for a cloud.
//
// Deliberately unlike the machines: there are no machines, reactors
// or notifications in it. What each binding asks for is worked out from nothing each time, from the
// bindings as they stand; only what depends on the past is remembered, and those are few things:
// entries that are never deleted, the hosts once seen behind a switch port, the last native VLAN,
// VLANs of a pool that were counted once, and a region's sync status, lock and timer.
#pragma once

#include <limits>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "tests/sim/library/facts.h"
#include "tests/sim/library/plan.h"

namespace sim {

class Model {
 public:
  static constexpr double kNever = std::numeric_limits<double>::infinity();

  Model(bool toggleOn, double timeout) : toggleOn_(toggleOn), timeout_(timeout) {}

  // Change
  void beginEvent() { stamped_.clear(); }
  // One operation of a phase.
  void apply(const Operation& operation);
  // The end of a phase: what waits for the activity loop.
  void idle();
  void timeoutIs(double seconds) { timeout_ = seconds; }
  // Moves the time, and lets every timer that is due by then expire.
  void advance(double seconds);

  // What must be published, all but the natives and the UUIDs.
  std::vector<Fact> facts() const;
  // What the native VLAN of each switch port or interface may be. Where several are allowed
  // there are several; nativeIs() settles it as the library did.
  const std::map<Place, std::set<unsigned>>& natives() const { return natives_; }
  void nativeIs(const Place& place, unsigned vlan) { natives_[place] = {vlan}; }
  // The regions whose assignment got a new UUID in this event, and those that have one at all.
  const std::set<int>& stamped() const { return stamped_; }
  bool hasUuid(int region) const { return regions_.at(region).hasUuid; }

 private:
  // One binding, as the machines are to see it: with its segments, which it refers to even when
  // they have left their region.
  struct Bound {
    int host = 0;
    bool native = false;
    std::map<int, Segment> levels{};
    bool wrapped = false;  // the VXLAN at level 255 has mapped the VLAN at level 0
  };
  using Key = std::tuple<int, int, Place>;  // region, port, place

  struct Region {
    std::map<int, Segment> segments;
    std::map<int, int> ports;
    std::set<unsigned> assigned, available, allocated;
    bool hasUuid = false;
    int requester = 0, request = 0, wanted = 0;             // what the driver wrote
    int status = 0, oldStatus = 0, owner = 0, granted = 0;  // what it is answered
    double deadline = kNever;
  };

  // Bindings
  void withdraw(const Key& key);
  void withdrawAll(int region, int port);
  void withdrawLevel(const Key& key, int level);
  void withdrawInterface(const Key& key, int host);
  bool usesElement(int exceptPort, int element) const;
  bool carriesVlan(const Place& place) const;
  void publishNew();
  void publishNatives();
  void publishWrapped(Bound& bound);
  static bool hasNames(const Place& place);
  static const Segment* at(const Bound& bound, int level);
  void tell(const Key& key, const Bound& bound, std::vector<Fact>& facts) const;
  void tellVlans(const Key& key, const Bound& bound, std::vector<Fact>& facts) const;
  void tellPast(std::vector<Fact>& facts) const;

  // Pools
  void refill(int region);
  void entryChanged(int region, int vlan);
  void driverChanged();
  void segmentGone(Region& region, const Segment& segment);
  void segmentCame(Region& region, const Segment& segment);

  // Sync
  void lockRequested(Region& region);
  void syncStatusWritten(Region& region);
  void timedOut(Region& region);

  bool toggleOn_;
  double timeout_;
  double now_ = 0;
  int driver_ = 0;
  std::map<int, Assignment> assignments_;
  std::map<int, Region> regions_;
  std::map<Key, Bound> bound_;

  // What the activity loop has not seen yet.
  std::vector<Operation> waiting_;
  std::set<int> newRegions_;
  std::set<std::pair<Key, int>> newLevels_;

  // The past
  std::set<int> hosts_;                         // with an entry, which stays
  std::set<int> elements_;                      // likewise
  std::set<int> named_;                         // elements that were a host
  std::map<Place, std::set<int>> remoteHosts_;  // of a switch port, since it has an entry
  std::map<Place, std::set<int>> configured_;   // of an interface that has an entry
  std::map<Place, std::set<unsigned>> natives_;
  std::set<int> stamped_;
};

}  // namespace sim
