#include "agent/ovsdb/json_stream.h"

namespace vnagent::ovsdb {
namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

}  // namespace

bool JsonStream::feed(std::string_view bytes, const std::function<void(std::string_view)>& take) {
  if (isBroken_) return false;
  buffer_ += bytes;
  size_t begin = 0;
  while (!isBroken_) {
    if (depth_ == 0) {
      // Between two objects.
      while (scanned_ < buffer_.size() && isSpace(buffer_[scanned_])) ++scanned_;
      begin = scanned_;
      if (begin == buffer_.size()) break;
      if (buffer_[begin] != '{') {
        isBroken_ = true;
        break;
      }
    }
    const size_t end = endOfObject();
    if (end == std::string::npos) break;
    take(std::string_view(buffer_).substr(begin, end - begin));
    begin = end;
  }
  buffer_.erase(0, begin);
  scanned_ -= begin;
  if (buffer_.size() > maxBytes_) isBroken_ = true;
  if (buffer_.empty() && buffer_.capacity() > size_t{1} << 20) buffer_.shrink_to_fit();
  return !isBroken_;
}

size_t JsonStream::endOfObject() {
  for (; scanned_ < buffer_.size(); ++scanned_) {
    const char c = buffer_[scanned_];
    if (inString_) {
      if (isEscaped_) {
        isEscaped_ = false;
      } else if (c == '\\') {
        isEscaped_ = true;
      } else if (c == '"') {
        inString_ = false;
      }
    } else if (c == '"') {
      inString_ = true;
    } else if (c == '{' || c == '[') {
      if (++depth_ > maxDepth_) {
        isBroken_ = true;
        return std::string::npos;
      }
    } else if (c == '}' || c == ']') {
      if (--depth_ == 0) return ++scanned_;
    }
  }
  return std::string::npos;
}

}  // namespace vnagent::ovsdb
