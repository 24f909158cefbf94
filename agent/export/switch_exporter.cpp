#include "agent/export/switch_exporter.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

namespace vnagent {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kFirstRetry = std::chrono::milliseconds(50);
constexpr auto kLongestRetry = std::chrono::milliseconds(10'000);
// A transaction that was refused so often is not refused because of what changed meanwhile.
constexpr unsigned kPatience = 2;

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

ovsdb::ClientSettings settingsOf(const ExportMap& map, const ExportMap::Switch& one,
                                 ExportMode mode) {
  ovsdb::ClientSettings settings;
  settings.address = ovsdb::Address::parse(one.database);
  settings.tls = {map.tls.certificate, map.tls.privateKey, map.tls.authorities};
  settings.database = "hardware_vtep";
  if (mode != ExportMode::kReport) settings.lock = kExportLock;
  settings.tables = Replica::tables();
  return settings;
}

size_t sizeOf(const SwitchChanges& changes) {
  return changes.bindings.size() + changes.logicalSwitches.size();
}

// The second half of the changes, which the first loses.
SwitchChanges halved(SwitchChanges& changes) {
  SwitchChanges second;
  const auto move = [](auto& from, auto& to, size_t keep) {
    to.assign(from.begin() + static_cast<std::ptrdiff_t>(keep), from.end());
    from.erase(from.begin() + static_cast<std::ptrdiff_t>(keep), from.end());
  };
  // A Logical_Switch takes its bindings along, so that the two kinds are separated first.
  if (!changes.bindings.empty() && !changes.logicalSwitches.empty()) {
    move(changes.bindings, second.bindings, 0);
  } else {
    move(changes.bindings, second.bindings, changes.bindings.size() / 2);
    move(changes.logicalSwitches, second.logicalSwitches, changes.logicalSwitches.size() / 2);
  }
  return second;
}

}  // namespace

SwitchExporter::SwitchExporter(boost::asio::io_context& context, const ExportMap& map,
                               Desired& desired, size_t index, ExportMode mode, Problems& problems,
                               Hooks hooks)
    : desired_(desired),
      index_(index),
      mode_(mode),
      database_(map.switches.at(desired.at(index).name).database),
      isAddressGiven_(!desired.at(index).tunnelAddress.empty()),
      problems_(problems),
      hooks_(std::move(hooks)),
      replica_(map.switches.at(desired.at(index).name).physicalSwitch, desired.at(index),
               desired.changesOf(index)),
      planner_(desired, index, replica_, mode, problems),
      client_(context, settingsOf(map, map.switches.at(desired.at(index).name), mode), *this),
      retry_(context) {}

SwitchExporter::~SwitchExporter() = default;

void SwitchExporter::start() {
  client_.start();
}

void SwitchExporter::stop() {
  retry_.cancel();
  client_.stop();
}

void SwitchExporter::kick() {
  isKicked_ = true;
  SwitchChanges& marked = desired_.changesOf(index_);
  if (sizeOf(marked) > mostMarked_) {
    // It repeats itself while nothing can be sent.
    marked.normalise();
    mostMarked_ = std::max(kMostMarked, 2 * sizeOf(marked));
  }
  if (!client_.isReady()) return;
  if (mode_ == ExportMode::kReport) {
    report();
    return;
  }
  if (!mayWrite()) return;
  if (!marked.empty()) {
    Batch batch;
    std::swap(batch.changes, marked);
    queue_.push_back(std::move(batch));
  }
  const bool isBusy = sendNext();
  if (!isBusy) hooks_.settled();
}

bool SwitchExporter::isSynced() const {
  if (!client_.isReady()) return false;
  if (mode_ == ExportMode::kReport) return isReported_;
  return mayWrite() && queue_.empty() && waiting_.empty() && desired_.changesOf(index_).empty();
}

SwitchFigures SwitchExporter::figures() const {
  SwitchFigures figures = figures_;
  figures.bytesSent = client_.bytesSent();
  figures.bytesReceived = client_.bytesReceived();
  return figures;
}

void SwitchExporter::onReset() {
  replica_.reset();
}

void SwitchExporter::onRow(const ovsdb::RowChange& change) {
  replica_.apply(change);
}

void SwitchExporter::onReady() {
  hasReplicationMode_ = client_.hasColumn("Logical_Switch", "replication_mode");
  problems_.clear(ProblemKind::kUnreachable, problemPlace());
  hooks_.log(fmt::format("{}: connected to {}", name(), database_));
  settle();
  if (isKicked_) kick();
  hooks_.settled();
}

void SwitchExporter::onUpdated() {
  settle();
  if (isKicked_) kick();
}

void SwitchExporter::onLock(bool isHeld) {
  hasLock_ = isHeld;
  if (isHeld) {
    problems_.clear(ProblemKind::kLocked, problemPlace());
    if (isKicked_) kick();
  } else {
    problems_.set(ProblemKind::kLocked, problemPlace(),
                  fmt::format("{}: another exporter has the lock \"{}\"; nothing is written",
                              name(), kExportLock));
  }
  hooks_.settled();
}

void SwitchExporter::onLost(const std::string& reason) {
  hasLock_ = false;
  problems_.clear(ProblemKind::kLocked, problemPlace());
  // What was under way may be done or not, and what waits is compared again.
  SwitchChanges& marked = desired_.changesOf(index_);
  if (isInFlight_) marked.append(inFlight_.changes);
  for (const auto* batches : {&queue_, &waiting_}) {
    for (const Batch& batch : *batches) marked.append(batch.changes);
  }
  isInFlight_ = false;
  inFlight_ = {};
  queue_.clear();
  waiting_.clear();
  retry_.cancel();
  problems_.set(ProblemKind::kUnreachable, problemPlace(),
                fmt::format("{}: {}: {}", name(), database_, reason));
  hooks_.settled();
}

// After rows have changed.
void SwitchExporter::settle() {
  replica_.settle();
  if (replica_.hasSwitch()) {
    problems_.clear(ProblemKind::kMissingSwitch, problemPlace());
  } else {
    problems_.set(ProblemKind::kMissingSwitch, problemPlace(),
                  fmt::format("{}: the database has no Physical_Switch of that name", name()));
  }
  const std::string address = replica_.tunnelAddress();
  if (isAddressGiven_) return;
  if (address.empty()) {
    problems_.set(
        ProblemKind::kNoTunnelAddress, problemPlace(),
        fmt::format("{}: no tunnel address, so that no other switch sends to it", name()));
    return;
  }
  problems_.clear(ProblemKind::kNoTunnelAddress, problemPlace());
  if (desired_.at(index_).tunnelAddress == address) return;
  desired_.tunnelAddressIs(index_, address);
  hooks_.desiredChanged();
}

bool SwitchExporter::mayWrite() const {
  return client_.isReady() && hasLock_ && !isInFlight_;
}

void SwitchExporter::report() {
  SwitchChanges& marked = desired_.changesOf(index_);
  marked.normalise();
  // The marks stay: with a second report all is compared again.
  const SwitchPlan plan = planner_.plan(marked, hasReplicationMode_);
  differences_ = plan.differences;
  isReported_ = true;
  hooks_.settled();
}

// Sends the next batch that has work in it. Returns whether one is under way.
bool SwitchExporter::sendNext() {
  while (!queue_.empty()) {
    Batch batch = std::move(queue_.front());
    queue_.pop_front();
    if (send(std::move(batch))) return true;
  }
  return false;
}

bool SwitchExporter::send(Batch batch) {
  const auto begin = Clock::now();
  batch.changes.normalise();
  SwitchPlan plan = planner_.plan(batch.changes, hasReplicationMode_);
  if (plan.empty()) {
    figures_.planned += secondsSince(begin);
    return false;
  }
  plan.operations.insert(0, fmt::format(R"({{"op":"assert","lock":"{}"}},)", kExportLock));
  inFlight_ = std::move(batch);
  isInFlight_ = true;
  ++figures_.transactions;
  sentAt_ = Clock::now();
  client_.transact(plan.operations,
                   [this](const ovsdb::JsonElement* result, const ovsdb::JsonElement& error) {
                     taken(ovsdb::errorOfTransaction(result, error));
                   });
  plan.operations = {};
  inFlightPlan_ = std::move(plan);
  figures_.planned += secondsSince(begin);
  return true;
}

void SwitchExporter::taken(const std::string& fault) {
  figures_.waited += secondsSince(sentAt_);
  isInFlight_ = false;
  Batch batch = std::exchange(inFlight_, {});
  if (fault.empty()) {
    hooks_.log(fmt::format("{}: {}", name(), inFlightPlan_.summary()));
    if (waiting_.empty()) {
      retries_ = 0;
      problems_.clear(ProblemKind::kRefused, problemPlace());
    }
  } else {
    ++figures_.failures;
    failed(std::move(batch), fault);
  }
  kick();
}

void SwitchExporter::failed(Batch batch, const std::string& fault) {
  ++batch.failures;
  if (batch.failures < kPatience) {
    waiting_.push_back(std::move(batch));
  } else if (sizeOf(batch.changes) > 1) {
    Batch second{halved(batch.changes), batch.failures};
    queue_.push_front(std::move(second));
    queue_.push_front(std::move(batch));
  } else {
    problems_.set(ProblemKind::kRefused, problemPlace(),
                  fmt::format("{}: the database refuses a change: {}", name(), fault));
    waiting_.push_back(std::move(batch));
  }
  retryLater();
}

void SwitchExporter::retryLater() {
  if (waiting_.empty()) return;
  const auto pause =
      std::min<Clock::duration>(kFirstRetry * (1 << std::min(retries_, 10U)), kLongestRetry);
  ++retries_;
  retry_.expires_after(pause);
  retry_.async_wait([this](boost::system::error_code error) {
    if (error) return;
    for (Batch& batch : waiting_) queue_.push_back(std::move(batch));
    waiting_.clear();
    kick();
  });
}

}  // namespace vnagent
