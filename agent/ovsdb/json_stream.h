// Splits a stream of bytes into JSON objects. JSON-RPC 1.0 over a stream has no framing of its own:
// one object ends where its braces do, and white space may follow.
//
//   JsonStream stream;
//   if (!stream.feed(bytes, [](std::string_view object) { ... })) ... the stream is broken
//
// Only braces, brackets and strings are looked at; a parser has to say whether an object is JSON.
// Any thread, one at a time.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace vnagent::ovsdb {

class JsonStream {
 public:
  // Objects beyond these limits break the stream.
  explicit JsonStream(size_t maxBytes = size_t{1} << 30, size_t maxDepth = 100)
      : maxBytes_(maxBytes), maxDepth_(maxDepth) {}

  // Calls `take` for each object that `bytes` completes; the view lasts for the call. Returns false
  // when what arrived cannot be a sequence of objects; nothing can be read from then on.
  bool feed(std::string_view bytes, const std::function<void(std::string_view)>& take);

 private:
  // The first offset after the object that begins the buffer, or npos.
  size_t endOfObject();

  size_t maxBytes_;
  size_t maxDepth_;
  std::string buffer_;
  size_t scanned_ = 0;  // of the buffer
  size_t depth_ = 0;
  bool inString_ = false;
  bool isEscaped_ = false;
  bool isBroken_ = false;
};

}  // namespace vnagent::ovsdb
