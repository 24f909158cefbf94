// A disk in memory below SQLite, as one of its VFSs: it fails and delays when it is asked to, and
// knows what a crash leaves.
//
//   SimulatedDisk disk("disk", world);
//   Journal journal(folder, {.vfs = disk.name(), ...}, callbacks);
//   disk.faultIs(SimulatedDisk::Fault::kFull);
//   disk.processEnds(true);
//
// A write is in the cache until its file is synced. A crash of the process leaves the cache; when
// the power fails, any part of what is in it is lost, in sectors of 512 bytes. After a sync that
// failed the writes before it stay in the cache, and a later sync may leave them there for good,
// as Linux does.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "tests/sim/live/world.h"

namespace sim {

class SimulatedDisk {
 public:
  enum class Fault : uint8_t {
    kNone,
    kFull,      // writes find no space
    kTornFull,  // likewise, after half of the bytes
    kWriteFails,
    kTornWrite,  // a write fails after half of its bytes
    kSyncFails,
    kDead,  // nothing works: the process has crashed
  };

  SimulatedDisk(std::string name, World& world);
  ~SimulatedDisk();
  SimulatedDisk(const SimulatedDisk&) = delete;
  SimulatedDisk& operator=(const SimulatedDisk&) = delete;

  const std::string& name() const { return name_; }

  // From now on, after `spared` more writes or syncs that would have failed.
  void faultIs(Fault fault, int spared = 0);
  Fault fault() const { return fault_; }

  // Called before each write and each sync: what happens while it takes its time.
  void onOperationIs(std::function<void(bool isSync)> hook) { onOperation_ = std::move(hook); }

  // The process has ended, with the power or without; no file is open. The disk works again.
  void processEnds(bool powerFails);

  struct Content;

 private:
  struct File;
  struct Methods;

  bool fails(bool isSync);

  const std::string name_;
  World& world_;
  sqlite3_vfs vfs_{};
  std::function<void(bool)> onOperation_;
  Fault fault_ = Fault::kNone;
  int spared_ = 0;
  std::map<std::string, std::shared_ptr<Content>> files_;
};

}  // namespace sim
