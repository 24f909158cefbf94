#include "agent/live/service.h"

#include <algorithm>
#include <limits>
#include <utility>

#include <malloc.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "agent/live/detail/service_impl.h"
#include "agent/live/open_api.h"

namespace vnagent {
namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

// A snapshot is also taken when a restart would have more than this to play back.
constexpr uint64_t kBytesBetweenSnapshots = uint64_t{8} << 20;

std::string encode(const Snapshot& snapshot) {
  return std::to_string(snapshot.cloud.size()) + ' ' + std::to_string(snapshot.output.size()) +
         '\n' + snapshot.cloud + snapshot.output + snapshot.state;
}
void decode(const std::string& text, Snapshot& snapshot) {
  size_t end = 0;
  const size_t cloud = std::stoul(text, &end);
  const size_t line = text.find('\n');
  const size_t output = std::stoul(text.substr(end, line - end));
  const size_t begin = line + 1;
  snapshot.cloud = text.substr(begin, cloud);
  snapshot.output = text.substr(begin + cloud, output);
  snapshot.state = text.substr(begin + cloud + output);
}

}  // namespace

Reply jsonReply(std::string body, unsigned status) {
  Reply reply;
  reply.status = status;
  reply.headers = {{"content-type", "application/json"}};
  reply.body = std::make_shared<const std::string>(std::move(body));
  return reply;
}

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
  reported_ = cloud_.revision();
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
      callSync(exchange);
      return afterStep();
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

// Answers.

void Service::Impl::reportApplied(std::string_view principal, std::string_view what,
                                  double seconds) {
  const uint64_t count = cloud_.revision() - reported_;
  while (reported_ < cloud_.revision()) {
    ++reported_;
    if (settings_.observer == nullptr) continue;
    settings_.observer->onApplied(reported_, principal, what, seconds / static_cast<double>(count));
  }
}

void Service::Impl::reportRefused(const Exchange& exchange, std::string_view name) {
  if (settings_.observer == nullptr) return;
  const bool isKnown = exchange.request.principal.has_value();
  settings_.observer->onRefused(isKnown ? exchange.principal().name : "", exchange.what(), name);
}

void Service::Impl::refuse(const Exchange& exchange, const Refusal& refusal) {
  reportRefused(exchange, refusal.type);
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
    // A lock that goes with an expiry and whoever gets it next.
    const LiveCloud::Together together(cloud_);
    const auto step = cloud_.expire();
    if (!step) break;
    reportApplied("", "expiry", 0);
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
  ++timesGoneBack_;
  cloud_.goBackTo(durable_);
  reported_ = cloud_.revision();
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
      cloud_.recordsSinceSnapshot() >= settings_.recordsBetweenSnapshots ||
      cloud_.bytesSinceSnapshot() >= std::max(kBytesBetweenSnapshots, snapshotBytes_);
  if (!isDue) return;
  isTakingSnapshot_ = true;
  const auto run = [&] { return encode(cloud_.snapshot()); };
  Snapshot taken;
  taken.sequence = cloud_.sequence();
  taken.revision = cloud_.revision();
  taken.check = cloud_.check();
  cloud_.snapshotTaken();
  runCopy(run, [this, taken, times = timesGoneBack_,
                alive = std::weak_ptr<bool>(alive_)](const std::string& text) {
    // Large texts are taken apart here, and only handed over on the activity thread.
    const auto snapshot = std::make_shared<Snapshot>(taken);
    if (!text.empty()) decode(text, *snapshot);
    return [this, snapshot, times, alive, bytes = text.size()] {
      if (alive.expired()) return;
      isTakingSnapshot_ = false;
      if (bytes == 0 || times != timesGoneBack_) return;
      snapshotBytes_ = bytes;
      snapshot_ = std::move(*snapshot);
      keepSnapshot();
    };
  });
}

void Service::Impl::runCopy(const std::function<std::string()>& run, ReadCopy read) {
  if (settings_.inCopy) return settings_.inCopy(run, std::move(read));
  runInCopy(run, std::move(read), settings_.post);
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
  figures.notifications = Kiv::ActivityManager::instance().figures();
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
