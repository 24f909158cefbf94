#include <algorithm>
#include <charconv>
#include <chrono>

#include <fmt/format.h>
#include <unistd.h>

#include "agent/load/detail/driver.h"

namespace vnagent::detail {
namespace {

// How often a driver that is to sync again looks whether its last moves are answered.
constexpr std::chrono::milliseconds kPause{2};
// After a refusal that will not pass at once, as of a full disk.
constexpr std::chrono::milliseconds kRest{100};

// The revision in `{"revision": N, ...}`; 0 where there is none.
uint64_t revisionOf(std::string_view body) {
  constexpr std::string_view kMember = "\"revision\":";
  auto at = body.find(kMember);
  if (at == body.npos) return 0;
  at = body.find_first_not_of(' ', at + kMember.size());
  uint64_t revision = 0;
  if (at != body.npos) std::from_chars(body.data() + at, body.data() + body.size(), revision);
  return revision;
}

// A driver has its share of the connections, and one at least.
uint32_t connectionsOf(const LoadSettings& settings, uint32_t number) {
  const uint32_t more = number < settings.connections % settings.drivers ? 1 : 0;
  return std::max(settings.connections / settings.drivers + more, 1U);
}

}  // namespace

Driver::Driver(LoadContext& context, uint32_t number)
    : context_(context),
      number_(number),
      connections_(connectionsOf(context.settings, number)),
      timer_(context.io) {
  const LoadCloud& cloud = context_.cloud;
  ports_.resize(connections_);
  for (uint32_t region = number; region < cloud.regions(); region += context.settings.drivers) {
    regions_.push_back(region);
  }
  size_t lane = 0;
  for (uint32_t port = 0; port < cloud.ports(); ++port) {
    if (cloud.regionOf(port) % context.settings.drivers != number) continue;
    ports_[lane++ % connections_].push_back(port);
  }
  std::mt19937_64 random(context.settings.cloud.seed + number);
  for (auto& ports : ports_) std::shuffle(ports.begin(), ports.end(), random);
  nextPort_.resize(connections_);
}

void Driver::open() {
  for (uint32_t i = 0; i < connections_; ++i) {
    context_.open(
        [this](std::shared_ptr<HttpChannel> channel) { channels_.push_back(std::move(channel)); });
  }
}

// The sync protocol.

void Driver::sync() {
  ++syncs_;
  for (const uint32_t region : regions_) addCalls(region);
  nextCall();
}

void Driver::addCalls(uint32_t region) {
  const std::string name = context_.cloud.regionName(region);
  const std::string id = fmt::format("{}-{}-{}-{}", name, ::getpid(), steadyNanoseconds(), syncs_);
  const std::string place = "/v1/region/" + name + "/sync/";
  const std::string fence = "Sync-Request-Id: " + id + "\r\n";
  // A lock is one of a region that is there.
  if (syncs_ == 1) {
    calls_.push_back({"PUT", "/v1/cloud/region/" + name, "{}", "If-None-Match: *\r\n", region});
  }
  calls_.push_back(
      {"POST", place + "lock",
       fmt::format(R"({{"requester":"driver-{}","requestId":"{}","wait":10}})", number_ + 1, id),
       "", region});
  calls_.push_back({"POST", place + "start", "", fence, region});
  // Made when it is sent.
  calls_.push_back({"PUT", "/v1/cloud/region/" + name, "", fence, region});
  calls_.push_back({"POST", place + "heartbeat", "", fence, region});
  calls_.push_back({"POST", place + "complete", "", fence, region});
}

void Driver::nextCall() {
  if (calls_.empty()) return;
  Call call = std::move(calls_.front());
  calls_.pop_front();
  isCalling_ = true;
  const bool isReplacement = call.method == "PUT";
  if (isReplacement && call.body.empty()) call.body = context_.cloud.regionText(call.region);
  const int64_t began = steadyNanoseconds();
  channels_.front()->send(
      context_.head.request(call.method, call.target, call.body, call.headers),
      [this, began, isReplacement, region = call.region](const ChannelReply& reply) {
        isCalling_ = false;
        if (reply.status / 100 != 2) return context_.failAsRefused(reply);
        context_.report.syncCalls.add(steadyNanoseconds() - began);
        if (isReplacement) noteRevision(region, reply);
        nextCall();
      });
}

void Driver::noteRevision(uint32_t region, const ChannelReply& reply) {
  const uint64_t revision = revisionOf(reply.body);
  if (syncs_ > 1) return;  // the ports' own changes say more
  for (uint32_t port = region; port < context_.cloud.ports(); port += context_.cloud.regions()) {
    context_.etags[port] = revision;
  }
}

void Driver::syncLater() {
  if (context_.settings.syncInterval <= 0) return;
  const auto interval =
      std::chrono::nanoseconds(static_cast<int64_t>(context_.settings.syncInterval * 1e9));
  after(interval, [this] {
    for (const auto& lane : lanes_) lane->stop();
    syncOnceIdle();
  });
}

// A replacement has each port where the driver believes it to be, so no move may be on its way.
void Driver::syncOnceIdle() {
  const bool areIdle = std::ranges::all_of(lanes_, [](const auto& lane) { return lane->isIdle(); });
  if (areIdle) {
    sync();
    return moveOnceSynced();
  }
  after(kPause, [this] { syncOnceIdle(); });
}

void Driver::moveOnceSynced() {
  if (isSynced()) return beginMoves();
  after(kPause, [this] { moveOnceSynced(); });
}

void Driver::after(std::chrono::nanoseconds time, const std::function<void()>& then) {
  timer_.expires_after(time);
  timer_.async_wait([this, then](const boost::system::error_code& error) {
    if (!error && !context_.isStopping) then();
  });
}

// Moves.

void Driver::beginMoves() {
  if (lanes_.empty()) {
    const LoadSettings& settings = context_.settings;
    for (size_t i = 0; i < connections_; ++i) {
      if (ports_[i].empty()) continue;
      const Pace pace(settings.rate, std::max(settings.connections, settings.drivers),
                      number_ + i * settings.drivers);
      lanes_.push_back(std::make_unique<Lane>(
          context_, pace,
          [this, i](int64_t due, const Lane::Answered& answered) { move(i, due, answered); }));
    }
  }
  for (const auto& lane : lanes_) lane->begin();
  syncLater();
}

void Driver::move(size_t lane, int64_t due, const Lane::Answered& answered) {
  size_t& next = nextPort_[lane];
  const uint32_t port = ports_[lane][next];
  next = (next + 1) % ports_[lane].size();
  const std::string condition = fmt::format("If-Match: \"{}\"\r\n", context_.etags[port]);
  channels_[lane]->send(
      context_.head.request("PATCH", context_.cloud.bindingTarget(port), context_.cloud.move(port),
                            condition),
      [this, port, due, answered](const ChannelReply& reply) {
        if (reply.status == 200) {
          const uint64_t revision = revisionOf(reply.body);
          context_.etags[port] = revision;
          if (context_.isMeasuring) context_.report.changes.add(steadyNanoseconds() - due);
          context_.times.sent(revision, due);
          return answered();
        }
        context_.cloud.undoMove(port);
        context_.refused(reply);
        if (reply.status == 412) {
          std::from_chars(reply.etag.data(), reply.etag.data() + reply.etag.size(),
                          context_.etags[port]);
          return answered();
        }
        const auto rest = std::make_shared<boost::asio::steady_timer>(context_.io, kRest);
        rest->async_wait([rest, answered](const boost::system::error_code&) { answered(); });
      });
}

void Driver::stop() {
  timer_.cancel();
  for (const auto& lane : lanes_) lane->stop();
}

bool Driver::isIdle() const {
  return isSynced() && std::ranges::all_of(lanes_, [](const auto& lane) { return lane->isIdle(); });
}

}  // namespace vnagent::detail
