#include "agent/server/reply_writer.h"

#include <array>
#include <cctype>
#include <ctime>

#include <fmt/format.h>
#include <boost/beast/http/status.hpp>

namespace vnagent {
namespace {

std::string_view reason(unsigned status) {
  const auto text = boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(status));
  return {text.data(), text.size()};
}

// Written as their documents write them; the others get a capital after each hyphen.
void appendName(std::string& out, std::string_view name) {
  if (name == "etag") {
    out += "ETag";
    return;
  }
  if (name == "www-authenticate") {
    out += "WWW-Authenticate";
    return;
  }
  bool isFirst = true;
  for (const char c : name) {
    out += isFirst ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
    isFirst = c == '-';
  }
}

// The time in the form of HTTP, made anew once a second.
std::string_view date() {
  thread_local std::time_t second = 0;
  thread_local std::array<char, 32> text{};
  thread_local size_t size = 0;
  const std::time_t now = std::time(nullptr);
  if (now != second) {
    std::tm parts{};
    gmtime_r(&now, &parts);
    // The names of days and months are those of the locale "C": the program sets no other.
    size = std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
    second = now;
  }
  return {text.data(), size};
}

}  // namespace

std::string replyHead(const Reply& reply, const ReplyForm& form, bool streams) {
  std::string head;
  head.reserve(256);
  fmt::format_to(std::back_inserter(head), "HTTP/1.1 {} {}\r\n", reply.status,
                 reason(reply.status));
  for (const auto& [name, value] : reply.headers) {
    appendName(head, name);
    head += ": ";
    head += value;
    head += "\r\n";
  }
  head += "Date: ";
  head += date();
  head += "\r\n";
  if (streams) {
    if (!form.isHttp10) head += "Transfer-Encoding: chunked\r\n";
  } else if (reply.status != 204 && reply.status != 304) {
    fmt::format_to(std::back_inserter(head), "Content-Length: {}\r\n",
                   reply.body ? reply.body->size() : 0);
  }
  if (form.closes) {
    head += "Connection: close\r\n";
  } else if (form.isHttp10) {
    head += "Connection: keep-alive\r\n";
  }
  head += "\r\n";
  return head;
}

}  // namespace vnagent
