// The bytes of one connection to an OVSDB server: a Unix socket, TCP, or TLS on TCP.
//
// Each operation calls its handler once, on the thread that runs the context; also after close(),
// with an error. Whoever starts an operation keeps the transport until its handler has run.
#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>

#include "agent/ovsdb/address.h"

namespace vnagent::ovsdb {

class Transport {
 public:
  using Done = std::function<void(boost::system::error_code)>;
  using DoneBytes = std::function<void(boost::system::error_code, size_t)>;

  // Throws std::runtime_error when the files of `tls` cannot be used.
  static std::unique_ptr<Transport> make(boost::asio::io_context& context, const Address& address,
                                         const TlsFiles& tls);
  virtual ~Transport() = default;

  // Connects, and shakes hands where that is to be done.
  virtual void open(Done done) = 0;
  virtual void readSome(boost::asio::mutable_buffer buffer, DoneBytes done) = 0;
  // Writes all of `bytes`, which must live until `done`.
  virtual void write(std::string_view bytes, Done done) = 0;
  virtual void close() = 0;
};

}  // namespace vnagent::ovsdb
