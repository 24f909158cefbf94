#include "agent/cli/input_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/cli/report.h"

namespace vnagent {
namespace {

constexpr size_t kReadBytes = size_t{1} << 16;

[[noreturn]] void fail(const std::string& name) {
  throw UnreadableFile(name + ": " + std::strerror(errno));
}

int open(const std::string& name) {
  const int descriptor = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) fail(name);
  return descriptor;
}

}  // namespace

std::string inputName(const std::string& name) {
  return name == "-" ? "<stdin>" : name;
}

InputFile::InputFile(const std::string& name)
    : name_(inputName(name)), descriptor_(name == "-" ? STDIN_FILENO : open(name)) {}

InputFile::~InputFile() {
  if (descriptor_ != STDIN_FILENO) ::close(descriptor_);
}

bool InputFile::appendTo(std::string& content, size_t size) {
  const size_t before = content.size();
  content.resize(before + size);
  ssize_t got = 0;
  do {
    got = ::read(descriptor_, content.data() + before, size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) fail(name_);
  content.resize(before + static_cast<size_t>(got));
  return got > 0;
}

std::string readFile(const std::string& name, uint64_t maxBytes) {
  InputFile file(name);
  std::string content;
  while (file.appendTo(content, kReadBytes)) {
    if (content.size() <= maxBytes) continue;
    throw UnreadableFile(
        fmt::format("{}: it has more than {} bytes (--max-input)", file.name(), maxBytes));
  }
  return content;
}

LineReader::LineReader(const std::string& name, uint64_t maxBytes)
    : file_(name), maxBytes_(maxBytes) {}

std::optional<std::string_view> LineReader::next() {
  size_t end = buffer_.find('\n', scanned_);
  bool more = true;
  while (end == std::string::npos && more && buffer_.size() - begin_ <= maxBytes_) {
    buffer_.erase(0, begin_);
    begin_ = 0;
    scanned_ = buffer_.size();
    more = file_.appendTo(buffer_, kReadBytes);
    end = buffer_.find('\n', scanned_);
  }
  end = std::min(end, buffer_.size());
  if (end == begin_ && !more) return std::nullopt;
  ++line_;
  const std::string_view text = std::string_view(buffer_).substr(begin_, end - begin_);
  if (text.size() > maxBytes_) {
    throw UnreadableFile(fmt::format("{}: the line has more than {} bytes (--max-input)",
                                     placeInFile(file_.name(), line_), maxBytes_));
  }
  begin_ = scanned_ = std::min(end + 1, buffer_.size());
  return text;
}

}  // namespace vnagent
