// Where an OVSDB server listens: "unix:PATH", "tcp:HOST:PORT" or "ssl:HOST:PORT", with brackets
// around an IPv6 address.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vnagent::ovsdb {

struct Address {
  enum class Kind : uint8_t { kUnix, kTcp, kSsl };

  Kind kind = Kind::kUnix;
  std::string path;  // of a Unix socket
  std::string host;  // without brackets
  std::string port;

  // Throws std::invalid_argument, with what an address is.
  static Address parse(std::string_view text);
};

// The files of a TLS client; each may be empty. Without authorities those of the system count. The
// server's certificate must be signed by one of them; its name is not compared, as the certificates
// of switches seldom have one.
struct TlsFiles {
  std::string certificate;
  std::string privateKey;
  std::string authorities;
};

}  // namespace vnagent::ovsdb
