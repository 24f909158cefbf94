// TLS of the live agent: its certificate, and the authority of its clients' certificates.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <boost/asio/ssl/context.hpp>

namespace vnagent {

struct TlsFiles {
  std::string certificate;  // PEM, with the chain
  std::string key;          // PEM
  std::string clientCa;     // PEM; empty: no client certificates
};

// TLS 1.2 or later. A client certificate is asked for where there is an authority for it, and a
// wrong one is refused; none is left to the requests, so that probes need none. Throws
// BadCredentials.
std::shared_ptr<boost::asio::ssl::context> readTls(const TlsFiles& files);

// The common name of the peer's certificate, which was verified; nothing where it has shown none.
std::optional<std::string> peerCommonName(const SSL* ssl);

}  // namespace vnagent
