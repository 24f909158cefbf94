#include "agent/server/event_feed.h"

#include <boost/asio/post.hpp>

namespace vnagent {

void EventFeed::deliverIs(Deliver deliver) {
  deliver_ = std::move(deliver);
  // The stream calls from inside the service, which must not be entered again: pull() runs later.
  stream_->readyIs([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->schedulePull();
  });
}

void EventFeed::want() {
  boost::asio::post(activity_, [self = shared_from_this()] {
    self->isWanted_ = true;
    self->pull();
  });
}

void EventFeed::close() {
  boost::asio::post(activity_, [self = shared_from_this()] {
    self->deliver_ = nullptr;
    self->stream_ = nullptr;
  });
}

void EventFeed::schedulePull() {
  if (isScheduled_ || !isWanted_) return;
  isScheduled_ = true;
  boost::asio::post(activity_, [self = shared_from_this()] {
    self->isScheduled_ = false;
    self->pull();
  });
}

void EventFeed::pull() {
  if (!stream_ || !isWanted_) return;
  auto bytes = stream_->next();
  if (!bytes && !stream_->ended()) return;
  isWanted_ = false;
  deliver_(std::move(bytes));
}

}  // namespace vnagent
