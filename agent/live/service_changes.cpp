// What a service does for requests that change something: changes, dry runs, calls of the sync
// protocol, and the replies that are remembered.
#include <utility>

#include <malloc.h>

#include "agent/live/detail/service_impl.h"
#include "agent/live/view.h"

namespace vnagent {
namespace {

// What a large change leaves behind in the allocator is given back to the system.
constexpr size_t kLargeBytes = size_t{4} << 20;

// What a dry run in a copy of the process sends back.
std::string encode(const Reply& reply) {
  Json json{{"status", reply.status}, {"headers", reply.headers}, {"body", *reply.body}};
  return json.dump();
}
Reply decode(const std::string& text) {
  const Json json = Json::parse(text);
  Reply reply;
  reply.status = json["status"].get<unsigned>();
  reply.headers = json["headers"].get<Headers>();
  reply.body = std::make_shared<const std::string>(json["body"].get<std::string>());
  return reply;
}

}  // namespace

// Changes.

std::optional<Reply> Service::Impl::recall(const Exchange& exchange) const {
  const std::string* key = exchange.request.header("idempotency-key");
  if (key == nullptr || exchange.parameters.dryRun) return std::nullopt;
  const auto* entry = remembered_.find(exchange.principal().name, *key);
  if (entry == nullptr) return std::nullopt;
  if (entry->fingerprint != fingerprintOf(exchange.request)) {
    return replyOf({"key-reused", "the idempotency key belongs to another request"});
  }
  return jsonReply(entry->body, entry->status);
}

Changes::Remember Service::Impl::rememberer(const Exchange& exchange) {
  const std::string* key = exchange.request.header("idempotency-key");
  if (key == nullptr) return {};
  return [this, key = *key, principal = exchange.principal().name,
          fingerprint = fingerprintOf(exchange.request)](Record& record, unsigned status,
                                                         const std::string& body) {
    record.principal = principal;
    record.key = key;
    record.fingerprint = fingerprint;
    record.status = status;
    record.reply = body;
    remembered_.add(record);
  };
}

void Service::Impl::rememberAlone(const Exchange& exchange, unsigned status,
                                  const std::string& body) {
  const auto remember = rememberer(exchange);
  if (remember) cloud_.remember([&](Record& record) { remember(record, status, body); });
}

void Service::Impl::change(Exchange exchange) {
  if (auto reply = recall(exchange)) return answer(exchange, std::move(*reply));
  if (exchange.parameters.dryRun) return dryRun(std::move(exchange));
  const bool isLarge = exchange.request.body.size() >= kLargeBytes;
  answer(exchange, makeChange(exchange));
  afterStep();
  if (!isLarge) return;
  exchange = {};
  ::malloc_trim(0);
}

Reply Service::Impl::makeChange(const Exchange& exchange) {
  if (isBlocked_) return replyOf({"no-space", blockedFor_});
  const double began = cloud_.time();
  // The elements of a batch, and its key: a crash between them would have the batch repeated.
  const LiveCloud::Together together(cloud_);
  ChangeRequest change{exchange.request, exchange.route, exchange.conditions, exchange.body};
  ChangeReply made = changes_.make(change, rememberer(exchange));
  reportApplied(exchange.principal().name, exchange.what(), cloud_.time() - began);
  for (const std::string& name : made.refused) reportRefused(exchange, name);
  settle(made.regions);
  if (made.refusal) {
    reportRefused(exchange, made.refusal->type);
    return replyOf(*made.refusal);
  }
  if (!made.isRemembered) rememberAlone(exchange, made.status, made.body);
  return jsonReply(std::move(made.body), made.status);
}

// In a copy of the process the change is made like any other.
void Service::Impl::dryRun(Exchange exchange) {
  const auto run = [&] { return encode(runDry(exchange)); };
  const Ticket ticket = exchange.ticket;
  runCopy(run, [this, ticket, alive = std::weak_ptr<bool>(alive_)](const std::string& text) {
    const auto reply = std::make_shared<Reply>(
        text.empty() ? replyOf({"not-ready", "the dry run has failed"}) : decode(text));
    return [this, ticket, alive, reply] {
      if (!alive.expired()) answer(ticket, false, std::move(*reply));
    };
  });
}

Reply Service::Impl::runDry(const Exchange& exchange) {
  cloud_.detachFromStorage();
  storage_ = nullptr;
  const uint64_t before = cloud_.revision();
  const bool isRestricted = exchange.principal().isRestricted();
  const auto view = [&] {
    return Json::parse(*readOutputAs(cloud_.session(), {}, exchange.principal()));
  };
  const Json viewBefore = isRestricted ? view() : Json();
  ChangeRequest change{exchange.request, exchange.route, exchange.conditions, exchange.body};
  const ChangeReply made = changes_.make(change, {});
  if (made.refusal) return replyOf(*made.refusal);
  const std::string patch =
      isRestricted ? mergePatch(viewBefore, view()).dump()
                   : *cloud_.history().patch(Document::kOutput, before, cloud_.revision());
  std::string text = "{\"revision\": " + std::to_string(before) + ", \"output\": " + patch;
  if (exchange.route.subject == Subject::kBatch) {
    text += ", \"results\": [";
    for (size_t i = 0; i < made.results.size(); ++i) {
      if (i > 0) text += ", ";
      const bool isProblem = made.results[i].starts_with("{\"type\"");
      text += isProblem ? made.results[i] : "{\"revision\": " + std::to_string(before) + '}';
    }
    text += ']';
  }
  text += '}';
  return jsonReply(std::move(text));
}

// The sync protocol.

void Service::Impl::callSync(const Exchange& exchange) {
  const std::string& region = exchange.route.region;
  const auto& document = cloud_.document().region;
  const bool isSeen = exchange.principal().mayRead(region);
  if (exchange.route.subject == Subject::kSync) {
    if (!isSeen || !document.contains(region)) {
      return refuse(exchange, {"not-found", "there is no such region"});
    }
    return answer(exchange, jsonReply(sync_.status(region)));
  }
  SyncCalls::LockRequest lock;
  const bool takes = exchange.route.subject == Subject::kSyncLock && exchange.body.has_value() &&
                     exchange.request.method == "POST";
  if (takes) {
    if (auto refusal = SyncCalls::readLockRequest(exchange.body->root(), lock)) {
      return refuse(exchange, *refusal);
    }
  }
  if (auto reply = recall(exchange)) return answer(exchange, std::move(*reply));
  if (!document.contains(region)) {
    return refuse(exchange, {"not-found", "there is no such region"});
  }
  if (isBlocked_) return refuse(exchange, {"no-space", blockedFor_});
  const std::string* id = exchange.request.header("sync-request-id");
  const auto keep = rememberer(exchange);
  const double began = cloud_.time();
  // A lock that is released and whoever gets it next.
  const LiveCloud::Together together(cloud_);
  SyncCalls::Outcome outcome =
      takes ? sync_.lock(region, lock, exchange.principal(), exchange.ticket, keep)
            : sync_.call(exchange.route.subject, region, id, exchange.parameters.force,
                         exchange.principal(), keep);
  reportApplied(exchange.principal().name, exchange.what(), cloud_.time() - began);
  if (outcome.refusal) {
    refuse(exchange, *outcome.refusal);
  } else if (!outcome.body.empty()) {
    if (!outcome.isRecorded) rememberAlone(exchange, 200, outcome.body);
    answer(exchange, jsonReply(std::move(outcome.body)));
  }
  settle(outcome.regions);
}

void Service::Impl::settle(const std::vector<std::string>& regions) {
  for (const std::string& region : regions) noteStatus(region);
  std::vector<SyncCalls::Waited> waited;
  const double began = cloud_.time();
  sync_.settle(regions, waited);
  reportApplied("", "grant of a lock", cloud_.time() - began);
  answerWaited(waited);
}

void Service::Impl::answerWaited(const std::vector<SyncCalls::Waited>& waited) {
  for (const SyncCalls::Waited& each : waited) {
    answer(each.ticket, true, each.refusal ? replyOf(*each.refusal) : jsonReply(each.body));
  }
}

void Service::Impl::noteStatus(const std::string& region) {
  if (settings_.observer == nullptr) return;
  const Place place{"regionStatus", region};
  const OutputPart part = cloud_.session().outputAt(place);
  if (part.depth < 2) {
    statuses_.erase(region);
    return;
  }
  const std::string now(*part.document.regionStatus->front().syncStatus);
  std::string& before = statuses_[region];
  if (before == now) return;
  if (!before.empty()) settings_.observer->onSyncStatus(region, before, now);
  before = now;
}

}  // namespace vnagent
