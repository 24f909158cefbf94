#include "tests/sim/live/agent_process.h"

#include <cmath>
#include <exception>
#include <fstream>
#include <utility>

#include <fmt/format.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>

#include "agent/live/fork.h"

namespace sim {

using vnagent::Record;
using vnagent::Reply;
using vnagent::Snapshot;

namespace {

// Requests of the simulation itself, not of a client.
constexpr uint64_t kOwnRequests = 1'000'000'000;
constexpr Nanoseconds kSweepInterval = 500 * kMillisecond;
// How much later than it is due a timer may fire: what rounding can cause.
constexpr Nanoseconds kLatest = kMillisecond;

std::string headerOf(const Reply& reply, std::string_view name) {
  for (const auto& [key, value] : reply.headers) {
    if (key == name) return value;
  }
  return {};
}

Nanoseconds nanoseconds(std::chrono::steady_clock::time_point time) {
  if (time == std::chrono::steady_clock::time_point::min()) return 0;
  if (time == std::chrono::steady_clock::time_point::max()) return kNever;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

}  // namespace

// Notes what is appended, and passes it on.
class AgentProcess::Recorder final : public vnagent::Storage {
 public:
  Recorder(AgentProcess& agent, vnagent::Storage& journal, uint64_t sequence, uint64_t revision)
      : agent_(agent), journal_(journal) {
    revisions_[sequence] = revision;
  }

  void append(std::vector<std::shared_ptr<const Record>> records) override {
    auto& outputs = agent_.knowledge_.outputs;
    std::vector<uint64_t> expiries;
    for (const auto& record : records) {
      revisions_[record->sequence] = record->revision;
      if (record->kind == Record::Kind::kExpiry) expiries.push_back(record->revision);
      if (record->revision != outputs.size()) continue;
      outputs.push_back(outputs.back());
      if (!record->output.empty()) outputs.back().merge_patch(Json::parse(record->output));
    }
    hasWritten_ = true;
    for (const uint64_t revision : expiries) agent_.timerFired(revision);
    journal_.append(std::move(records));
  }
  void read(uint64_t first, uint64_t last,
            const std::function<bool(const Record&)>& take) const override {
    journal_.read(first, last, take);
  }
  void snapshot(Snapshot snapshot) override {
    agent_.world_.note(fmt::format("snapshot of revision {}", snapshot.revision));
    journal_.snapshot(std::move(snapshot));
  }

  uint64_t revisionOf(uint64_t sequence) const {
    return std::prev(revisions_.upper_bound(sequence))->second;
  }
  void truncate(uint64_t sequence) {
    revisions_.erase(revisions_.upper_bound(sequence), revisions_.end());
  }
  // Since the last call.
  bool takeHasWritten() { return std::exchange(hasWritten_, false); }

 private:
  AgentProcess& agent_;
  vnagent::Storage& journal_;
  std::map<uint64_t, uint64_t> revisions_;  // by sequence
  bool hasWritten_ = false;
};

class AgentProcess::Observer final : public vnagent::ServiceObserver {
 public:
  explicit Observer(AgentProcess& agent) : agent_(agent) {}

  void onLock(std::string_view region, std::string_view, std::string_view requester,
              std::string_view requestId, std::string_view decision) override {
    if (decision != "refused") return;
    agent_.knowledge_.model.lineTimedOut(std::string(region), std::string(requester),
                                         std::string(requestId));
    agent_.takeGranted();
  }

 private:
  AgentProcess& agent_;
};

// Shows each request to the model when the service takes it.
class AgentProcess::Handler final : public vnagent::RequestHandler {
 public:
  explicit Handler(AgentProcess& agent) : agent_(agent) {}

  uint64_t handle(vnagent::Request request, Answer answer) override {
    const std::string* name = request.header("sim-request");
    if (name == nullptr) {
      agent_.world_.fail("a request without its number arrived: " + request.target);
      return 0;
    }
    const uint64_t number = std::stoull(*name);
    Open open;
    open.text = {request.method, request.target, {}, request.body};
    for (const auto& [key, value] : request.headers) open.text.headers[key] = value;
    if (request.principal) open.principal = request.principal->name;
    const auto inserted = agent_.open_.insert_or_assign(number, std::move(open)).first;
    agent_.recorder_->takeHasWritten();
    const uint64_t ticket = agent_.host_->handle(
        std::move(request), [agent = &agent_, number, answer = std::move(answer)](Reply reply) {
          if (!agent->isEnding_) agent->answered(number, reply);
          answer(std::move(reply));
        });
    numbers_[ticket] = number;
    predict(number, inserted->second);
    return ticket;
  }
  void abandon(uint64_t ticket) override {
    const uint64_t number = numbers_[ticket];
    agent_.world_.note(fmt::format("request {} is abandoned", number));
    agent_.knowledge_.model.abandon(number);
    agent_.host_->abandon(ticket);
    agent_.open_.erase(number);
  }

 private:
  void predict(uint64_t number, Open& open) {
    Model& model = agent_.knowledge_.model;
    const bool hasWritten = agent_.recorder_->takeHasWritten();
    if (open.principal.empty()) {
      open.prediction = Prediction{.status = 401};
    } else if (open.text.target.starts_with("/v1/watch")) {
      open.prediction = Prediction{.status = 200};
    } else {
      open.prediction =
          model.take(number, open.text, agent_.settings_.roles.at(open.principal), hasWritten);
    }
    agent_.world_.note(fmt::format(
        "request {} by {}: {} {} {}-> {}, revision {}", number, open.principal, open.text.method,
        open.text.target, open.text.body.empty() ? "" : open.text.body + ' ',
        open.prediction->waits ? 0 : open.prediction->status, model.revision()));
    agent_.takeGranted();
    for (auto& [early, reply] : std::exchange(agent_.early_, {})) agent_.answered(early, reply);
    agent_.compareRevisions();
  }

  AgentProcess& agent_;
  std::map<uint64_t, uint64_t> numbers_;  // by ticket
};

AgentProcess::AgentProcess(World& world, SimulatedDisk& disk, Knowledge& knowledge,
                           const AgentSettings& settings)
    : world_(world), disk_(disk), knowledge_(knowledge), settings_(settings) {
  vnagent::NetworkLimits limits;
  hub_ = std::make_shared<vnagent::Hub>(
      limits, activity_.context(),
      vnagent::Probes{[] { return std::nullopt; }, [] { return std::nullopt; }}, networkObserver_);
  hub_->tokensAre(std::make_shared<const vnagent::TokenTable>(
      vnagent::TokenTable::parse(settings.tokens, "tokens")));
  observer_ = std::make_unique<Observer>(*this);
  start();
}

AgentProcess::~AgentProcess() {
  isEnding_ = true;
  hub_->closeAll();
  network_.restart();
  while (network_.poll() + activity_.context().poll() > 0) network_.restart();
  hub_->handlerIs(nullptr);
  host_ = nullptr;
  journal_ = nullptr;
  // What the journal posted finds nothing.
  while (network_.poll() + activity_.context().poll() > 0) network_.restart();
}

bool AgentProcess::start() {
  try {
    vnagent::JournalSettings settings;
    settings.vfs = disk_.name();
    settings.hasThread = false;
    journal_ = std::make_unique<vnagent::Journal>(settings_.folder, settings, callbacks());
    // The directory has to have something of this name; the database is on the simulated disk.
    std::ofstream(settings_.folder + "/journal.db") << "simulated";
    startService(journal_->recover());
    return true;
  } catch (const vnagent::JournalError& error) {
    world_.note(std::string("the agent does not start: ") + error.what());
    const bool isDisk = error.kind() == vnagent::JournalError::Kind::kIo ||
                        error.kind() == vnagent::JournalError::Kind::kNoSpace;
    if (!isDisk) world_.fail(std::string("the agent cannot start: ") + error.what());
  } catch (const std::exception& error) {
    world_.fail(std::string("the agent cannot start: ") + error.what());
  }
  journal_ = nullptr;
  return false;
}

void AgentProcess::startService(vnagent::Recovered recovered) {
  uint64_t sequence = recovered.snapshot.sequence;
  uint64_t revision = recovered.snapshot.revision;
  if (!recovered.records.empty()) {
    sequence = recovered.records.back().sequence;
    revision = recovered.records.back().revision;
  }
  world_.note(fmt::format("the agent starts at revision {}", revision));
  Model& model = knowledge_.model;
  if (revision < knowledge_.shown) {
    world_.fail(fmt::format("revision {} was acknowledged, and {} is there after the restart",
                            knowledge_.shown, revision));
    return;
  }
  if (revision > model.revision()) {
    world_.fail(fmt::format("revision {} is there after the restart, and {} was the last", revision,
                            model.revision()));
    return;
  }
  model.restartedAt(revision, knowledge_.answered);
  knowledge_.outputs.resize(revision + 1);
  durableRevision_ = revision;
  durableSequence_ = sequence;
  recorder_ = std::make_unique<Recorder>(*this, journal_->storage(), sequence, revision);
  vnagent::ServiceSettings settings;
  settings.regionSyncTimeout = settings_.timeout;
  settings.requireLock = settings_.requireLock;
  settings.version = "simulated";
  settings.observer = observer_.get();
  settings.recordsBetweenSnapshots = settings_.recordsBetweenSnapshots;
  settings.inCopy = [this](const std::function<std::string()>& run, vnagent::ReadCopy read) {
    const auto later = [this](std::function<void()> done) {
      world_.after(world_.delay(3 * kMillisecond),
                   [weak = std::weak_ptr(hub_), done = std::move(done)] {
                     if (const auto hub = weak.lock()) boost::asio::post(hub->activity(), done);
                   });
    };
    const auto readLater = [later, read = std::move(read)](std::string text) {
      return [later, done = read(std::move(text))] { later(done); };
    };
    vnagent::runInCopy(run, readLater, nullptr);
  };
  host_ = std::make_unique<vnagent::ServiceHost>(activity_, settings, recorder_.get(),
                                                 std::move(recovered));
  handler_ = std::make_unique<Handler>(*this);
  hub_->handlerIs(handler_.get());
  // Both documents are what they were.
  for (const char* target : {"/v1/cloud", "/v1/output"}) {
    vnagent::Request request;
    request.method = "GET";
    request.target = target;
    request.headers = {{"sim-request", std::to_string(kOwnRequests + (target[4] == 'c' ? 1 : 2))}};
    request.principal = vnagent::Principal{"admin", vnagent::Role::kAdmin, {}};
    handler_->handle(std::move(request), [](Reply) {});
  }
}

// As the server passes them on.
vnagent::JournalCallbacks AgentProcess::callbacks() {
  vnagent::JournalCallbacks callbacks;
  callbacks.committed = [this](uint64_t sequence, double) {
    boost::asio::post(activity_.context(), [this, sequence] {
      if (!host_ || isEnding_) return;
      durableSequence_ = sequence;
      durableRevision_ = recorder_->revisionOf(sequence);
      world_.note(fmt::format("durable up to revision {}", durableRevision_));
      host_->durableIs(sequence);
    });
  };
  callbacks.failed = [this](uint64_t sequence, const std::string& reason, bool) {
    if (isEnding_) return;
    ++knowledge_.failures;
    world_.note("the journal cannot be written: " + reason);
    boost::asio::post(activity_.context(), [this, sequence] {
      if (!host_ || isEnding_) return;
      durableRevision_ = recorder_->revisionOf(sequence);
      recorder_->truncate(sequence);
      world_.note(fmt::format("back to revision {}", durableRevision_));
      if (knowledge_.shown > durableRevision_) {
        world_.fail(fmt::format("revision {} was shown, and is taken back", knowledge_.shown));
      }
      isBlocked_ = true;
      knowledge_.model.goBackTo(durableRevision_, knowledge_.answered);
      knowledge_.model.blockedIs(true);
      knowledge_.outputs.resize(durableRevision_ + 1);
      for (auto& [number, open] : open_) open.mayFail = true;
      host_->storageFailed(sequence, "the disk cannot be written");
    });
  };
  callbacks.writable = [this] {
    if (isEnding_) return;
    world_.note("the journal can be written again");
    boost::asio::post(activity_.context(), [this] {
      if (!host_ || isEnding_) return;
      isBlocked_ = false;
      knowledge_.model.blockedIs(false);
      host_->storageIsWritable();
    });
  };
  return callbacks;
}

void AgentProcess::connect(const std::shared_ptr<Wire>& wire) {
  Wire::connect(wire, hub_, boost::asio::make_strand(network_));
}

// Time.

bool AgentProcess::turn() {
  bool hasDone = false;
  for (bool isIdle = false; !isIdle && !world_.hasFailed();) {
    network_.restart();
    const bool isNetworkFirst = world_.once(2);
    size_t done = isNetworkFirst ? network_.poll_one() : 0;
    done += activity_.context().poll_one();
    if (!isNetworkFirst) done += network_.poll_one();
    isIdle = done == 0;
    hasDone = hasDone || !isIdle;
  }
  if (now() >= nextSweep_) {
    nextSweep_ = now() + kSweepInterval;
    hub_->sweep();
    hasDone = true;
  }
  if (!host_ || world_.hasFailed()) return hasDone;
  if (!hasDone) {
    compareRevisions();
    if (knowledge_.model.nextTimer() < now() - kLatest) world_.fail("a timer did not fire in time");
  }
  if (isJournalBusy_) return hasDone;
  const Nanoseconds due = nanoseconds(journal_->nextTurn());
  if (due <= now() && journalWakes_ == kNever) {
    journalWakes_ = now() + world_.between(0, 200'000);
  }
  if (journalWakes_ <= now()) {
    journalWakes_ = kNever;
    isJournalBusy_ = true;
    journal_->turn();
    isJournalBusy_ = false;
    return true;
  }
  return hasDone;
}

Nanoseconds AgentProcess::nextTurn() const {
  Nanoseconds next = std::min(nextSweep_, nextSystemTimer());
  if (!host_ || isJournalBusy_) return next;
  return std::min(next,
                  journalWakes_ != kNever ? journalWakes_ : nanoseconds(journal_->nextTurn()));
}

void AgentProcess::timerFired(uint64_t revision) {
  world_.note(fmt::format("a timer fires, revision {}", revision));
  const std::string why = knowledge_.model.expire();
  if (!why.empty()) world_.fail(why);
  takeGranted();
}

// Answers.

void AgentProcess::takeGranted() {
  for (auto& [number, prediction] : knowledge_.model.takeGranted()) {
    const auto open = open_.find(number);
    if (open != open_.end()) {
      open->second.prediction = prediction;
      open->second.mayFail = false;
    }
  }
}

void AgentProcess::answered(uint64_t number, const Reply& reply) {
  const auto open = open_.find(number);
  if (open == open_.end()) return world_.fail(fmt::format("request {} is answered twice", number));
  const bool isLine =
      open->second.prediction && open->second.prediction->waits && !open->second.prediction->isRead;
  if (!open->second.prediction || (isLine && !open->second.mayFail)) {
    Reply copy;
    copy.status = reply.status;
    copy.headers = reply.headers;
    copy.body = reply.body;
    early_.insert_or_assign(number, std::move(copy));
    return;
  }
  compare(number, *open->second.prediction, reply);
  knowledge_.answered.insert(number);
  knowledge_.answers[number] = {reply.status, reply.body ? *reply.body : std::string()};
  open_.erase(number);
}

void AgentProcess::compare(uint64_t number, const Prediction& predicted, const Reply& reply) {
  const Open& open = open_.at(number);
  const std::string what =
      fmt::format("request {} ({} {})", number, open.text.method, open.text.target);
  world_.note(fmt::format("request {} is answered: {}", number, reply.status));
  ++knowledge_.requests;
  if (reply.status >= 400) ++knowledge_.refused;
  const bool hasFailed = reply.status == 507 || reply.status == 503;
  if (open.mayFail && hasFailed) return;
  if (predicted.others.contains(reply.status)) return;
  if (open.mayFail && predicted.at > durableRevision_ && predicted.status < 300) {
    return world_.fail(what + " is answered with success, and was taken back");
  }
  if (predicted.isRead && predicted.waits) {
    if (reply.status == 504) return;
  } else if (reply.status != predicted.status) {
    return world_.fail(fmt::format("{} is answered with {}, not {}: {}", what, reply.status,
                                   predicted.status, reply.body ? *reply.body : ""));
  }
  if (predicted.etag && headerOf(reply, "etag") != fmt::format("\"{}\"", *predicted.etag)) {
    return world_.fail(
        fmt::format("{} has the ETag {}, not {}", what, headerOf(reply, "etag"), *predicted.etag));
  }
  if (reply.status >= 300 || open.text.target.starts_with("/v1/watch")) return;
  if (!reply.body) return world_.fail(what + " has no body");
  const Json body = Json::parse(*reply.body);
  if (predicted.isRead) return compareRead(what, predicted, reply, body, open.principal);
  if (predicted.isWrite) {
    ++knowledge_.changes;
    const uint64_t revision = predicted.revision.value_or(predicted.at);
    if (revision > durableRevision_) {
      return world_.fail(
          fmt::format("{} is acknowledged before revision {} is durable", what, revision));
    }
    knowledge_.shown = std::max(knowledge_.shown, revision);
  }
  const bool isSync = predicted.members && predicted.members->is_object() &&
                      predicted.members->contains("requestId");
  if (predicted.revision && !isSync && body.value("revision", uint64_t{0}) != *predicted.revision) {
    return world_.fail(
        fmt::format("{} has revision {}, not {}", what, body.dump(), *predicted.revision));
  }
  if (!predicted.members) return;
  const auto isEqual = [](const Json& is, const Json& expected) {
    if (expected.is_number_float() && is.is_number()) {
      return std::abs(is.get<double>() - expected.get<double>()) < 1e-5;
    }
    if (expected.is_number() && is.is_object()) return is.value("status", 0) == expected;
    return is == expected;
  };
  const Json& members = *predicted.members;
  bool equal = !members.is_array() || (body.is_array() && body.size() == members.size());
  for (size_t i = 0; equal && members.is_array() && i < members.size(); ++i) {
    equal = isEqual(body[i], members[i]);
  }
  if (members.is_object()) {
    for (const auto& [name, value] : members.items()) {
      equal = equal && body.contains(name) && isEqual(body[name], value);
    }
  }
  if (!equal) {
    world_.fail(fmt::format("{} is answered with {}, not {}", what, body.dump(), members.dump()));
  }
}

void AgentProcess::compareRead(const std::string& what, const Prediction& predicted,
                               const Reply& reply, const Json& body, const std::string& principal) {
  const bool seesAll = settings_.roles.at(principal).regions.empty();
  const uint64_t revision = std::stoull(headerOf(reply, "vnagent-revision"));
  if (revision > durableRevision_) {
    return world_.fail(fmt::format("{} shows revision {} before it is durable", what, revision));
  }
  knowledge_.shown = std::max(knowledge_.shown, revision);
  if (predicted.revision && revision != *predicted.revision) {
    return world_.fail(
        fmt::format("{} shows revision {}, not {}", what, revision, *predicted.revision));
  }
  if (revision < predicted.readFrom) {
    return world_.fail(fmt::format("{} shows revision {} already", what, revision));
  }
  if (predicted.body && body != *predicted.body) {
    return world_.fail(
        fmt::format("{} shows {}, not {}", what, body.dump(), predicted.body->dump()));
  }
  const bool isWhole = what.find("/v1/output") != what.npos && seesAll;
  if (isWhole && body != knowledge_.outputs.at(revision)) {
    world_.fail(fmt::format("{} shows {}, not {}", what, body.dump(),
                            knowledge_.outputs.at(revision).dump()));
  }
}

// The model and the agent have the same revision, with the same status of each region.
void AgentProcess::compareRevisions() {
  if (!host_ || world_.hasFailed()) return;
  const Model& model = knowledge_.model;
  if (knowledge_.outputs.size() != model.revision() + 1) {
    return world_.fail(fmt::format("the agent is at revision {}, the model at {}",
                                   knowledge_.outputs.size() - 1, model.revision()));
  }
  const Json& statuses = knowledge_.outputs.back()["regionStatus"];
  if (statuses.size() != model.present().sync.size()) {
    return world_.fail("the output has other regions: " + statuses.dump());
  }
  for (const auto& [name, sync] : model.present().sync) {
    const Json& is = statuses[name];
    const Json published{is["syncStatus"], is["oldSyncStatus"], is["owner"], is["requestId"]};
    if (published != sync.published()) {
      return world_.fail(fmt::format("region {} has status {}, not {}", name, published.dump(),
                                     sync.published().dump()));
    }
  }
}

}  // namespace sim
