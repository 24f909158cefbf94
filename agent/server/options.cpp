#include "agent/server/options.h"

#include <array>
#include <charconv>
#include <limits>

#include <fmt/format.h>

#include "agent/server/credentials.h"
#include "agent/server/listener.h"

namespace vnagent {
namespace {

constexpr double kMaxSeconds = 1e9;

// A number in decimal notation that is at least `low` and at most `high`.
template <class Number>
std::string setNumber(Number& number, const std::string& text, Number low, Number high,
                      const char* what) {
  Number read{};
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, read);
  if (result.ec != std::errc() || result.ptr != end || !(read >= low && read <= high)) {
    return fmt::format("'{}' is not {}", text, what);
  }
  number = read;
  return {};
}

std::string setSwitch(bool& is, const std::string& text, std::string_view yes,
                      std::string_view no) {
  if (text != yes && text != no) return fmt::format("'{}' is neither {} nor {}", text, yes, no);
  is = text == yes;
  return {};
}

template <std::string ServeOptions::*kMember>
std::string setText(ServeOptions& options, const std::string& text) {
  options.*kMember = text;
  return {};
}

std::string setRole(ServeOptions& options, const std::string& text) {
  const auto principal = principalOf("", text);
  if (!principal || principal->isRestricted()) {
    return fmt::format("'{}' is none of read, write, admin", text);
  }
  options.socketRole = principal->role;
  return {};
}

std::string setListen(ServeOptions& options, const std::string& text) {
  try {
    isLoopback(text);
  } catch (const CannotListen& fault) {
    return fault.what();
  }
  options.listen = text;
  return {};
}

constexpr auto kMaxCount = std::numeric_limits<uint64_t>::max();

constexpr std::array kOptions{
    ServeOption{"socket", "PATH",
                "the Unix socket to listen on [/run/vnagent/vnagent.sock]; '' is none",
                setText<&ServeOptions::socket>},
    ServeOption{"socket-role", "read|write|admin",
                "what whoever may connect to the Unix socket may do [admin]", setRole},
    ServeOption{"listen", "ADDRESS:PORT",
                "listen on TCP too; port 0 is one that the system chooses. Other addresses than "
                "those of this machine need TLS, and all need client certificates or tokens",
                setListen},
    ServeOption{"tls-cert", "FILE", "the certificate for TLS, with its chain",
                setText<&ServeOptions::tlsCertificate>},
    ServeOption{"tls-key", "FILE", "the private key of the certificate",
                setText<&ServeOptions::tlsKey>},
    ServeOption{"client-ca", "FILE",
                "the authority of client certificates; the principal is the common name, and its "
                "role that of its line in the token file, else read",
                setText<&ServeOptions::clientCa>},
    ServeOption{"tokens", "FILE",
                "the token file: lines NAME ROLE SHA256-OF-TOKEN, with - for a principal without "
                "a token; others must not be able to read it",
                setText<&ServeOptions::tokens>},
    ServeOption{"state-dir", "DIR",
                "keep the state in this folder; without it, everything is in memory only",
                setText<&ServeOptions::stateDirectory>},
    ServeOption{"keep-seconds", "SECONDS", "how long the history is kept at least [604800, a week]",
                [](ServeOptions& options, const std::string& text) {
                  return setNumber(options.keepSeconds, text, 0.0, kMaxSeconds,
                                   "a number of seconds, 0 to 1000000000");
                }},
    ServeOption{"keep-revisions", "N", "how many revisions of history are kept at least [10000]",
                [](ServeOptions& options, const std::string& text) {
                  return setNumber(options.keepRevisions, text, uint64_t{10'000}, kMaxCount,
                                   "a number of revisions, 10000 or more");
                }},
    ServeOption{"require-lock", "",
                "refuse changes of a region without the request id that holds its lock",
                [](ServeOptions& options, const std::string& text) {
                  return setSwitch(options.requireLock, text, "true", "false");
                }},
    ServeOption{"max-body", "BYTES", "the largest body of a request [67108864]",
                [](ServeOptions& options, const std::string& text) {
                  return setNumber(options.maxBody, text, uint64_t{1}, kMaxCount,
                                   "a number of bytes, 1 or more");
                }},
    ServeOption{"max-bodies", "BYTES",
                "the largest sum of the bodies of requests that are not answered yet, but for the "
                "first 65536 bytes of each; at least --max-body [four times --max-body]",
                [](ServeOptions& options, const std::string& text) {
                  return setNumber(options.maxBodies, text, uint64_t{1}, kMaxCount,
                                   "a number of bytes, 1 or more");
                }},
    ServeOption{"max-connections", "N", "how many connections are served at once [1024]",
                [](ServeOptions& options, const std::string& text) {
                  return setNumber(options.maxConnections, text, uint64_t{1}, uint64_t{1'000'000},
                                   "a number of connections, 1 to 1000000");
                }},
    ServeOption{"region-sync-timeout", "SECONDS",
                "region sync timeout, where the document has none [60]",
                [](ServeOptions& options, const std::string& text) {
                  return setNumber(options.regionSyncTimeout, text,
                                   std::numeric_limits<double>::denorm_min(), kMaxSeconds,
                                   "a number of seconds, more than 0 and at most 1000000000");
                }},
    ServeOption{"toggle", "on|off",
                "the answer for the toggle VirtualNetworkAgentToggle: on publishes switch ports, "
                "off network elements [on]",
                [](ServeOptions& options, const std::string& text) {
                  return setSwitch(options.toggle, text, "on", "off");
                }},
    ServeOption{"cloud", "FILE",
                "the cloud document to start with where the state is empty; - is standard input",
                setText<&ServeOptions::cloud>},
};

}  // namespace

std::span<const ServeOption> serveOptions() {
  return kOptions;
}

std::string faultOf(const ServeOptions& options) {
  if (options.socket.empty() && options.listen.empty()) {
    return "there is neither a socket nor an address to listen on";
  }
  if (options.maxBodies > 0 && options.maxBodies < options.maxBody) {
    return "--max-bodies is less than --max-body: no body could be so large";
  }
  if (options.tlsCertificate.empty() != options.tlsKey.empty()) {
    return "--tls-cert and --tls-key go together";
  }
  const bool hasTls = !options.tlsCertificate.empty();
  if (!options.clientCa.empty() && !hasTls) {
    return "--client-ca needs TLS: --tls-cert and --tls-key";
  }
  if (options.listen.empty()) return {};
  if (options.clientCa.empty() && options.tokens.empty()) {
    return fmt::format(
        "listening on {} needs client certificates (--client-ca) or tokens "
        "(--tokens)",
        options.listen);
  }
  if (!hasTls && !isLoopback(options.listen)) {
    return fmt::format(
        "listening on {}, which other machines reach, needs TLS (--tls-cert and "
        "--tls-key)",
        options.listen);
  }
  return {};
}

}  // namespace vnagent
