// Makes requests of the bytes that a connection received, one after the other. Knows no socket.
//
//   reader.append(bytes);
//   while (true) switch (reader.advance()) { ... }
//
// One thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "agent/live/exchange.h"

namespace vnagent {

class RequestReader {
 public:
  enum class Status : uint8_t {
    kMore,      // more bytes are needed
    kHeader,    // the header is complete: once for each request
    kComplete,  // the request is complete: take it
    kRefused,   // these bytes are no request that is taken: see problem(); nothing more is read
  };

  RequestReader(size_t maxHeader, uint64_t maxBody);
  ~RequestReader();
  RequestReader(const RequestReader&) = delete;
  RequestReader& operator=(const RequestReader&) = delete;

  void append(std::string_view bytes) { input_.append(bytes); }
  // How much waits to be read.
  size_t buffered() const { return input_.size() - begin_; }
  // True while a request has begun and is not complete.
  bool isInside() const { return parser_ != nullptr; }

  Status advance();

  // How much of the body has arrived.
  size_t bodySize() const;

  // After kHeader, until takeRequest(). The body is empty until kComplete.
  const Request& request() const { return request_; }
  bool isHttp10() const { return isHttp10_; }
  bool keepsAlive() const { return keepsAlive_; }
  // The client waits for word before it sends the body.
  bool expectsContinue() const { return expectsContinue_; }

  // After kComplete, or after kHeader where the body does not matter.
  Request takeRequest();

  // Frees what has arrived. Nothing more is read.
  void discard();

  // After kRefused.
  const Problem& problem() const { return problem_; }

 private:
  class Parser;

  Status advanceHeader();
  Status advanceBody();
  Status refuse(unsigned status, std::string_view name, std::string_view title, std::string detail);
  Status refuseBecause(const std::string& detail);
  std::string faultOfHeader() const;
  bool skipEmptyLines();

  const size_t maxHeader_;
  const uint64_t maxBody_;
  std::string input_;  // received; what is before begin_ was read
  size_t begin_ = 0;
  std::unique_ptr<Parser> parser_;
  bool hasHeader_ = false;

  Request request_;
  bool isHttp10_ = false;
  bool keepsAlive_ = false;
  bool expectsContinue_ = false;
  Problem problem_{};
};

}  // namespace vnagent
