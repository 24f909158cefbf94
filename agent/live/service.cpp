#include "agent/live/service.h"

#include <algorithm>
#include <array>
#include <deque>
#include <limits>
#include <list>
#include <unordered_map>
#include <utility>

#include <malloc.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "agent/json/json_writer.h"
#include "agent/live/body.h"
#include "agent/live/changes.h"
#include "agent/live/conditions.h"
#include "agent/live/live_cloud.h"
#include "agent/live/open_api.h"
#include "agent/live/problem.h"
#include "agent/live/remembered.h"
#include "agent/live/route.h"
#include "agent/live/sync_calls.h"
#include "agent/live/trace_tail.h"
#include "agent/live/view.h"
#include "agent/live/watch.h"
#include "agent/output/inspection.h"

namespace vnagent {
namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();
constexpr size_t kMaxKeyBytes = 64;

// A snapshot is taken when a restart would have more than this to play back.
constexpr uint64_t kRecordsBetweenSnapshots = 5'000;
constexpr uint64_t kBytesBetweenSnapshots = uint64_t{8} << 20;

// What a large change leaves behind in the allocator is given back to the system.
constexpr size_t kLargeBytes = size_t{4} << 20;

// Headers of which a request has one at most.
constexpr std::array<std::string_view, 5> kSingleHeaders{
    "content-type", "idempotency-key", "last-event-id", "sync-request-id", "authorization"};

Reply jsonReply(std::string body, unsigned status = 200) {
  Reply reply;
  reply.status = status;
  reply.headers = {{"content-type", "application/json"}};
  reply.body = std::make_shared<const std::string>(std::move(body));
  return reply;
}

// A request while it is worked on.
struct Exchange {
  Service::Ticket ticket = 0;
  Request request;
  Route route = {};
  Parameters parameters = {};
  Conditions conditions = {};
  std::optional<JsonTree> body = {};

  const Principal& principal() const { return *request.principal; }
  bool reads() const { return request.method == "GET" || request.method == "HEAD"; }
  bool isChange() const {
    return !reads() && (route.subject == Subject::kCloud || route.subject == Subject::kBatch);
  }
  bool isSyncCall() const {
    return route.subject == Subject::kSyncLock || route.subject == Subject::kSyncStart ||
           route.subject == Subject::kSyncHeartbeat || route.subject == Subject::kSyncComplete;
  }
  bool writes() const { return isChange() || isSyncCall(); }
  std::string what() const { return request.method + ' ' + route.name; }
};

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

std::string encode(const Snapshot& snapshot) {
  return std::to_string(snapshot.cloud.size()) + ' ' + std::to_string(snapshot.output.size()) +
         '\n' + snapshot.cloud + snapshot.output + snapshot.state;
}
void decode(const std::string& text, Snapshot& snapshot) {
  size_t end = 0;
  const size_t cloud = std::stoul(text, &end);
  const size_t output = std::stoul(text.substr(end, text.find('\n') - end));
  const size_t begin = text.find('\n') + 1;
  snapshot.cloud = text.substr(begin, cloud);
  snapshot.output = text.substr(begin + cloud, output);
  snapshot.state = text.substr(begin + cloud + output);
}

}  // namespace

class Service::Impl {
 public:
  Impl(const ServiceSettings& settings, const Kiv::TimeSource& clock, Storage* storage,
       Recovered recovered);

  void handle(Ticket ticket, Request request, Answer answer);
  void abandon(Ticket ticket);
  double nextTimer() const;
  void turn();
  void durableIs(uint64_t sequence);
  void storageFailed(uint64_t sequence, const std::string& reason);
  void storageIsWritable();
  void stop();
  ServiceFigures figures() const;
  bool isIdle() const { return isStopping_ && answers_.empty(); }

 private:
  // A reply that shows what is not durable yet.
  struct HeldReply {
    uint64_t sequence;
    Ticket ticket;
    bool writes;
    Reply reply;
  };
  // A read that waits for a revision.
  struct WaitingRead {
    Exchange exchange;
    double deadline;
  };

  std::optional<Refusal> check(Exchange& exchange);
  std::optional<Refusal> checkHeaders(const Request& request) const;
  static std::optional<Refusal> checkRoute(const Exchange& exchange);
  std::optional<Refusal> checkRole(const Exchange& exchange) const;
  std::optional<Refusal> readBody(Exchange& exchange);

  void dispatch(Exchange exchange);
  void answerAgent(const Exchange& exchange);
  void answerRead(Exchange exchange);
  void answerInspection(const Exchange& exchange);
  void answerTrace(const Exchange& exchange);
  void answerWatch(const Exchange& exchange);
  std::optional<Refusal> readSince(const Exchange& exchange, std::optional<uint64_t>& since) const;

  void change(Exchange exchange);
  Reply makeChange(const Exchange& exchange);
  void dryRun(Exchange exchange);
  Reply runDry(const Exchange& exchange);
  void callSync(const Exchange& exchange);

  // The reply that is remembered for the request's key, or why the key is refused.
  std::optional<Reply> recall(const Exchange& exchange) const;
  void remember(const Exchange& exchange, Record& record, unsigned status,
                const std::string& body) const;
  void rememberAlone(const Exchange& exchange, unsigned status, const std::string& body);

  void refuse(const Exchange& exchange, const Refusal& refusal);
  void answer(const Exchange& exchange, Reply reply);
  void answer(Ticket ticket, bool writes, Reply reply);
  void deliver(Ticket ticket, Reply reply);

  // After a step: locks go to who waits, and all that follows from that.
  void settle(const std::vector<std::string>& regions);
  void answerWaited(const std::vector<SyncCalls::Waited>& waited);
  void afterStep();
  void showDurable(uint64_t revision);
  void noteStatus(const std::string& region);
  void takeSnapshot();
  void keepSnapshot();

  ServiceSettings settings_;
  Storage* storage_;
  std::string instance_;
  LiveCloud cloud_;
  Changes changes_;
  SyncCalls sync_;
  Watches watches_;
  TraceTails tails_;
  RememberedReplies remembered_;
  double started_;

  std::unordered_map<Ticket, Answer> answers_;
  std::deque<HeldReply> held_;
  std::list<WaitingRead> reads_;
  std::map<std::string, std::string, std::less<>> statuses_;  // the regions' sync status, for logs
  uint64_t durable_ = 0;                                      // the last durable sequence
  bool isBlocked_ = false;                                    // nothing can be stored
  std::string blockedFor_;                                    // why, for clients
  bool isStopping_ = false;
  bool isTakingSnapshot_ = false;
  uint64_t snapshotBytes_ = 0;        // of the last snapshot
  std::optional<Snapshot> snapshot_;  // waits until its record is durable
  // Runs out with the service: what comes later from another thread is dropped.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

Service::Impl::Impl(const ServiceSettings& settings, const Kiv::TimeSource& clock, Storage* storage,
                    Recovered recovered)
    : settings_(settings),
      storage_(storage),
      instance_(std::move(recovered.instance)),
      cloud_(settings, clock, storage, recovered),
      changes_(cloud_, settings.requireLock),
      sync_(cloud_, changes_, settings.observer),
      watches_(cloud_),
      started_(cloud_.time()) {
  if (instance_.empty()) instance_ = boost::uuids::to_string(boost::uuids::random_generator()());
  for (const Record& record : recovered.history) remembered_.add(record);
  for (const Record& record : recovered.records) remembered_.add(record);
  for (const auto& [name, region] : cloud_.document().region) noteStatus(name);
  snapshotBytes_ = recovered.snapshot.cloud.size() + recovered.snapshot.output.size();
  if (storage_ == nullptr) durable_ = std::numeric_limits<uint64_t>::max();
  showDurable(cloud_.revision());
  recovered = {};
  ::malloc_trim(0);
}

// Requests.

void Service::Impl::handle(Ticket ticket, Request request, Answer answer) {
  answers_.emplace(ticket, std::move(answer));
  Exchange exchange;
  exchange.ticket = ticket;
  exchange.request = std::move(request);
  if (auto refusal = check(exchange)) {
    refuse(exchange, *refusal);
    return;
  }
  dispatch(std::move(exchange));
}

// In the order in which a request is refused, up to its body.
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

void Service::Impl::dispatch(Exchange exchange) {
  switch (exchange.route.subject) {
    case Subject::kAgent:
      return answerAgent(exchange);
    case Subject::kCloud:
    case Subject::kOutput:
      return exchange.reads() ? answerRead(std::move(exchange)) : change(std::move(exchange));
    case Subject::kBatch:
      return change(std::move(exchange));
    case Subject::kSync:
    case Subject::kSyncLock:
    case Subject::kSyncStart:
    case Subject::kSyncHeartbeat:
    case Subject::kSyncComplete:
      return callSync(exchange);
    case Subject::kWatch:
      return answerWatch(exchange);
    case Subject::kInspect:
      return answerInspection(exchange);
    case Subject::kTrace:
      return answerTrace(exchange);
    case Subject::kTraceTail: {
      Reply reply;
      reply.headers = {{"content-type", "text/event-stream"}};
      reply.stream = tails_.newTail();
      return answer(exchange, std::move(reply));
    }
    case Subject::kMetrics: {
      if (!settings_.metrics) return refuse(exchange, {"not-found", "there are no metrics"});
      Reply reply;
      reply.headers = {{"content-type", "text/plain; version=0.0.4; charset=utf-8"}};
      reply.body = std::make_shared<const std::string>(settings_.metrics());
      return answer(exchange, std::move(reply));
    }
    case Subject::kOpenApi:
      return answer(exchange, jsonReply(std::string(openApi())));
    case Subject::kNothing:
      return;
  }
}

// Reads.

void Service::Impl::answerAgent(const Exchange& exchange) {
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kOneLine);
  json.open('{').key("name").text("vnagent").key("version").text(settings_.version);
  json.key("api").number(uint64_t{1}).key("instance").text(instance_);
  json.key("revision").number(cloud_.revision());
  json.key("check").text(cloud_.history().check(cloud_.revision()));
  json.key("uptime").number(cloud_.time() - started_);
  json.key("durable").boolean(storage_ != nullptr).key("toggle").boolean(settings_.toggle);
  json.key("requireLock").boolean(settings_.requireLock);
  json.key("principal").text(exchange.principal().name);
  json.key("role").text(exchange.principal().roleText());
  json.close('}');
  answer(exchange, jsonReply(std::move(text)));
}

void Service::Impl::answerRead(Exchange exchange) {
  const auto& wait = exchange.parameters.wait;
  if (wait && watches_.visible() < *wait) {
    const double deadline = cloud_.time() + exchange.parameters.timeout;
    if (exchange.parameters.timeout <= 0) {
      return refuse(exchange, {"not-yet", "the agent is not at the revision yet"});
    }
    reads_.push_back({std::move(exchange), deadline});
    return;
  }
  const bool isCloud = exchange.route.subject == Subject::kCloud;
  const Place& place = exchange.route.place;
  auto text = isCloud ? readCloudAs(cloud_.document(), place, exchange.principal())
                      : readOutputAs(cloud_.session(), place, exchange.principal());
  if (!text) return refuse(exchange, {"not-found", "there is nothing at this place"});
  const uint64_t etag = isCloud && place.size() >= 2 ? cloud_.etags().of(place) : cloud_.revision();
  if (auto refusal = exchange.conditions.refuseRead(etag)) return refuse(exchange, *refusal);
  Reply reply;
  if (exchange.conditions.isNotModified(etag)) {
    reply.status = 304;
  } else {
    reply = jsonReply(std::move(*text));
  }
  reply.headers.emplace_back("etag", etagText(etag));
  reply.headers.emplace_back("vnagent-revision", std::to_string(cloud_.revision()));
  answer(exchange, std::move(reply));
}

void Service::Impl::answerInspection(const Exchange& exchange) {
  const Place path = exchange.route.place.empty() ? Place{"openStackSm"} : exchange.route.place;
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kIndented);
  if (const auto fault =
          writeInspection(cloud_.session().root(), "openStackSm", pointerOf(path), json)) {
    return refuse(exchange, {"not-found", *fault});
  }
  text += '\n';
  answer(exchange, jsonReply(std::move(text)));
}

void Service::Impl::answerTrace(const Exchange& exchange) {
  if (!exchange.reads()) {
    const JsonValue& body = exchange.body->root();
    const JsonValue* level = body.isObject() && body.size == 1 ? body.find("level") : nullptr;
    if (level == nullptr || level->kind != JsonValue::Kind::kInteger || level->integer < 0 ||
        level->integer > 9) {
      return refuse(exchange, {"bad-request", "the body is {\"level\": N}, N being 0 to 9"});
    }
    TraceTails::levelIs(static_cast<int>(level->integer));
  }
  answer(exchange, jsonReply("{\"level\": " + std::to_string(TraceTails::level()) + '}'));
}

std::optional<Refusal> Service::Impl::readSince(const Exchange& exchange,
                                                std::optional<uint64_t>& since) const {
  if (!exchange.parameters.since) return std::nullopt;
  const std::string& text = *exchange.parameters.since;
  const size_t dash = text.find('-');
  const std::string digits = text.substr(0, dash);
  const std::string check = dash == text.npos ? "" : text.substr(dash + 1);
  const bool isId =
      !digits.empty() && digits.size() < 20 &&
      digits.find_first_not_of("0123456789") == digits.npos &&
      (dash == text.npos || (check.size() == kFirstCheck.size() &&
                             check.find_first_not_of("0123456789abcdef") == check.npos));
  if (!isId) return Refusal{"bad-request", "since is the id of an event"};
  const uint64_t revision = std::stoull(digits);
  if (revision > watches_.visible()) {
    return Refusal{
        "behind", "the agent is at an earlier revision", {}, false, {}, {{"retry-after", "1"}}};
  }
  const History& history = cloud_.history();
  const bool isKept = revision >= history.first();
  const bool isSame = isKept && (dash == text.npos || check == history.check(revision));
  if (!isSame) return Refusal{"gone", "the revision cannot be resumed from"};
  since = revision;
  return std::nullopt;
}

void Service::Impl::answerWatch(const Exchange& exchange) {
  WatchSettings settings;
  settings.document = exchange.parameters.ofCloud ? Document::kCloud : Document::kOutput;
  settings.places = exchange.parameters.at;
  settings.principal = exchange.principal();
  if (auto refusal = readSince(exchange, settings.since)) return refuse(exchange, *refusal);
  Reply reply;
  reply.headers = {{"content-type", "text/event-stream"}, {"cache-control", "no-store"}};
  reply.stream = std::make_unique<Watch>(watches_, std::move(settings));
  // The stream shows nothing that is not durable, so that it may begin at once.
  deliver(exchange.ticket, std::move(reply));
}

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

void Service::Impl::remember(const Exchange& exchange, Record& record, unsigned status,
                             const std::string& body) const {
  const std::string* key = exchange.request.header("idempotency-key");
  if (key == nullptr) return;
  record.principal = exchange.principal().name;
  record.key = *key;
  record.fingerprint = fingerprintOf(exchange.request);
  record.status = status;
  record.reply = body;
}

void Service::Impl::rememberAlone(const Exchange& exchange, unsigned status,
                                  const std::string& body) {
  if (exchange.request.header("idempotency-key") == nullptr) return;
  cloud_.remember([&](Record& record) {
    remember(exchange, record, status, body);
    remembered_.add(record);
  });
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
  const double began = settings_.observer == nullptr ? 0 : cloud_.time();
  ChangeRequest change{exchange.request, exchange.route, exchange.conditions, exchange.body};
  ChangeReply made =
      changes_.make(change, [&](Record& record, unsigned status, const std::string& body) {
        remember(exchange, record, status, body);
        remembered_.add(record);
      });
  settle(made.regions);
  if (made.refusal) {
    if (settings_.observer != nullptr) {
      settings_.observer->onRefused(exchange.principal().name, exchange.what(), made.refusal->type);
    }
    return replyOf(*made.refusal);
  }
  if (!made.isRemembered) rememberAlone(exchange, made.status, made.body);
  if (settings_.observer != nullptr) {
    settings_.observer->onApplied(cloud_.revision(), exchange.principal().name, exchange.what(),
                                  cloud_.time() - began);
  }
  return jsonReply(std::move(made.body), made.status);
}

// In a copy of the process the change is made like any other.
void Service::Impl::dryRun(Exchange exchange) {
  const auto run = [&] { return encode(runDry(exchange)); };
  const Ticket ticket = exchange.ticket;
  runInCopy(
      run,
      [this, ticket, alive = std::weak_ptr<bool>(alive_)](const std::string& text) {
        if (alive.expired()) return;
        answer(ticket, false,
               text.empty() ? replyOf({"not-ready", "the dry run has failed"}) : decode(text));
      },
      settings_.post);
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
  SyncCalls::Outcome outcome =
      takes ? sync_.lock(region, lock, exchange.principal(), exchange.ticket, {})
            : sync_.call(exchange.route.subject, region, id, exchange.parameters.force,
                         exchange.principal(), {});
  if (outcome.refusal) {
    refuse(exchange, *outcome.refusal);
  } else if (!outcome.body.empty()) {
    rememberAlone(exchange, 200, outcome.body);
    answer(exchange, jsonReply(std::move(outcome.body)));
  }
  settle(outcome.regions);
  afterStep();
}

void Service::Impl::settle(const std::vector<std::string>& regions) {
  for (const std::string& region : regions) noteStatus(region);
  std::vector<SyncCalls::Waited> waited;
  sync_.settle(regions, waited);
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

// Answers.

void Service::Impl::refuse(const Exchange& exchange, const Refusal& refusal) {
  if (settings_.observer != nullptr) {
    settings_.observer->onRefused(exchange.request.principal ? exchange.principal().name : "",
                                  exchange.what(), refusal.type);
  }
  answer(exchange, replyOf(refusal));
}

void Service::Impl::answer(const Exchange& exchange, Reply reply) {
  answer(exchange.ticket, exchange.writes(), std::move(reply));
}

void Service::Impl::answer(Ticket ticket, bool writes, Reply reply) {
  if (cloud_.sequence() <= durable_) {
    deliver(ticket, std::move(reply));
  } else {
    held_.push_back({cloud_.sequence(), ticket, writes, std::move(reply)});
  }
}

void Service::Impl::deliver(Ticket ticket, Reply reply) {
  const auto found = answers_.find(ticket);
  if (found == answers_.end()) return;
  const Answer answer = std::move(found->second);
  answers_.erase(found);
  answer(std::move(reply));
}

void Service::Impl::abandon(Ticket ticket) {
  answers_.erase(ticket);
  sync_.abandon(ticket);
  reads_.remove_if([&](const WaitingRead& read) { return read.exchange.ticket == ticket; });
}

// Time.

double Service::Impl::nextTimer() const {
  double next = isBlocked_ ? kNever : cloud_.nextTimer();
  next = std::min({next, sync_.nextTimer(), watches_.nextTimer()});
  for (const WaitingRead& read : reads_) next = std::min(next, read.deadline);
  return next == kNever ? kNever : cloud_.clockTime(next);
}

void Service::Impl::turn() {
  while (!isBlocked_) {
    const auto step = cloud_.expire();
    if (!step) break;
    if (settings_.observer != nullptr) {
      settings_.observer->onApplied(cloud_.revision(), "", "expiry", 0);
    }
    settle(step->regions);
  }
  std::vector<SyncCalls::Waited> waited;
  sync_.turn(waited);
  answerWaited(waited);
  for (auto read = reads_.begin(); read != reads_.end();) {
    if (read->deadline > cloud_.time()) {
      ++read;
      continue;
    }
    refuse(read->exchange, {"not-yet", "the agent is not at the revision yet"});
    read = reads_.erase(read);
  }
  watches_.turn();
  afterStep();
}

// Storage.

void Service::Impl::afterStep() {
  tails_.revisionIs(cloud_.revision());
  if (storage_ == nullptr) showDurable(cloud_.revision());
  takeSnapshot();
}

void Service::Impl::showDurable(uint64_t revision) {
  if (revision == watches_.visible() && reads_.empty()) return;
  watches_.visibleIs(revision);
  std::list<WaitingRead> ready;
  for (auto read = reads_.begin(); read != reads_.end();) {
    const auto next = std::next(read);
    if (*read->exchange.parameters.wait <= revision) ready.splice(ready.end(), reads_, read);
    read = next;
  }
  for (WaitingRead& read : ready) answerRead(std::move(read.exchange));
}

void Service::Impl::durableIs(uint64_t sequence) {
  durable_ = std::max(durable_, sequence);
  const uint64_t revision = cloud_.durableIs(durable_);
  while (!held_.empty() && held_.front().sequence <= durable_) {
    HeldReply held = std::move(held_.front());
    held_.pop_front();
    deliver(held.ticket, std::move(held.reply));
  }
  showDurable(revision);
  keepSnapshot();
}

void Service::Impl::storageFailed(uint64_t sequence, const std::string& reason) {
  durableIs(sequence);
  isBlocked_ = true;
  blockedFor_ = reason;
  snapshot_.reset();
  cloud_.goBackTo(durable_);
  remembered_.truncate(durable_);
  for (HeldReply& held : std::exchange(held_, {})) {
    deliver(held.ticket, replyOf(held.writes ? Refusal{"no-space", blockedFor_}
                                             : Refusal{"not-ready", "changes were taken back"}));
  }
  std::vector<std::string> regions;
  for (const auto& [name, region] : cloud_.document().region) regions.push_back(name);
  for (const std::string& region : regions) noteStatus(region);
  watches_.goneBack();
}

void Service::Impl::storageIsWritable() {
  if (!isBlocked_) return;
  isBlocked_ = false;
  cloud_.resume();
  turn();
}

void Service::Impl::takeSnapshot() {
  if (storage_ == nullptr || isTakingSnapshot_ || isBlocked_) return;
  const bool isDue =
      cloud_.recordsSinceSnapshot() >= kRecordsBetweenSnapshots ||
      cloud_.bytesSinceSnapshot() >= std::max(kBytesBetweenSnapshots, snapshotBytes_);
  if (!isDue) return;
  isTakingSnapshot_ = true;
  const auto run = [&] { return encode(cloud_.snapshot()); };
  Snapshot taken;
  taken.sequence = cloud_.sequence();
  taken.revision = cloud_.revision();
  taken.check = cloud_.check();
  cloud_.snapshotTaken();
  runInCopy(
      run,
      [this, taken, alive = std::weak_ptr<bool>(alive_)](const std::string& text) mutable {
        if (alive.expired()) return;
        isTakingSnapshot_ = false;
        if (text.empty() || isBlocked_) return;
        decode(text, taken);
        snapshotBytes_ = text.size();
        snapshot_ = std::move(taken);
        keepSnapshot();
      },
      settings_.post);
}

void Service::Impl::keepSnapshot() {
  if (!snapshot_ || snapshot_->sequence > durable_) return;
  storage_->snapshot(std::move(*snapshot_));
  snapshot_.reset();
}

void Service::Impl::stop() {
  isStopping_ = true;
  const Refusal refusal{"not-ready", "the agent is stopping"};
  std::vector<SyncCalls::Waited> waited;
  sync_.refuseAll(refusal, waited);
  answerWaited(waited);
  for (const WaitingRead& read : std::exchange(reads_, {})) refuse(read.exchange, refusal);
  watches_.end();
  tails_.end();
}

ServiceFigures Service::Impl::figures() const {
  ServiceFigures figures;
  figures.revision = cloud_.revision();
  figures.durableRevision = watches_.visible();
  for (const auto& [name, region] : cloud_.document().region) {
    const Place place{"regionStatus", name};
    const OutputPart part = cloud_.session().outputAt(place);
    if (part.depth < 2) continue;
    ++figures.regionsBySyncStatus[std::string(*part.document.regionStatus->front().syncStatus)];
  }
  figures.locksHeld = sync_.held();
  figures.locksWaitedFor = sync_.waiting();
  figures.watchers = watches_.count();
  figures.watchersLag = watches_.largestLag();
  return figures;
}

// The service.

Service::Service(const ServiceSettings& settings, const Kiv::TimeSource& clock, Storage* storage,
                 Recovered recovered)
    : impl_(std::make_unique<Impl>(settings, clock, storage, std::move(recovered))) {}

Service::~Service() = default;

Service::Ticket Service::handle(Request request, Answer answer) {
  const Ticket ticket = ++lastTicket_;
  impl_->handle(ticket, std::move(request), std::move(answer));
  return ticket;
}

void Service::abandon(Ticket ticket) {
  impl_->abandon(ticket);
}

double Service::nextTimer() const {
  return impl_->nextTimer();
}

void Service::turn() {
  impl_->turn();
}

void Service::durableIs(uint64_t sequence) {
  impl_->durableIs(sequence);
}

void Service::storageFailed(uint64_t sequence, const std::string& reason) {
  impl_->storageFailed(sequence, reason);
}

void Service::storageIsWritable() {
  impl_->storageIsWritable();
}

void Service::stop() {
  impl_->stop();
}

ServiceFigures Service::figures() const {
  return impl_->figures();
}

bool Service::isIdle() const {
  return impl_->isIdle();
}

}  // namespace vnagent
