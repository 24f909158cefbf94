#include "agent/journal/detail/state_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "agent/journal/journal_error.h"
#include "agent/live/digest.h"

namespace vnagent::detail {
namespace {

[[noreturn]] void fail(const std::string& what, int error) {
  const bool isFull = error == ENOSPC || error == EDQUOT;
  throw JournalError(isFull ? JournalError::Kind::kNoSpace : JournalError::Kind::kIo,
                     what + ": " + std::generic_category().message(error));
}

Descriptor openFile(const std::string& path) {
  Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file.isOpen()) fail(path + " cannot be opened", errno);
  return file;
}

// The process id that a lock file holds; 0 when it has none.
long holderOf(int file) {
  char text[32];
  const ssize_t size = pread(file, text, sizeof text, 0);
  long holder = 0;
  if (size > 0) std::from_chars(text, text + size, holder);
  return holder;
}

uint64_t checksumOf(const DurableMark& mark) {
  Digest digest;
  digest.add(mark.sequence);
  digest.add(mark.revision);
  digest.add(mark.check);
  return digest.first64Bits();
}

}  // namespace

Descriptor::~Descriptor() {
  if (number_ >= 0) close(number_);
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(number_, other.number_);
  return *this;
}

JournalFiles::JournalFiles(const std::string& folderName)
    : folder(folderName),
      database(folderName + "/journal.db"),
      writeAheadLog(database + "-wal"),
      lock(folderName + "/lock"),
      durable(folderName + "/durable") {}

void makeDirectory(const std::string& folder) {
  if (mkdir(folder.c_str(), 0700) == 0) {
    const auto parent = std::filesystem::absolute(folder).lexically_normal().parent_path();
    syncDirectory(parent.string());
    return;
  }
  const int error = errno;
  std::error_code ignored;
  if (error == EEXIST && std::filesystem::is_directory(folder, ignored)) return;
  fail(folder + " cannot be made", error == EEXIST ? ENOTDIR : error);
}

void syncDirectory(const std::string& folder) {
  const Descriptor file(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!file.isOpen()) fail(folder + " cannot be opened", errno);
  // Some file systems cannot sync a directory, and need not.
  if (fsync(file.get()) != 0 && errno != EINVAL) fail(folder + " cannot be synced", errno);
}

JournalLock::JournalLock(const JournalFiles& files) : file_(openFile(files.lock)) {
  if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) fail(files.lock + " cannot be locked", errno);
    const long holder = holderOf(file_.get());
    throw JournalError(JournalError::Kind::kHeld,
                       files.folder + " is in use" +
                           (holder > 0 ? " by process " + std::to_string(holder)
                                       : std::string(" by another process")));
  }
  const std::string text = std::to_string(getpid()) + '\n';
  if (ftruncate(file_.get(), 0) != 0 ||
      pwrite(file_.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    fail(files.lock + " cannot be written", errno);
  }
}

DurableFile::DurableFile(const JournalFiles& files) : file_(openFile(files.durable)) {}

void DurableFile::write(const DurableMark& mark) const {
  // Of one length, so that one write replaces it all.
  char line[128];
  const int size = std::snprintf(line, sizeof line, "%020llu %020llu %16.16s %s\n",
                                 static_cast<unsigned long long>(mark.sequence),
                                 static_cast<unsigned long long>(mark.revision), mark.check.c_str(),
                                 hexadecimal(checksumOf(mark)).c_str());
  [[maybe_unused]] const ssize_t written = pwrite(file_.get(), line, static_cast<size_t>(size), 0);
}

std::optional<DurableMark> DurableFile::read(const JournalFiles& files) {
  std::ifstream file(files.durable);
  DurableMark mark;
  std::string checksum;
  if (!(file >> mark.sequence >> mark.revision >> mark.check >> checksum)) return std::nullopt;
  if (checksum != hexadecimal(checksumOf(mark))) return std::nullopt;
  return mark;
}

}  // namespace vnagent::detail
