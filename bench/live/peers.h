// The servers that are compared, each as something that takes changes and shows them to watchers.
// All of it is on the thread that runs the context.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

#include "agent/load/load_cloud.h"

namespace bench {

class Peer {
 public:
  // What became of a change: its revision where the server has such, or why it failed.
  struct Outcome {
    std::string error;  // empty: it is made
    std::uint64_t revision = 0;
  };
  using Done = std::function<void(const Outcome& outcome)>;
  // A watcher has been shown what this revision changed.
  using Seen = std::function<void(std::uint64_t revision)>;

  virtual ~Peer() = default;

  // As results name it.
  virtual std::string name() const = 0;
  // Makes connections for changes, and what the changes need to be there.
  virtual void open(std::size_t connections, Done done) = 0;
  // Makes a change over one of them. REQUIRES: the one before on the connection is done.
  virtual void change(std::size_t connection, Done done) = 0;
  // Follows the changes from now on; `ready` is called once it does, or with why not.
  virtual void watch(Done ready, Seen seen) = 0;
};

// `address`: a Unix socket, or http://HOST:PORT. The cloud's ports are moved by small patches.
std::unique_ptr<Peer> makeAgentPeer(boost::asio::io_context& context, const std::string& address,
                                    const vnagent::CloudShape& shape);
// The same requests; the answers say nothing.
std::unique_ptr<Peer> makeBarePeer(boost::asio::io_context& context, const std::string& address,
                                   const vnagent::CloudShape& shape);
// Puts through the JSON gateway, with the same patches as values.
std::unique_ptr<Peer> makeEtcdPeer(boost::asio::io_context& context, const std::string& address,
                                   const vnagent::CloudShape& shape);
// Updates of a row, each a durable transaction, with the same patches as values.
std::unique_ptr<Peer> makeOvsdbPeer(boost::asio::io_context& context, const std::string& address,
                                    const vnagent::CloudShape& shape);

}  // namespace bench
