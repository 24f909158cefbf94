// Sockets that the live agent listens on.
//
// A listener accepts from start() to close(), on the threads of its context. Destroy it after they
// have ended.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include <boost/asio/io_context.hpp>

#include "agent/live/principal.h"
#include "agent/server/hub.h"
#include "agent/server/tls.h"

namespace vnagent {

// A socket cannot be listened on; what() names it and says why.
class CannotListen : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Listener {
 public:
  virtual ~Listener() = default;
  virtual void start() = 0;
  // Accepts nothing more. Any thread.
  virtual void close() = 0;
  // For people, with the port that the system chose.
  virtual std::string address() const = 0;
};

// The Unix socket of this path, with mode 0660; whoever may connect has this role. The file of a
// process that has ended is replaced. Throws CannotListen; where a process listens there already,
// the text has its id.
std::unique_ptr<Listener> listenOnUnixSocket(boost::asio::io_context& context,
                                             std::shared_ptr<Hub> hub, const std::string& path,
                                             const Principal& role);

// Gives the TLS settings for the next connection; null: without TLS.
using TlsSource = std::function<std::shared_ptr<boost::asio::ssl::context>()>;

// `address` is ADDRESS:PORT or [ADDRESS]:PORT. Throws CannotListen.
std::unique_ptr<Listener> listenOnTcp(boost::asio::io_context& context, std::shared_ptr<Hub> hub,
                                      const std::string& address, const TlsSource& tls);

// Whether only this machine can connect to such an address. Throws CannotListen for a text that is
// none.
bool isLoopback(const std::string& address);

}  // namespace vnagent
