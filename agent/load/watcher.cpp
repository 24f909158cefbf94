#include "agent/load/detail/watcher.h"
#include "agent/client/live_agent.h"

namespace vnagent::detail {
namespace {

// Revisions of one event that are all counted; more are those of other clients, long ago.
constexpr uint64_t kMostMerged = 10'000;

}  // namespace

DocumentWatcher::DocumentWatcher(LoadContext& context, ReplicaThread& thread, std::string document,
                                 std::string pointer)
    : context_(context),
      document_(std::move(document)),
      pointer_(std::move(pointer)),
      replica_(std::make_shared<Replica>(thread, context.io, pointer_)) {}

void DocumentWatcher::open() {
  context_.open([this](const std::shared_ptr<HttpChannel>& channel) {
    std::string target = "/v1/watch?of=" + document_;
    if (!pointer_.empty()) target += "&at=" + percentEncoded(pointer_);
    auto body = std::make_shared<std::string>();
    channel->stream(context_.head.request("GET", target),
                    [this, body](const HttpChannel::Part& part) {
                      if (context_.isStopping && !part.error.empty()) return;
                      if (part.status != 200 && part.error.empty()) {
                        // The reason may come in parts; the end of the stream reports it.
                        *body += part.bytes;
                        if (!part.bytes.empty()) {
                          context_.failAsRefused({"", part.status, "", 0, *body});
                        }
                        return;
                      }
                      if (!part.error.empty()) {
                        return context_.failAsRefused({part.error, 0, "", 0, ""});
                      }
                      events_.feed(part.bytes, [this](const SplitEvent& event) { take(event); });
                    });
  });
}

void DocumentWatcher::take(const SplitEvent& event) {
  const int64_t now = steadyNanoseconds();
  replica_->event(std::string(event.name), event.revision, std::string(event.data));
  if (event.name == "patch") {
    if (context_.isMeasuring) ++context_.report.received;
    const bool isMerged = pointer_.empty() && event.revision - revision_ <= kMostMerged;
    uint64_t revision = isMerged ? revision_ + 1 : event.revision;
    for (; revision <= event.revision; ++revision) context_.times.seen(revision, now);
  }
  revision_ = event.revision;
}

void DocumentWatcher::check(const std::shared_ptr<HttpChannel>& channel, Replica::Compared done) {
  channel->send(context_.head.request("GET", placeTarget(document_, pointer_)),
                [this, done = std::move(done)](ChannelReply reply) mutable {
                  if (reply.status == 404) {
                    // It does not say of which revision: that at which the place is absent is in
                    // the document.
                    replica_->compare(UINT64_MAX, false, {}, std::move(done));
                  } else if (reply.status == 200) {
                    replica_->compare(reply.revision, true, std::move(reply.body), std::move(done));
                  } else {
                    context_.failAsRefused(reply);
                  }
                });
}

}  // namespace vnagent::detail
