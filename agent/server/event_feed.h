// Carries the events of a stream from the activity thread to a connection: the connection asks for
// the next bytes when it has written the last ones.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

#include "agent/live/exchange.h"

namespace vnagent {

class EventFeed : public std::enable_shared_from_this<EventFeed> {
 public:
  // Called on the activity thread with the next bytes, or with null when there will never be more.
  using Deliver = std::function<void(std::shared_ptr<const std::string>)>;

  EventFeed(boost::asio::io_context& activity, std::unique_ptr<EventStream> stream)
      : activity_(activity), stream_(std::move(stream)) {}
  EventFeed(const EventFeed&) = delete;
  EventFeed& operator=(const EventFeed&) = delete;

  // Who gets the bytes. Activity thread, once, before want().
  void deliverIs(Deliver deliver);

  // Asks for the next bytes, which are delivered once. Any thread.
  void want();

  // Nothing more is wanted: destroys the stream, on the activity thread. Any thread. REQUIRES:
  // called before the last reference is dropped.
  void close();

 private:
  void schedulePull();
  void pull();

  boost::asio::io_context& activity_;
  // Activity thread only.
  std::unique_ptr<EventStream> stream_;
  Deliver deliver_;
  bool isWanted_ = false;
  bool isScheduled_ = false;
};

}  // namespace vnagent
