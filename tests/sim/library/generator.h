// Makes random streams of events from a seed.
//
// Nearly every patch keeps the rules, as each edit looks at the cloud that it changes; some break
// one, and must be refused. Properties of the whole stream are drawn first: how many regions,
// which kind of binding, whether VLANs are shared.
#pragma once

#include <functional>
#include <optional>
#include <random>

#include "tests/sim/library/event.h"

namespace sim {

class Generator {
 public:
  Generator(std::uint64_t seed, bool toggleOn);

  // So many events; the last two take everything away.
  Stream stream(int events);

 private:
  using Action = void (Generator::*)();
  // A binding, by where it stands.
  struct Spot {
    int region, port;
    Place place;
  };

  // Chance
  int below(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }
  bool oneIn(int count) { return below(count) == 0; }
  template <class Items>
  const auto& anyOf(const Items& items) {
    return *std::next(std::begin(items), below(static_cast<int>(std::size(items))));
  }

  // Events
  Event event();
  Event patch();
  Event advance();
  Event removals(bool bindingsOnly);

  // Edits: each looks at cloud_ with the edits so far, and adds its own.
  void edit(const Edit& edit);
  void addRegion();
  void dropRegion();
  void addSegment();
  void dropSegment();
  void replaceSegment();
  void addPort();
  void dropPort();
  void changeVlanType();
  void bindHost();
  void bindSwitch();
  void unbind();
  void dropPortBinding();
  void moveHost();
  void moveHostToRegion();
  void changeRemoteHost();
  void addLevel();
  void dropLevel();
  void changeLevel();
  void disturbVxlan();
  void swapLevels();
  void switchKind();
  void moveRegion();
  void writeDriver();
  void setVlanEntry();
  void dropVlanEntry();
  void addAssignment();
  void dropAssignment();
  void requestLock();
  void writeStatus();
  void writeHeartbeat();

  // Looking around
  std::optional<int> someRegion();
  std::optional<Spot> someSpot(std::optional<bool> onHost = std::nullopt);
  const Binding& at(const Spot& spot) const;
  int somePort(int region);
  int someHost(int region, bool onHost);
  std::optional<int> freeSegment(int region, const Binding& binding, std::optional<int> type);
  Edit newSegment(int region, int id);
  void addLevels(const Spot& spot);
  void level(const Spot& spot, int level, std::optional<int> segment);
  static bool bindsOther(const PortBinding& places, bool onHost);

  std::mt19937_64 random_;
  std::uint64_t seed_;
  bool toggleOn_;
  int regions_;
  bool sharesVlans_;
  double timeout_;
  // Edits that come next, a patch each, between others.
  std::vector<std::vector<Edit>> nextEdits_;
  std::vector<Action> actions_;
  Cloud cloud_;              // as the edits so far leave it
  std::vector<Edit> edits_;  // of the patch that is being made
};

}  // namespace sim
