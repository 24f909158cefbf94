#include "agent/cli/input_file.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace vnagent {
namespace {

[[noreturn]] void fail(const std::string& name) {
  throw UnreadableFile(name + ": " + std::strerror(errno));
}

std::FILE* open(const std::string& name) {
  std::FILE* file = std::fopen(name.c_str(), "rb");
  if (file == nullptr) fail(name);
  return file;
}

}  // namespace

std::string readFile(const std::string& name) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(open(name), std::fclose);
  std::string content;
  // Only a regular file knows its size ahead, and it may change.
  std::error_code unknown;
  if (const auto size = std::filesystem::file_size(name, unknown); !unknown) content.reserve(size);
  std::array<char, size_t{1} << 16> buffer;
  while (const size_t got = std::fread(buffer.data(), 1, buffer.size(), file.get())) {
    content.append(buffer.data(), got);
  }
  if (std::ferror(file.get()) != 0) fail(name);
  return content;
}

LineReader::LineReader(const std::string& name)
    : name_(name == "-" ? "<stdin>" : name),
      opened_(name == "-" ? nullptr : open(name)),
      file_(opened_ ? opened_.get() : stdin) {}

LineReader::~LineReader() {
  std::free(buffer_);
}

std::optional<std::string_view> LineReader::next() {
  errno = 0;
  const auto got = getline(&buffer_, &capacity_, file_);
  if (got < 0) {
    if (std::ferror(file_) != 0) fail(name_);
    return std::nullopt;
  }
  ++line_;
  std::string_view text(buffer_, static_cast<size_t>(got));
  if (text.ends_with('\n')) text.remove_suffix(1);
  return text;
}

}  // namespace vnagent
