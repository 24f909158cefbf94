// A request to the live agent and its reply, without the connection that they came over.
//
// Any thread may make and destroy them; one thread at a time.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/live/principal.h"

namespace vnagent {

// Media types of bodies.
inline constexpr std::string_view kJsonType = "application/json";
inline constexpr std::string_view kMergePatchType = "application/merge-patch+json";

// Names in lower case, in the order in which they stood.
using Headers = std::vector<std::pair<std::string, std::string>>;

struct Request {
  std::string method;  // as sent
  std::string target;  // path and query, as sent
  Headers headers;
  std::string body;
  std::optional<Principal> principal;  // nothing: no credentials, or wrong ones

  // The value of a header, or null. Of several, the first.
  const std::string* header(std::string_view name) const;
  size_t headerCount(std::string_view name) const;
};

// The body of a reply that goes on: Server-Sent Events. The connection takes the next bytes when it
// has written the last ones, so that who reads slowly gets fewer and larger events. Activity thread
// only, its destructor too.
class EventStream {
 public:
  virtual ~EventStream() = default;

  // The next bytes, whole events; null when there are none now. The bytes may be shared with other
  // streams.
  virtual std::shared_ptr<const std::string> next() = 0;

  // After next() returned null: whether there will never be more. The connection is then closed.
  virtual bool ended() const = 0;

  // Called each time that next() has something again, or the stream has ended, after it returned
  // null. May be called from inside any function of the service; must not call back into it.
  void readyIs(std::function<void()> ready) { ready_ = std::move(ready); }

 protected:
  void notify() {
    if (ready_) ready_();
  }

 private:
  std::function<void()> ready_;
};

struct Reply {
  unsigned status = 200;
  Headers headers;  // without Content-Length, Transfer-Encoding, Connection and Date
  std::shared_ptr<const std::string> body;  // null: none
  std::unique_ptr<EventStream> stream;      // instead of a body
};

// What is refused. NAME of the problem type is the last part of its URI.
struct Problem {
  unsigned status;
  std::string_view name;   // "not-json"
  std::string_view title;  // "The body is not JSON"
  std::string detail;
};

// A problem document without further members; what the connection itself refuses has no others.
Reply problemReply(const Problem& problem);

}  // namespace vnagent
