// Serves GET /status (JSON) and GET /metrics (Prometheus) of an export, on a Unix socket and TCP.
//
// Runs on the thread of the context.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include <boost/asio/io_context.hpp>

namespace vnagent {

// A socket or an address cannot be listened on. what() names it and says why.
class CannotServeStatus : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class StatusServer {
 public:
  struct Pages {
    std::function<std::string()> status;
    std::function<std::string()> metrics;
  };

  StatusServer(boost::asio::io_context& context, Pages pages);
  ~StatusServer();

  // Begins to listen. A socket that nobody listens on any more is replaced. Both throw
  // CannotServeStatus.
  void listenOnSocket(const std::string& path);
  // "ADDRESS:PORT"; port 0 chooses one. Returns the port.
  unsigned short listenOnTcp(const std::string& address);

  // Ends listening, and removes the socket.
  void stop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vnagent
