// A disk under SQLite that fails when it is asked to, and that can lose what was not synced.
//
// It is an SQLite VFS above the system's: files are real, syncs are only noted. For each file it
// keeps what a sync made durable and the writes since; a crash keeps the former and any part of the
// latter, in sectors of 512 bytes.
//
//   FaultDisk disk("crashes");
//   Journal journal(folder, {.vfs = disk.name()}, callbacks);
//   disk.faultIs(FaultDisk::Fault::kFull);
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace vnagent {

class FaultDisk {
 public:
  enum class Fault : uint8_t {
    kNone,
    kFull,      // writes find no space
    kTornFull,  // likewise, after half of the bytes
    kWriteFails,
    kTornWrite,  // a write fails after half of its bytes
    kSyncFails,
  };

  // What it is for beside failing.
  enum class Use : uint8_t {
    kCrashes,  // what a crash of the system leaves can be asked for
    kProcess,  // it is the process's default VFS, and its syncs are real
  };

  explicit FaultDisk(std::string name, Use use = Use::kCrashes)
      : name_(std::move(name)), use_(use) {
    base_ = sqlite3_vfs_find(nullptr);
    vfs_ = *base_;
    vfs_.szOsFile = static_cast<int>(sizeof(File)) + base_->szOsFile;
    vfs_.zName = name_.c_str();
    vfs_.pAppData = this;
    vfs_.pNext = nullptr;
    vfs_.xOpen = open;
    vfs_.xDelete = remove;
    sqlite3_vfs_register(&vfs_, use_ == Use::kProcess ? 1 : 0);
  }
  ~FaultDisk() { sqlite3_vfs_unregister(&vfs_); }
  FaultDisk(const FaultDisk&) = delete;
  FaultDisk& operator=(const FaultDisk&) = delete;

  const std::string& name() const { return name_; }

  // From now on, after `spared` more writes or syncs that would have failed.
  void faultIs(Fault fault, int spared = 0) {
    const std::scoped_lock lock(mutex_);
    fault_ = fault;
    spared_ = spared;
  }

  // Called before each write and each sync, on the thread that does it.
  void onWriteIs(std::function<void()> hook) { onWrite_ = std::move(hook); }
  void onSyncIs(std::function<void()> hook) { onSync_ = std::move(hook); }

  uint64_t syncs() const {
    const std::scoped_lock lock(mutex_);
    return syncs_;
  }

  // What a crash at this moment leaves of the files, by path.
  std::map<std::string, std::string> afterCrash(std::mt19937& random) const {
    const std::scoped_lock lock(mutex_);
    std::map<std::string, std::string> files;
    for (const auto& [path, file] : files_) {
      std::string content = file.synced;
      const bool loses = random() % 4 == 0;  // all that was not synced
      for (const Change& change : file.changes) {
        if (!loses) applyPart(change, content, random);
      }
      files[path] = content;
    }
    return files;
  }

  // What is surely on the disk of the files in a folder, by name: the worst that a crash leaves.
  std::map<std::string, std::string> synced(const std::string& folder) const {
    const std::scoped_lock lock(mutex_);
    std::map<std::string, std::string> files;
    for (const auto& [path, file] : files_) {
      const std::filesystem::path each(path);
      if (each.parent_path() == folder) files[each.filename().string()] = file.synced;
    }
    return files;
  }

  // Copies a folder as the system's cache has it, and notes of the copies what is on the disk of
  // the originals: where a process is killed, and another goes on.
  void copy(const std::string& folder, const std::string& to) {
    const std::scoped_lock lock(mutex_);
    std::filesystem::copy(folder, to);
    std::map<std::string, Content> copies;
    for (const auto& [path, file] : files_) {
      const std::filesystem::path each(path);
      if (each.parent_path() == folder)
        copies[(std::filesystem::path(to) / each.filename()).string()] = file;
    }
    files_.merge(copies);
  }

 private:
  static constexpr size_t kSector = 512;

  struct Change {
    size_t offset = 0;
    std::string bytes;
    bool isTruncation = false;
  };
  struct Content {
    std::string synced;
    std::vector<Change> changes;  // since, but for those that a sync failed to write
  };
  struct File {
    sqlite3_file base;
    FaultDisk* disk;
    const char* path;
    sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
  };

  static File* of(sqlite3_file* file) { return reinterpret_cast<File*>(file); }

  static void apply(const Change& change, std::string& content) {
    if (change.isTruncation) {
      content.resize(change.offset, '\0');
      return;
    }
    const size_t end = change.offset + change.bytes.size();
    if (content.size() < end) content.resize(end, '\0');
    content.replace(change.offset, change.bytes.size(), change.bytes);
  }

  static void applyPart(const Change& change, std::string& content, std::mt19937& random) {
    if (change.isTruncation) {
      if (random() % 2 == 0) content.resize(change.offset, '\0');
      return;
    }
    for (size_t done = 0; done < change.bytes.size();) {
      const size_t place = change.offset + done;
      const size_t size = std::min(kSector - place % kSector, change.bytes.size() - done);
      if (random() % 8 != 0) {
        if (content.size() < place + size) content.resize(place + size, '\0');
        content.replace(place, size, change.bytes, done, size);
      }
      done += size;
    }
  }

  bool fails(bool isSync) {
    const std::scoped_lock lock(mutex_);
    if (fault_ == Fault::kNone || isSync != (fault_ == Fault::kSyncFails)) return false;
    return spared_-- <= 0;
  }

  // What a sync could not write is in the system's cache only from then on: no later one writes it.
  void forget(const std::string& path) {
    if (use_ == Use::kProcess) return;
    const std::scoped_lock lock(mutex_);
    files_[path].changes.clear();
  }

  void write(const std::string& path, const void* bytes, size_t size, size_t offset) {
    if (use_ == Use::kProcess) return;
    const std::scoped_lock lock(mutex_);
    Content& file = files_[path];
    const std::string_view text(static_cast<const char*>(bytes), size);
    file.changes.push_back({offset, std::string(text), false});
  }

  // The methods of a file and of the VFS.

  static int open(sqlite3_vfs* vfs, const char* path, sqlite3_file* file, int flags, int* out) {
    auto* disk = static_cast<FaultDisk*>(vfs->pAppData);
    File* own = of(file);
    own->disk = disk;
    own->path = path == nullptr ? "" : path;
    const int code = disk->base_->xOpen(disk->base_, path, own->real(), flags, out);
    file->pMethods = own->real()->pMethods == nullptr ? nullptr : methods();
    if (code == SQLITE_OK && path != nullptr && disk->use_ == Use::kCrashes) disk->begin(path);
    return code;
  }

  void begin(const std::string& path) {
    const std::scoped_lock lock(mutex_);
    if (files_.contains(path)) return;
    std::ifstream file(path, std::ios::binary);
    Content& content = files_[path];
    content.synced.assign(std::istreambuf_iterator<char>(file), {});
  }

  static int remove(sqlite3_vfs* vfs, const char* path, int) {
    auto* disk = static_cast<FaultDisk*>(vfs->pAppData);
    const std::scoped_lock lock(disk->mutex_);
    disk->files_.erase(path);
    return disk->base_->xDelete(disk->base_, path, 0);
  }

  static int writeTo(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset) {
    File* own = of(file);
    FaultDisk& disk = *own->disk;
    if (disk.onWrite_) disk.onWrite_();
    const Fault fault = disk.fault_;
    if (!disk.fails(false)) {
      disk.write(own->path, bytes, static_cast<size_t>(size), static_cast<size_t>(offset));
      return own->real()->pMethods->xWrite(own->real(), bytes, size, offset);
    }
    if (fault == Fault::kTornFull || fault == Fault::kTornWrite) {
      disk.write(own->path, bytes, static_cast<size_t>(size / 2), static_cast<size_t>(offset));
      own->real()->pMethods->xWrite(own->real(), bytes, size / 2, offset);
    }
    const bool isFull = fault == Fault::kFull || fault == Fault::kTornFull;
    return isFull ? SQLITE_FULL : SQLITE_IOERR_WRITE;
  }

  static int truncate(sqlite3_file* file, sqlite3_int64 size) {
    File* own = of(file);
    if (own->disk->use_ == Use::kCrashes) {
      const std::scoped_lock lock(own->disk->mutex_);
      Content& content = own->disk->files_[own->path];
      content.changes.push_back({static_cast<size_t>(size), "", true});
    }
    return own->real()->pMethods->xTruncate(own->real(), size);
  }

  static int sync(sqlite3_file* file, int flags) {
    File* own = of(file);
    FaultDisk& disk = *own->disk;
    if (disk.onSync_) disk.onSync_();
    if (disk.fails(true)) {
      disk.forget(own->path);
      return SQLITE_IOERR_FSYNC;
    }
    if (disk.use_ == Use::kProcess) return own->real()->pMethods->xSync(own->real(), flags);
    const std::scoped_lock lock(disk.mutex_);
    Content& content = disk.files_[own->path];
    for (const Change& change : content.changes) apply(change, content.synced);
    content.changes.clear();
    ++disk.syncs_;
    return SQLITE_OK;
  }

  template <auto Method, class... Arguments>
  static auto pass(sqlite3_file* file, Arguments... arguments) {
    sqlite3_file* real = of(file)->real();
    return (real->pMethods->*Method)(real, arguments...);
  }

  static const sqlite3_io_methods* methods() {
    using Io = sqlite3_io_methods;
    static const Io kMethods = {
        2,
        pass<&Io::xClose>,
        pass<&Io::xRead, void*, int, sqlite3_int64>,
        writeTo,
        truncate,
        sync,
        pass<&Io::xFileSize, sqlite3_int64*>,
        pass<&Io::xLock, int>,
        pass<&Io::xUnlock, int>,
        pass<&Io::xCheckReservedLock, int*>,
        pass<&Io::xFileControl, int, void*>,
        pass<&Io::xSectorSize>,
        pass<&Io::xDeviceCharacteristics>,
        pass<&Io::xShmMap, int, int, int, void volatile**>,
        pass<&Io::xShmLock, int, int, int>,
        [](sqlite3_file* file) {
          sqlite3_file* real = of(file)->real();
          real->pMethods->xShmBarrier(real);
        },
        pass<&Io::xShmUnmap, int>,
        nullptr,
        nullptr,
    };
    return &kMethods;
  }

  const std::string name_;
  const Use use_;
  sqlite3_vfs* base_ = nullptr;
  sqlite3_vfs vfs_{};
  std::function<void()> onWrite_;
  std::function<void()> onSync_;

  mutable std::mutex mutex_;
  Fault fault_ = Fault::kNone;
  int spared_ = 0;
  uint64_t syncs_ = 0;
  std::map<std::string, Content> files_;
};

}  // namespace vnagent
