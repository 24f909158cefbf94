// Fuzz target: requests to a live agent, one a line: method, target, headers and body, with tabs
// between them; headers are "name=value", with ";" between them. Each request is answered once,
// and with a status that there is; a refused one takes no revision; and a watch of the document
// has what GET prints.
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/live/service.h"
#include "tests/fuzz/fuzz.h"

namespace {

using Fuzz::require;
using nlohmann::json;
using vnagent::Reply;
using vnagent::Request;

constexpr unsigned kStatuses[] = {200, 201, 304, 400, 401, 403, 404, 405, 406,
                                  409, 410, 412, 415, 422, 428, 503, 504};

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == separator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

class Agent {
 public:
  Agent() : service_({}, clock_, nullptr, {}) {
    watch_ = std::move(reply("GET", "/v1/watch?of=cloud").stream);
    require(watch_ != nullptr, "a watch is answered with a stream");
  }

  void take(std::string_view line) {
    const auto parts = split(line, '\t');
    Request request;
    request.method = parts[0];
    if (parts.size() > 1) request.target = parts[1];
    // It would copy the process.
    if (request.target.find("dry") != std::string::npos) return;
    for (const std::string& header : split(parts.size() > 2 ? parts[2] : "", ';')) {
      const size_t equals = header.find('=');
      if (equals == std::string::npos) continue;
      request.headers.emplace_back(header.substr(0, equals), header.substr(equals + 1));
    }
    if (parts.size() > 3) request.body = parts[3];
    request.principal = vnagent::Principal{"fuzz", vnagent::Role::kAdmin, {}};
    const uint64_t before = revision();
    std::optional<unsigned> status;
    const auto ticket = service_.handle(std::move(request), [&](Reply answered) {
      require(!status, "a request is answered once");
      status = answered.status;
      check(answered);
    });
    if (!status) {
      service_.abandon(ticket);
      status = 0;
    }
    if (*status >= 400) require(revision() == before, "a refused request takes no revision");
    follow();
  }

  void pass(double seconds) {
    clock_.nowIs(clock_.now() + seconds);
    service_.turn();
  }

 private:
  Reply reply(std::string method, std::string target) {
    Request request;
    request.method = std::move(method);
    request.target = std::move(target);
    request.principal = vnagent::Principal{"fuzz", vnagent::Role::kAdmin, {}};
    Reply got;
    service_.handle(std::move(request), [&](Reply answered) { got = std::move(answered); });
    return got;
  }
  uint64_t revision() { return json::parse(*reply("GET", "/v1").body)["revision"]; }

  static void check(const Reply& reply) {
    require(std::ranges::find(kStatuses, reply.status) != std::end(kStatuses),
            "a reply has a status that there is");
    if (reply.stream != nullptr || reply.status == 304) return;
    require(reply.body != nullptr, "a reply has a body");
    const json body = json::parse(*reply.body);
    if (reply.status >= 400) require(body["status"] == reply.status, "a problem has its status");
  }

  void follow() {
    while (const auto bytes = watch_->next()) {
      const size_t data = bytes->find("\ndata: ") + 7;
      const json value = json::parse(bytes->substr(data, bytes->size() - data - 2));
      if (bytes->find("\nevent: snapshot\n") != std::string::npos) document_ = value;
      if (bytes->find("\nevent: patch\n") != std::string::npos) document_.merge_patch(value);
    }
    require(document_ == json::parse(*reply("GET", "/v1/cloud").body),
            "a watch has what GET prints");
  }

  Kiv::VirtualTime clock_;
  vnagent::Service service_;
  std::unique_ptr<vnagent::EventStream> watch_;
  json document_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Agent agent;
  for (const std::string& line : split(Fuzz::textOf(data, size), '\n')) {
    if (line == "pass") {
      agent.pass(7);
    } else if (!line.empty()) {
      agent.take(line);
    }
  }
  return 0;
}
