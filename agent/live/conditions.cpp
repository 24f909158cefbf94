#include "agent/live/conditions.h"

#include <algorithm>
#include <utility>

namespace vnagent {
namespace {

Refusal failed(std::string detail, std::optional<uint64_t> etag) {
  Refusal refusal{"precondition-failed", std::move(detail)};
  if (etag) refusal.headers.emplace_back("etag", etagText(*etag));
  return refusal;
}

void skipSpace(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
}

// All headers of a name as one list.
std::optional<std::string> listOf(const Request& request, std::string_view name) {
  std::optional<std::string> list;
  for (const auto& [key, value] : request.headers) {
    if (key != name) continue;
    if (list) {
      *list += ',' + value;
    } else {
      list = value;
    }
  }
  return list;
}

}  // namespace

std::string etagText(uint64_t etag) {
  return '"' + std::to_string(etag) + '"';
}

bool EntityTags::has(uint64_t etag, bool mayBeWeak) const {
  if (any) return true;
  const std::string wanted = std::to_string(etag);
  return std::ranges::any_of(
      tags, [&](const auto& tag) { return tag.second == wanted && (mayBeWeak || !tag.first); });
}

bool Conditions::readTags(std::string_view text, EntityTags& tags) {
  skipSpace(text);
  if (text.starts_with('*')) {
    text.remove_prefix(1);
    skipSpace(text);
    tags.any = true;
    return text.empty();
  }
  while (true) {
    skipSpace(text);
    const bool isWeak = text.starts_with("W/");
    if (isWeak) text.remove_prefix(2);
    if (!text.starts_with('"')) return false;
    const size_t end = text.find('"', 1);
    if (end == text.npos) return false;
    tags.tags.emplace_back(isWeak, text.substr(1, end - 1));
    text.remove_prefix(end + 1);
    skipSpace(text);
    if (text.empty()) return true;
    if (text.front() != ',') return false;
    text.remove_prefix(1);
  }
}

std::optional<Refusal> Conditions::read(const Request& request) {
  if (const auto list = listOf(request, "if-match")) {
    if (!readTags(*list, ifMatch_.emplace())) {
      return Refusal{"bad-request", "If-Match is no list of entity tags"};
    }
  }
  if (const auto list = listOf(request, "if-none-match")) {
    if (!readTags(*list, ifNoneMatch_.emplace())) {
      return Refusal{"bad-request", "If-None-Match is no list of entity tags"};
    }
  }
  return std::nullopt;
}

std::optional<Refusal> Conditions::refuseChange(std::optional<uint64_t> etag) const {
  if (ifMatch_ && !etag) return failed("there is nothing at this place", std::nullopt);
  if (ifMatch_ && !ifMatch_->has(*etag, false)) return failed("the place has changed", etag);
  if (ifNoneMatch_ && etag && ifNoneMatch_->has(*etag, true)) {
    return failed("the place exists", etag);
  }
  return std::nullopt;
}

std::optional<Refusal> Conditions::refuseRead(uint64_t etag) const {
  if (ifMatch_ && !ifMatch_->has(etag, false)) return failed("the place has changed", etag);
  return std::nullopt;
}

bool Conditions::isNotModified(uint64_t etag) const {
  return ifNoneMatch_ && ifNoneMatch_->has(etag, true);
}

}  // namespace vnagent
