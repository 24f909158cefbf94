#include "agent/ovsdb/address.h"

#include <algorithm>
#include <stdexcept>

namespace vnagent::ovsdb {
namespace {

constexpr const char* kForms = "a database is unix:PATH, tcp:HOST:PORT or ssl:HOST:PORT";

bool isPort(std::string_view text) {
  return !text.empty() && text.size() <= 5 &&
         std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; }) &&
         std::stoi(std::string(text)) <= 65535 && std::stoi(std::string(text)) > 0;
}

}  // namespace

Address Address::parse(std::string_view text) {
  Address address;
  const size_t colon = text.find(':');
  const std::string_view kind = text.substr(0, colon);
  std::string_view rest = colon == text.npos ? "" : text.substr(colon + 1);
  if (rest.empty()) throw std::invalid_argument(kForms);
  if (kind == "unix") {
    address.path = rest;
    return address;
  }
  if (kind != "tcp" && kind != "ssl") throw std::invalid_argument(kForms);
  address.kind = kind == "tcp" ? Kind::kTcp : Kind::kSsl;
  const size_t last = rest.rfind(':');
  if (last == rest.npos || !isPort(rest.substr(last + 1))) throw std::invalid_argument(kForms);
  address.port = rest.substr(last + 1);
  rest = rest.substr(0, last);
  if (rest.starts_with('[') && rest.ends_with(']')) rest = rest.substr(1, rest.size() - 2);
  if (rest.empty()) throw std::invalid_argument(kForms);
  address.host = rest;
  return address;
}

}  // namespace vnagent::ovsdb
