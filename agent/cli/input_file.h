// Inputs that the agent reads, files or standard input: whole, or line by line.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vnagent {

// The largest input that is read unless the command line says otherwise.
inline constexpr uint64_t kDefaultMaxInputBytes = uint64_t{1} << 30;

// An input cannot be opened or read, is too large, or is not JSON; what() names it and says why.
class UnreadableFile : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An input as messages name it: "-" is standard input.
std::string inputName(const std::string& name);

// An open input. "-" is standard input.
class InputFile {
 public:
  // Throws UnreadableFile.
  explicit InputFile(const std::string& name);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  // Appends what can be read now, at most `size` bytes and at least one; returns false at the end.
  // Throws UnreadableFile.
  bool appendTo(std::string& content, size_t size);

  // The input as messages name it.
  const std::string& name() const { return name_; }

 private:
  std::string name_;
  int descriptor_;
};

// The content of an input of at most `maxBytes`. Throws UnreadableFile.
std::string readFile(const std::string& name, uint64_t maxBytes = kDefaultMaxInputBytes);

// An input that is read line by line, each line as soon as it is there.
class LineReader {
 public:
  // No line may have more than `maxBytes`. Throws UnreadableFile.
  explicit LineReader(const std::string& name, uint64_t maxBytes = kDefaultMaxInputBytes);

  // The next line without its line break, good until the next call; nothing at the end. Throws
  // UnreadableFile.
  std::optional<std::string_view> next();

  // The number of the line that next() gave last; the first is 1.
  uint64_t line() const { return line_; }
  // The input as messages name it.
  const std::string& name() const { return file_.name(); }

 private:
  InputFile file_;
  uint64_t maxBytes_;
  std::string buffer_;
  size_t begin_ = 0;    // of the next line in the buffer
  size_t scanned_ = 0;  // up to here there is no line break after begin_
  uint64_t line_ = 0;
};

}  // namespace vnagent
