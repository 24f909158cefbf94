// The checks of a request, in the order in which it is refused, up to its body.
#include <algorithm>
#include <array>
#include <utility>

#include "agent/live/body.h"
#include "agent/live/detail/service_impl.h"

namespace vnagent {
namespace {

constexpr size_t kMaxKeyBytes = 64;

// Headers of which a request has one at most.
constexpr std::array<std::string_view, 5> kSingleHeaders{
    "content-type", "idempotency-key", "last-event-id", "sync-request-id", "authorization"};

}  // namespace

std::optional<Refusal> Service::Impl::check(Exchange& exchange) {
  Request& request = exchange.request;
  if (isStopping_) return Refusal{"not-ready", "the agent is stopping"};
  if (auto refusal = readRoute(request, exchange.route)) return refusal;
  if (auto refusal = readParameters(request, exchange.route, exchange.parameters)) return refusal;
  if (auto refusal = checkHeaders(request)) return refusal;
  if (auto refusal = exchange.conditions.read(request)) return refusal;
  if (exchange.route.subject == Subject::kBatch && exchange.conditions.given()) {
    return Refusal{"bad-request", "a batch takes no conditions"};
  }
  if (!request.principal) {
    return Refusal{"unauthenticated",
                   "the request has no credentials that are known",
                   {},
                   false,
                   {},
                   {{"www-authenticate", "Bearer"}}};
  }
  if (auto refusal = checkRoute(exchange)) return refusal;
  if (auto refusal = checkRole(exchange)) return refusal;
  const bool streams =
      exchange.route.subject == Subject::kWatch || exchange.route.subject == Subject::kTraceTail;
  const std::string_view type = streams                                       ? "text/event-stream"
                                : exchange.route.subject == Subject::kMetrics ? "text/plain"
                                                                              : "application/json";
  if (!isAcceptable(request, type)) {
    return Refusal{"not-acceptable", "the reply would be " + std::string(type)};
  }
  return readBody(exchange);
}

std::optional<Refusal> Service::Impl::checkHeaders(const Request& request) const {
  for (const std::string_view name : kSingleHeaders) {
    if (request.headerCount(name) > 1) {
      return Refusal{"bad-request", "the header " + std::string(name) + " is there twice"};
    }
  }
  const std::string* key = request.header("idempotency-key");
  if (key != nullptr && (key->empty() || key->size() > kMaxKeyBytes)) {
    return Refusal{"bad-request", "Idempotency-Key has 1 to 64 characters"};
  }
  return std::nullopt;
}

std::optional<Refusal> Service::Impl::checkRoute(const Exchange& exchange) {
  const Route& route = exchange.route;
  if (route.subject == Subject::kNothing) return Refusal{"not-found", "there is no such place"};
  const bool streams = route.subject == Subject::kWatch || route.subject == Subject::kTraceTail;
  const auto methods = route.methods();
  const bool isHead = exchange.request.method == "HEAD" && !streams;
  const std::string_view method = isHead ? "GET" : std::string_view(exchange.request.method);
  if (std::ranges::find(methods, method) != methods.end()) return std::nullopt;
  std::string allow;
  for (const std::string_view name : methods) {
    if (!allow.empty()) allow += ", ";
    allow += name;
    if (name == "GET" && !streams) allow += ", HEAD";
  }
  return Refusal{"method-not-allowed", "the place takes " + allow, {}, false, {},
                 {{"allow", allow}}};
}

std::optional<Refusal> Service::Impl::checkRole(const Exchange& exchange) const {
  const Principal& principal = exchange.principal();
  const auto forbidden = [](std::string detail) { return Refusal{"forbidden", std::move(detail)}; };
  if (exchange.isChange()) return Changes::checkRole(exchange.request, exchange.route);
  if (exchange.isSyncCall()) {
    if (!principal.mayWrite()) return forbidden("the principal may only read");
    if (!principal.mayRead(exchange.route.region)) {
      return forbidden("the principal may change its own regions only");
    }
    if (exchange.parameters.force && !principal.isAdmin()) {
      return forbidden("only an administrator may force a lock");
    }
    return std::nullopt;
  }
  switch (exchange.route.subject) {
    case Subject::kMetrics:
    case Subject::kInspect:
    case Subject::kTraceTail:
    case Subject::kTrace:
      if (principal.isRestricted()) return forbidden("the principal may see its own regions only");
      if (!exchange.reads() && !principal.isAdmin()) {
        return forbidden("only an administrator may set the trace level");
      }
      return std::nullopt;
    default:
      return std::nullopt;
  }
}

std::optional<Refusal> Service::Impl::readBody(Exchange& exchange) {
  if (exchange.isChange()) {
    return Changes::readBody(exchange.request, exchange.route, exchange.body);
  }
  const bool hasBody =
      (exchange.route.subject == Subject::kSyncLock && exchange.request.method == "POST") ||
      (exchange.route.subject == Subject::kTrace && !exchange.reads());
  if (!hasBody && exchange.request.body.empty()) return std::nullopt;
  if (!hasBody && !exchange.isSyncCall()) return std::nullopt;
  if (auto refusal = checkMediaType(exchange.request, "application/json")) return refusal;
  return vnagent::readBody(exchange.request, exchange.body);
}

}  // namespace vnagent
