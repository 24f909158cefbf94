// A small HTTP/1.1 client for the live agent: a Unix socket, TCP, or TLS.
//
//   HttpClient client(Endpoint::ofSocket("/run/vnagent/vnagent.sock"));
//   const HttpResponse response = client.send({.method = "GET", .target = "/v1"});
//
// Synchronous, on one thread. Each request has a connection of its own, and a deadline.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vnagent {

// Where the agent listens, and what to show it.
struct Endpoint {
  std::string socket;  // path of a Unix socket; empty: host and port
  std::string host;
  std::string port;
  bool tls = false;
  std::string authorities;  // file with the certificates that are trusted; empty: the system's
  std::string token;        // sent as Authorization: Bearer; empty: none

  static Endpoint ofSocket(std::string path);
  // Of "http://HOST:PORT" or "https://HOST[:PORT]". Throws std::invalid_argument.
  static Endpoint ofUrl(std::string_view url);

  // As messages name it.
  std::string name() const;
};

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method;
  std::string target;
  HttpHeaders headers = {};
  std::string body = {};
  double deadline = 30;  // seconds for all of it
};

struct HttpResponse {
  unsigned status = 0;
  HttpHeaders headers;  // names in lower case
  std::string body;

  // The value of a header; empty where there is none.
  std::string header(std::string_view name) const;
};

// No answer: nobody listens, the connection broke, or the deadline has passed. what() says why.
class Unreachable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A response whose body is read while it comes.
class HttpStream {
 public:
  virtual ~HttpStream() = default;

  // Status and headers; the body too where the status is not 200.
  virtual const HttpResponse& response() const = 0;

  // The next bytes; empty at the end. Throws Unreachable when none come for `deadline` seconds.
  virtual std::string read(double deadline) = 0;
};

class HttpClient {
 public:
  explicit HttpClient(Endpoint endpoint) : endpoint_(std::move(endpoint)) {}

  const Endpoint& endpoint() const { return endpoint_; }

  // Throws Unreachable.
  HttpResponse send(const HttpRequest& request) const;
  std::unique_ptr<HttpStream> open(const HttpRequest& request) const;

 private:
  Endpoint endpoint_;
};

}  // namespace vnagent
