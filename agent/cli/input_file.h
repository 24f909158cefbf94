// Files that the agent reads: a whole one, or a stream line by line.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vnagent {

// A file cannot be opened or read, or is not JSON; what() names it and says why.
class UnreadableFile : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The content of a file. Throws UnreadableFile.
std::string readFile(const std::string& name);

// A file read line by line; "-" is standard input.
class LineReader {
 public:
  // Throws UnreadableFile.
  explicit LineReader(const std::string& name);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // The next line without its line break, good until the next call; nothing at the end. Throws
  // UnreadableFile.
  std::optional<std::string_view> next();

  // The number of the line that next() gave last; the first is 1.
  uint64_t line() const { return line_; }
  // The file as messages name it.
  const std::string& name() const { return name_; }

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  std::string name_;
  std::unique_ptr<std::FILE, Close> opened_;  // null for standard input
  std::FILE* file_;
  char* buffer_ = nullptr;
  size_t capacity_ = 0;
  uint64_t line_ = 0;
};

}  // namespace vnagent
