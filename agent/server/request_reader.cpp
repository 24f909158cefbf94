#include "agent/server/request_reader.h"

#include <algorithm>
#include <cctype>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

namespace vnagent {
namespace {

namespace http = boost::beast::http;

// A connection that waits for its next request keeps no more than this.
constexpr size_t kKeptBytes = 4096;

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

std::string_view view(boost::beast::string_view text) {
  return {text.data(), text.size()};
}

// The path and query of a target that may be a whole URL, as for a proxy.
std::string originForm(std::string_view target) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (target.size() < scheme.size() || lowerCase(target.substr(0, scheme.size())) != scheme) {
      continue;
    }
    target.remove_prefix(scheme.size());
    const auto end = target.find_first_of("/?");
    if (end == target.npos) return "/";
    return target[end] == '/' ? std::string(target.substr(end))
                              : "/" + std::string(target.substr(end));
  }
  return std::string(target);
}

}  // namespace

class RequestReader::Parser {
 public:
  http::request_parser<http::string_body> http;
};

RequestReader::RequestReader(size_t maxHeader, uint64_t maxBody)
    : maxHeader_(maxHeader), maxBody_(maxBody) {}

RequestReader::~RequestReader() = default;

RequestReader::Status RequestReader::advance() {
  if (problem_.status != 0) return Status::kRefused;
  if (!parser_) {
    if (!skipEmptyLines()) return Status::kMore;
    parser_ = std::make_unique<Parser>();
    parser_->http.header_limit(static_cast<uint32_t>(maxHeader_));
    parser_->http.body_limit(maxBody_);
    hasHeader_ = false;
  }
  return hasHeader_ ? advanceBody() : advanceHeader();
}

RequestReader::Status RequestReader::advanceHeader() {
  boost::beast::error_code error;
  begin_ += parser_->http.put(boost::asio::buffer(input_.data() + begin_, buffered()), error);
  if (error == http::error::header_limit) {
    return refuse(431, "header-too-large", "The header is too large",
                  "a header may have " + std::to_string(maxHeader_) + " bytes");
  }
  // A length that is too large is found at the end of the header.
  if (error == http::error::body_limit) {
    return refuse(413, "too-large", "The body is too large",
                  "a body may have " + std::to_string(maxBody_) + " bytes");
  }
  if (error == http::error::need_more) return Status::kMore;
  if (error) return refuseBecause(error.message());
  if (!parser_->http.is_header_done()) return Status::kMore;

  const auto& message = parser_->http.get();
  request_ = {};
  request_.method = view(message.method_string());
  request_.target = originForm(view(message.target()));
  for (const auto& field : message) {
    request_.headers.emplace_back(lowerCase(view(field.name_string())), view(field.value()));
  }
  isHttp10_ = message.version() < 11;
  keepsAlive_ = message.keep_alive();
  if (const auto fault = faultOfHeader(); !fault.empty()) return refuseBecause(fault);
  const std::string* expect = request_.header("expect");
  expectsContinue_ = !isHttp10_ && expect != nullptr && lowerCase(*expect) == "100-continue" &&
                     !parser_->http.is_done();
  hasHeader_ = true;
  parser_->http.eager(true);
  return Status::kHeader;
}

// What a header must not have besides what the parser refuses: anything from which two readers
// could conclude different lengths.
std::string RequestReader::faultOfHeader() const {
  if (request_.headerCount("host") > 1 || (!isHttp10_ && request_.headerCount("host") != 1)) {
    return "there is not one Host header";
  }
  if (request_.headerCount("content-length") > 1 ||
      (request_.headerCount("content-length") == 1 &&
       request_.header("content-length")->find(',') != std::string::npos)) {
    return "there are several lengths";
  }
  const size_t codings = request_.headerCount("transfer-encoding");
  if (codings > 0 && request_.headerCount("content-length") > 0) {
    return "there are both a length and a transfer coding";
  }
  if (codings > 1 ||
      (codings == 1 &&
       (isHttp10_ || lowerCase(*request_.header("transfer-encoding")) != "chunked"))) {
    return "the transfer coding is not known";
  }
  if (!request_.target.starts_with('/') && request_.target != "*") {
    return "the target is no path";
  }
  return {};
}

RequestReader::Status RequestReader::advanceBody() {
  boost::beast::error_code error;
  if (!parser_->http.is_done() && buffered() > 0) {
    begin_ += parser_->http.put(boost::asio::buffer(input_.data() + begin_, buffered()), error);
  }
  if (error == http::error::body_limit) {
    return refuse(413, "too-large", "The body is too large",
                  "a body may have " + std::to_string(maxBody_) + " bytes");
  }
  if (error && error != http::error::need_more) return refuseBecause(error.message());
  if (parser_->http.is_done()) return Status::kComplete;
  if (begin_ == input_.size()) {
    input_.clear();
    begin_ = 0;
  } else if (buffered() > maxHeader_) {
    // A line between chunks, or the fields after them, that do not end.
    return refuseBecause("a chunk begins with too long a line");
  }
  return Status::kMore;
}

size_t RequestReader::bodySize() const {
  return parser_ ? parser_->http.get().body().size() : 0;
}

Request RequestReader::takeRequest() {
  request_.body = std::move(parser_->http.get().body());
  parser_ = nullptr;
  input_.erase(0, begin_);
  begin_ = 0;
  if (input_.empty() && input_.capacity() > kKeptBytes) input_.shrink_to_fit();
  return std::move(request_);
}

void RequestReader::discard() {
  parser_ = nullptr;
  input_ = {};
  begin_ = 0;
}

RequestReader::Status RequestReader::refuse(unsigned status, std::string_view name,
                                            std::string_view title, std::string detail) {
  problem_ = {status, name, title, std::move(detail)};
  return Status::kRefused;
}

RequestReader::Status RequestReader::refuseBecause(const std::string& detail) {
  return refuse(400, "bad-request", "The request cannot be read", detail);
}

// Empty lines before a request are left over from clients that end a body with one. Returns whether
// a request begins.
bool RequestReader::skipEmptyLines() {
  while (buffered() >= 2 && input_[begin_] == '\r' && input_[begin_ + 1] == '\n') begin_ += 2;
  if (buffered() > 0) return buffered() > 1 || input_[begin_] != '\r';
  input_.clear();
  begin_ = 0;
  return false;
}

}  // namespace vnagent
