#include "tests/sim/live/simulated_disk.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace sim {
namespace {

constexpr size_t kSector = 512;

struct Change {
  size_t offset = 0;
  std::string bytes;
  bool isTruncation = false;
};

void applyWhole(const Change& change, std::string& content) {
  if (change.isTruncation) {
    content.resize(change.offset, '\0');
    return;
  }
  const size_t end = change.offset + change.bytes.size();
  if (content.size() < end) content.resize(end, '\0');
  content.replace(change.offset, change.bytes.size(), change.bytes);
}

// Sector by sector, each or none.
void applyPart(const Change& change, std::string& content, World& world) {
  if (change.isTruncation) {
    if (world.once(2)) applyWhole(change, content);
    return;
  }
  for (size_t done = 0; done < change.bytes.size();) {
    const size_t place = change.offset + done;
    const size_t size = std::min(kSector - place % kSector, change.bytes.size() - done);
    if (!world.once(8)) applyWhole({place, change.bytes.substr(done, size), false}, content);
    done += size;
  }
}

}  // namespace

struct SimulatedDisk::Content {
  std::string synced;
  std::string present;
  std::vector<Change> changes;  // since the last sync
  std::vector<Change> stuck;    // a sync of them failed, and none will be made again

  // Locks of the file, and of its shared memory.
  int shared = 0;
  const void* writer = nullptr;  // reserved, pending or exclusive
  bool isExclusive = false;
  std::vector<std::unique_ptr<char[]>> regions;
  std::array<int, SQLITE_SHM_NLOCK> sharedSlots{};
  std::array<bool, SQLITE_SHM_NLOCK> exclusiveSlots{};
};

struct SimulatedDisk::File {
  sqlite3_file base;
  SimulatedDisk* disk;
  std::shared_ptr<Content>* content;
  int lock;
  unsigned sharedSlots;
  unsigned exclusiveSlots;
};

// What SQLite calls.
struct SimulatedDisk::Methods {
  static File* of(sqlite3_file* file) { return reinterpret_cast<File*>(file); }
  static Content& contentOf(sqlite3_file* file) { return **of(file)->content; }
  static SimulatedDisk* of(sqlite3_vfs* vfs) { return static_cast<SimulatedDisk*>(vfs->pAppData); }

  // Files.

  static int open(sqlite3_vfs* vfs, const char* path, sqlite3_file* file, int flags, int* out) {
    SimulatedDisk* disk = of(vfs);
    file->pMethods = nullptr;
    if (disk->fault_ == Fault::kDead) return SQLITE_CANTOPEN;
    File* own = of(file);
    own->disk = disk;
    own->content = new std::shared_ptr<Content>();
    own->lock = SQLITE_LOCK_NONE;
    own->sharedSlots = own->exclusiveSlots = 0;
    if (path == nullptr) {
      *own->content = std::make_shared<Content>();
    } else {
      auto& content = disk->files_[path];
      if (!content) content = std::make_shared<Content>();
      *own->content = content;
    }
    file->pMethods = methods();
    if (out != nullptr) *out = flags;
    return SQLITE_OK;
  }
  static int close(sqlite3_file* file) {
    File* own = of(file);
    unlock(file, SQLITE_LOCK_NONE);
    releaseSlots(own);
    delete own->content;
    return SQLITE_OK;
  }
  static int remove(sqlite3_vfs* vfs, const char* path, int) {
    SimulatedDisk* disk = of(vfs);
    if (disk->fault_ == Fault::kDead) return SQLITE_IOERR_DELETE;
    disk->files_.erase(path);
    return SQLITE_OK;
  }
  static int access(sqlite3_vfs* vfs, const char* path, int, int* out) {
    *out = of(vfs)->files_.contains(path) ? 1 : 0;
    return SQLITE_OK;
  }
  static int fullPath(sqlite3_vfs*, const char* path, int size, char* out) {
    sqlite3_snprintf(size, out, "%s", path);
    return SQLITE_OK;
  }
  static int randomness(sqlite3_vfs* vfs, int size, char* out) {
    for (int i = 0; i < size; ++i) out[i] = static_cast<char>(of(vfs)->world_.pick(0, 255));
    return size;
  }
  static int currentTime(sqlite3_vfs*, sqlite3_int64* milliseconds) {
    *milliseconds = 210'866'760'000'000 + now() / kMillisecond;
    return SQLITE_OK;
  }

  // Bytes.

  static int read(sqlite3_file* file, void* bytes, int size, sqlite3_int64 offset) {
    const std::string& content = contentOf(file).present;
    const auto begin = std::min(static_cast<size_t>(offset), content.size());
    const auto count = std::min(static_cast<size_t>(size), content.size() - begin);
    std::memcpy(bytes, content.data() + begin, count);
    if (count == static_cast<size_t>(size)) return SQLITE_OK;
    std::memset(static_cast<char*>(bytes) + count, 0, static_cast<size_t>(size) - count);
    return SQLITE_IOERR_SHORT_READ;
  }
  static void store(Content& content, Change change) {
    applyWhole(change, content.present);
    content.changes.push_back(std::move(change));
  }
  static int write(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset) {
    SimulatedDisk& disk = *of(file)->disk;
    if (disk.onOperation_) disk.onOperation_(false);
    std::string text(static_cast<const char*>(bytes), static_cast<size_t>(size));
    Content& content = contentOf(file);
    if (!disk.fails(false)) {
      store(content, {static_cast<size_t>(offset), std::move(text), false});
      return SQLITE_OK;
    }
    if (disk.fault_ == Fault::kTornFull || disk.fault_ == Fault::kTornWrite) {
      text.resize(text.size() / 2);
      store(content, {static_cast<size_t>(offset), std::move(text), false});
    }
    const bool isFull = disk.fault_ == Fault::kFull || disk.fault_ == Fault::kTornFull;
    return isFull ? SQLITE_FULL : SQLITE_IOERR_WRITE;
  }
  static int truncate(sqlite3_file* file, sqlite3_int64 size) {
    if (of(file)->disk->fault_ == Fault::kDead) return SQLITE_IOERR_TRUNCATE;
    store(contentOf(file), {static_cast<size_t>(size), {}, true});
    return SQLITE_OK;
  }
  static int sync(sqlite3_file* file, int) {
    SimulatedDisk& disk = *of(file)->disk;
    if (disk.onOperation_) disk.onOperation_(true);
    Content& content = contentOf(file);
    if (disk.fails(true)) {
      if (disk.fault_ != Fault::kDead && disk.world_.once(2)) {
        std::ranges::move(content.changes, std::back_inserter(content.stuck));
        content.changes.clear();
      }
      return SQLITE_IOERR_FSYNC;
    }
    for (const Change& change : content.changes) applyWhole(change, content.synced);
    content.changes.clear();
    return SQLITE_OK;
  }
  static int fileSize(sqlite3_file* file, sqlite3_int64* size) {
    *size = static_cast<sqlite3_int64>(contentOf(file).present.size());
    return SQLITE_OK;
  }

  // Locks.

  static int lock(sqlite3_file* file, int level) {
    File* own = of(file);
    Content& content = contentOf(file);
    if (own->lock >= level) return SQLITE_OK;
    const bool isForeign = content.writer != nullptr && content.writer != own;
    if (level == SQLITE_LOCK_SHARED) {
      if (isForeign && content.isExclusive) return SQLITE_BUSY;
      ++content.shared;
    } else {
      if (isForeign) return SQLITE_BUSY;
      if (level == SQLITE_LOCK_EXCLUSIVE && content.shared > 1) return SQLITE_BUSY;
      content.writer = own;
      content.isExclusive = level == SQLITE_LOCK_EXCLUSIVE;
    }
    own->lock = level;
    return SQLITE_OK;
  }
  static int unlock(sqlite3_file* file, int level) {
    File* own = of(file);
    Content& content = contentOf(file);
    if (own->lock <= level) return SQLITE_OK;
    if (own->lock > SQLITE_LOCK_SHARED) {
      content.writer = nullptr;
      content.isExclusive = false;
    }
    if (level == SQLITE_LOCK_NONE) --content.shared;
    own->lock = level;
    return SQLITE_OK;
  }
  static int isReserved(sqlite3_file* file, int* out) {
    *out = contentOf(file).writer != nullptr ? 1 : 0;
    return SQLITE_OK;
  }

  // Shared memory.

  static int mapShared(sqlite3_file* file, int region, int size, int extend, void volatile** out) {
    auto& regions = contentOf(file).regions;
    *out = nullptr;
    while (extend != 0 && regions.size() <= static_cast<size_t>(region)) {
      regions.push_back(std::make_unique<char[]>(static_cast<size_t>(size)));
    }
    if (static_cast<size_t>(region) < regions.size()) {
      *out = regions[static_cast<size_t>(region)].get();
    }
    return SQLITE_OK;
  }
  static int lockShared(sqlite3_file* file, int first, int count, int flags) {
    File* own = of(file);
    Content& content = contentOf(file);
    const bool isExclusive = (flags & SQLITE_SHM_EXCLUSIVE) != 0;
    for (int slot = first; slot < first + count; ++slot) {
      const auto at = static_cast<size_t>(slot);
      const unsigned bit = 1U << slot;
      if ((flags & SQLITE_SHM_UNLOCK) != 0) {
        if (isExclusive && (own->exclusiveSlots & bit) != 0) content.exclusiveSlots[at] = false;
        if (!isExclusive && (own->sharedSlots & bit) != 0) --content.sharedSlots[at];
        (isExclusive ? own->exclusiveSlots : own->sharedSlots) &= ~bit;
        continue;
      }
      const int ownShared = (own->sharedSlots & bit) != 0 ? 1 : 0;
      if (content.exclusiveSlots[at] || (isExclusive && content.sharedSlots[at] > ownShared)) {
        if (slot > first) {
          lockShared(file, first, slot - first, SQLITE_SHM_UNLOCK | SQLITE_SHM_EXCLUSIVE);
        }
        return SQLITE_BUSY;
      }
      if (isExclusive) content.exclusiveSlots[at] = true;
      if (!isExclusive && ownShared == 0) ++content.sharedSlots[at];
      (isExclusive ? own->exclusiveSlots : own->sharedSlots) |= bit;
    }
    return SQLITE_OK;
  }
  static void releaseSlots(File* own) {
    Content& content = **own->content;
    for (int slot = 0; slot < SQLITE_SHM_NLOCK; ++slot) {
      const auto at = static_cast<size_t>(slot);
      if ((own->exclusiveSlots >> slot & 1U) != 0) content.exclusiveSlots[at] = false;
      if ((own->sharedSlots >> slot & 1U) != 0) --content.sharedSlots[at];
    }
    own->exclusiveSlots = own->sharedSlots = 0;
  }
  static int unmapShared(sqlite3_file* file, int deletes) {
    releaseSlots(of(file));
    if (deletes != 0) contentOf(file).regions.clear();
    return SQLITE_OK;
  }

  static const sqlite3_io_methods* methods() {
    static const sqlite3_io_methods kMethods = {
        2,
        close,
        read,
        write,
        truncate,
        sync,
        fileSize,
        lock,
        unlock,
        isReserved,
        [](sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; },
        [](sqlite3_file*) { return static_cast<int>(kSector); },
        [](sqlite3_file*) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; },
        mapShared,
        lockShared,
        [](sqlite3_file*) {},
        unmapShared,
        nullptr,
        nullptr,
    };
    return &kMethods;
  }
};

SimulatedDisk::SimulatedDisk(std::string name, World& world)
    : name_(std::move(name)), world_(world) {
  vfs_.iVersion = 2;
  vfs_.szOsFile = static_cast<int>(sizeof(File));
  vfs_.mxPathname = 512;
  vfs_.zName = name_.c_str();
  vfs_.pAppData = this;
  vfs_.xOpen = Methods::open;
  vfs_.xDelete = Methods::remove;
  vfs_.xAccess = Methods::access;
  vfs_.xFullPathname = Methods::fullPath;
  vfs_.xRandomness = Methods::randomness;
  vfs_.xSleep = [](sqlite3_vfs*, int microseconds) { return microseconds; };
  vfs_.xCurrentTimeInt64 = Methods::currentTime;
  vfs_.xGetLastError = [](sqlite3_vfs*, int, char*) { return 0; };
  sqlite3_vfs_register(&vfs_, 0);
}

SimulatedDisk::~SimulatedDisk() {
  sqlite3_vfs_unregister(&vfs_);
}

void SimulatedDisk::faultIs(Fault fault, int spared) {
  if (fault_ == Fault::kDead && fault != Fault::kNone) return;
  fault_ = fault;
  spared_ = spared;
}

bool SimulatedDisk::fails(bool isSync) {
  if (fault_ == Fault::kDead) return true;
  if (fault_ == Fault::kNone || isSync != (fault_ == Fault::kSyncFails)) return false;
  return spared_-- <= 0;
}

void SimulatedDisk::processEnds(bool powerFails) {
  fault_ = Fault::kNone;
  for (auto& [path, content] : files_) {
    auto left = std::make_shared<Content>();
    if (powerFails) {
      left->synced = std::move(content->synced);
      const bool losesAll = world_.once(4);
      // The cache holds only the last bytes of each place.
      for (Change& change : content->stuck) {
        if (losesAll || change.isTruncation) continue;
        change.bytes = content->present.substr(std::min(change.offset, content->present.size()),
                                               change.bytes.size());
        applyPart(change, left->synced, world_);
      }
      for (const Change& change : content->changes) {
        if (!losesAll) applyPart(change, left->synced, world_);
      }
      left->present = left->synced;
    } else {
      left->synced = std::move(content->synced);
      left->present = std::move(content->present);
      left->changes = std::move(content->changes);
      left->stuck = std::move(content->stuck);
    }
    content = std::move(left);
  }
}

}  // namespace sim
