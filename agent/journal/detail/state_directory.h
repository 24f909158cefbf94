// The directory of a journal: its files, its lock, and the note of what was acknowledged.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vnagent::detail {

// An open file descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept : number_(other.number_) { other.number_ = -1; }
  Descriptor& operator=(Descriptor&& other) noexcept;

  int get() const { return number_; }
  bool isOpen() const { return number_ >= 0; }

 private:
  int number_ = -1;
};

// The names of a journal's files.
struct JournalFiles {
  explicit JournalFiles(const std::string& folder);

  std::string folder;
  std::string database;
  std::string writeAheadLog;
  std::string lock;
  std::string durable;
};

// Makes the directory if there is none, with mode 0700. Throws JournalError.
void makeDirectory(const std::string& folder);

// Makes the entries of a directory durable. Throws JournalError.
void syncDirectory(const std::string& folder);

// Holds a journal for one process. The lock ends with the process, however that ends.
class JournalLock {
 public:
  // Throws JournalError, of kind kHeld with the holder's process id.
  explicit JournalLock(const JournalFiles& files);

 private:
  Descriptor file_;
};

// The last record that was acknowledged.
struct DurableMark {
  uint64_t sequence = 0;
  uint64_t revision = 0;
  std::string check;
};

// A file with the last record that was acknowledged. It is written after each commit, and not
// synced: it can be behind what is durable, and is never ahead. As long as the system did not crash
// it is exact, so that a journal whose tail was lost since is noticed.
class DurableFile {
 public:
  // Makes the file if there is none. Throws JournalError.
  explicit DurableFile(const JournalFiles& files);

  // Throws nothing: without the file everything but the notice works.
  void write(const DurableMark& mark) const;

  // Nothing when there is no file, or none that can be understood.
  static std::optional<DurableMark> read(const JournalFiles& files);

 private:
  Descriptor file_;
};

}  // namespace vnagent::detail
