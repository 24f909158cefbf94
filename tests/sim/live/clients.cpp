#include "tests/sim/live/clients.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include <fmt/format.h>

namespace sim {
namespace {

constexpr Nanoseconds kPatience = 40 * kSecond;

bool movesTimer(const Json& patch) {
  return patch.contains("syncHeartbeat") || patch.contains("syncStatus");
}

}  // namespace

// Replies.

bool ReplyReader::hasHead() {
  if (isInside_) return true;
  const size_t end = input_.find("\r\n\r\n");
  if (end == input_.npos) return false;
  const std::string head = input_.substr(0, end + 2);
  input_.erase(0, end + 4);
  status = static_cast<unsigned>(std::stoul(head.substr(9, 3)));
  headers.clear();
  body.clear();
  for (size_t line = head.find("\r\n") + 2; line < head.size();) {
    const size_t next = head.find("\r\n", line);
    const size_t colon = head.find(':', line);
    std::string name = head.substr(line, colon - line);
    std::ranges::transform(name, name.begin(), [](char c) {
      return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    });
    headers[name] = head.substr(colon + 2, next - colon - 2);
    line = next + 2;
  }
  isInside_ = true;
  isComplete_ = false;
  return true;
}

void ReplyReader::readChunks() {
  while (!isComplete_) {
    const size_t line = input_.find("\r\n");
    if (line == input_.npos) return;
    const size_t size = std::stoul(input_.substr(0, line), nullptr, 16);
    if (input_.size() < line + 2 + size + 2) return;
    body.append(input_, line + 2, size);
    input_.erase(0, line + 2 + size + 2);
    isComplete_ = size == 0;
  }
}

bool ReplyReader::hasBody() {
  if (headers.contains("transfer-encoding")) {
    readChunks();
    return isComplete_;
  }
  const auto length = headers.find("content-length");
  const size_t size = length == headers.end() ? 0 : std::stoul(length->second);
  if (input_.size() < size) return false;
  body = input_.substr(0, size);
  input_.erase(0, size);
  return true;
}

std::string ReplyReader::takePart() {
  readChunks();
  return std::exchange(body, {});
}

void ReplyReader::next() {
  isInside_ = false;
}

// Clients.

Client::~Client() {
  if (wire_) wire_->reset();
}

std::string Client::bytesOf(uint64_t number, const RequestText& request) const {
  std::string bytes = fmt::format("{} {} HTTP/1.1\r\nHost: agent\r\nSim-Request: {}\r\n",
                                  request.method, request.target, number);
  bytes += fmt::format("Authorization: Bearer token-of-{}\r\n", role_.name);
  for (const auto& [name, value] : request.headers) bytes += name + ": " + value + "\r\n";
  if (!request.body.empty() || request.method == "PATCH" || request.method == "PUT") {
    bytes += fmt::format("Content-Length: {}\r\n", request.body.size());
  }
  return bytes + "\r\n" + request.body;
}

bool Client::open() {
  if (wire_ && wire_->isOpen()) return true;
  const auto alive = std::weak_ptr(alive_);
  auto& world = cloud_.world;
  const size_t window = world.once(5) ? world.pick(1, 300) : 65'536;
  const Nanoseconds latency = world.once(4) ? 200 * kMillisecond : kMillisecond;
  auto wire = std::make_shared<Wire>(world, Wire::Hearer{}, window, latency);
  wire->hearerIs({[this, alive, raw = wire.get()](const std::string& bytes) {
                    if (alive.expired() || wire_.get() != raw) return;
                    checkVisible(bytes);
                    received(bytes);
                  },
                  [this, alive, raw = wire.get()] {
                    if (alive.expired() || wire_.get() != raw) return;
                    wire_ = nullptr;
                    lost();
                  }});
  if (!cloud_.connect(wire)) return false;
  wire_ = std::move(wire);
  return true;
}

void Client::drop() {
  if (wire_) wire_->reset();
  wire_ = nullptr;
}

void Client::checkVisible(const std::string& bytes) {
  if (role_.regions.empty()) return;
  for (const char* name : {"of-R0", "of-R1", "of-R2"}) {
    if (role_.regions.contains(std::string(name + 3)) || bytes.find(name) == bytes.npos) continue;
    world().fail(fmt::format("{} sees something {}: {}", role_.name, name, bytes));
  }
}

// Drivers.

void Driver::actLater() {
  world().after(world().delay(200 * kMillisecond), [this, alive = std::weak_ptr(alive_)] {
    if (!alive.expired()) act();
  });
}

void Driver::act() {
  if (cloud_.isCalm) left_ = std::min<size_t>(left_, 1);
  if (left_ == 0) return;
  --left_;
  pending_ = Pending{0, choose()};
  send();
}

void Driver::send() {
  if (++pending_->attempts > 30) {
    pending_.reset();
    return actLater();
  }
  ++lastPlan_;
  if (!open()) return sendLater(300 * kMillisecond);
  reader_ = {};
  pending_->number = ++cloud_.lastRequest;
  pending_->sent = now();
  std::string bytes = bytesOf(pending_->number, pending_->text);
  const bool isHarmful = !cloud_.isCalm && world().once(15);
  if (isHarmful && world().once(2)) {
    // Half a request, and then nothing, or the end.
    bytes.resize(world().pick(1, bytes.size() - 1));
    wire_->send(bytes);
    if (world().once(3)) return wire_->finishSending();
    if (world().once(2)) {
      drop();
      return sendLater(100 * kMillisecond);
    }
  } else {
    wire_->send(bytes);
    if (isHarmful && world().once(2)) wire_->finishSending();
    if (isHarmful && wire_) {
      // The reply is not waited for.
      const Nanoseconds time = world().delay(3 * kMillisecond);
      world().after(time, [this, alive = std::weak_ptr(alive_), number = pending_->number] {
        if (alive.expired() || !pending_ || pending_->number != number) return;
        drop();
        lost();
      });
    }
  }
  world().after(kPatience, [this, alive = std::weak_ptr(alive_), number = pending_->number] {
    if (alive.expired() || !pending_ || pending_->number != number) return;
    drop();
    lost();
  });
}

void Driver::lost() {
  if (!pending_) return;
  const bool isSafe =
      pending_->text.method == "GET" || pending_->text.headers.contains("idempotency-key");
  if (!isSafe || (!cloud_.isCalm && world().once(10))) {
    pending_.reset();
    return actLater();
  }
  sendLater(100 * kMillisecond);
}

void Driver::sendLater(Nanoseconds mean) {
  world().after(world().delay(mean), [this, alive = std::weak_ptr(alive_), plan = ++lastPlan_] {
    if (!alive.expired() && pending_ && plan == lastPlan_) send();
  });
}

void Driver::received(const std::string& bytes) {
  reader_.append(bytes);
  if (!reader_.hasHead() || !reader_.hasBody()) return;
  if (!pending_) return world().fail("a reply came without a request");
  finish();
}

// What arrived is what the service answered.
void Driver::finish() {
  const auto closes = reader_.headers.find("connection");
  const bool isLast = closes != reader_.headers.end() && closes->second == "close";
  const auto& answers = cloud_.knowledge.answers;
  const auto answer = answers.find(pending_->number);
  if (reader_.status == 408) {
    if (now() - pending_->sent < 30 * kSecond) world().fail("a request timed out early");
    drop();
    reader_.next();
    return lost();
  }
  if (answer == answers.end()) {
    // Only the connection itself refuses what the service has not seen.
    if (reader_.status != 400 && reader_.status != 503) {
      world().fail(fmt::format("request {} is answered with {} by nobody", pending_->number,
                               reader_.status));
    }
  } else if (answer->second.first != reader_.status || answer->second.second != reader_.body) {
    world().fail(fmt::format("the client of request {} read {} {}, and the answer was {} {}",
                             pending_->number, reader_.status, reader_.body, answer->second.first,
                             answer->second.second));
  }
  if (reader_.status == 200 && reader_.headers.contains("etag")) {
    etags_[pending_->text.target] = reader_.headers["etag"];
  }
  const bool isRefused = reader_.status == 507 || reader_.status == 503;
  reader_.next();
  if (isLast) drop();
  if (isRefused && pending_->text.headers.contains("idempotency-key") && !world().once(5)) {
    return lost();
  }
  pending_.reset();
  actLater();
}

// Requests.

std::string Driver::region() {
  return fmt::format("R{}", world().pick(0, 2));
}
std::string Driver::thing(const std::string& region, const char* kind, uint64_t last) {
  return fmt::format("{}-{}-of-{}", kind, world().pick(0, last), region);
}

Json Driver::patchOfRegion(const std::string& region) {
  World& w = world();
  const bool removes = w.once(3);
  const auto value = [&](Json json) { return removes ? Json() : json; };
  switch (w.pick(0, 9)) {
    case 0:
    case 1:
      return {{"network", {{thing(region, "net", 5), value(Json::object())}}}};
    case 2:
      return {{"port", {{thing(region, "port", 3), value(Json::object())}}}};
    case 3:
      return {{"segment",
               {{thing(region, "seg", 2),
                 value({{"segmentationType", "vlan"}, {"segmentationId", w.pick(100, 105)}})}}}};
    case 4:
    case 5: {
      const std::string host = w.once(20) ? "shared-host" : thing(region, "host", 2);
      const std::string segment = thing(region, "seg", 2);
      return {{"portBinding",
               {{thing(region, "port", 3),
                 value({{"portToHostBinding", {{host, {{"segment", {{"0", segment}}}}}}}})}}}};
    }
    case 6:
      return {{"syncHeartbeat", w.pick(0, 3)}};
    case 7:
      return {{"syncStatus", w.once(2) ? "syncInProgress" : "syncComplete"}};
    case 8: {
      if (w.once(3)) return {{"requester", ""}, {"requestId", ""}};
      return {{"requester", role_.name}, {"requestId", fmt::format("id-{}", w.pick(0, 3))}};
    }
    default:
      if (w.once(2)) return {{"unknown", 1}};
      return {{"network", {{thing(region, "net", 5), Json::object()}}},
              {"tenant", {{thing(region, "tenant", 2), value(Json::object())}}},
              {"syncHeartbeat", nullptr}};
  }
}

Json Driver::wholeRegion(const std::string& region) {
  Json json = Json::object();
  for (int i = static_cast<int>(world().pick(0, 4)); i > 0; --i) {
    json["network"][thing(region, "net", 5)] = Json::object();
    json["port"][thing(region, "port", 3)] = Json::object();
    json["segment"][thing(region, "seg", 2)] = {{"segmentationType", "vlan"},
                                                {"segmentationId", world().pick(100, 105)}};
  }
  if (json.contains("port") && world().once(2)) {
    const std::string port = json["port"].begin().key();
    const std::string segment = json["segment"].begin().key();
    json["portBinding"][port]["portToHostBinding"][thing(region, "host", 2)]["segment"]["0"] =
        segment;
  }
  return json;
}

RequestText Driver::choose() {
  const uint64_t kind = world().pick(0, 9);
  RequestText request = kind < 5 ? changeOf() : kind < 8 ? syncCall() : readOf();
  return request;
}

RequestText Driver::changeOf() {
  World& w = world();
  RequestText request;
  const std::string name = region();
  const std::string at = "/v1/cloud/region/" + name;
  request.method = "PATCH";
  request.headers["content-type"] = "application/merge-patch+json";
  switch (w.pick(0, 11)) {
    case 0:
      request = {"DELETE", w.once(4) ? at : at + "/network/" + thing(name, "net", 5), {}, ""};
      break;
    case 1:
    case 2:
      request.method = "PUT";
      request.target = at;
      request.headers["content-type"] = "application/json";
      request.body = wholeRegion(name).dump();
      break;
    case 3: {
      request.method = "POST";
      request.target = "/v1/batch";
      request.headers["content-type"] = "application/json";
      Json patches = Json::array();
      bool armsTimer = false;
      for (uint64_t i = w.pick(1, 4); i > 0; --i) {
        const std::string other = region();
        Json patch = patchOfRegion(other);
        // The clock stands still in a batch, and timers that are due at once have no order.
        if (armsTimer && movesTimer(patch)) continue;
        armsTimer = armsTimer || movesTimer(patch);
        patches.push_back({{"region", {{other, std::move(patch)}}}});
      }
      request.body = patches.dump();
      break;
    }
    case 4:
      request.target = "/v1/cloud";
      request.body = Json{{"config",
                           {{"vlanAssignment",
                             {{name, {{"vlan", {{std::to_string(w.pick(100, 103)), true}}}}}}}}}}
                         .dump();
      break;
    case 5:
      request.target = "/v1/cloud";
      request.body = w.once(2) ? "{\"region\": {\"" : Json{{"region", Json::object()}}.dump();
      break;
    case 6:
      request.target = at + "/port/" + thing(name, "port", 3);
      request.body = "{}";
      break;
    default:
      request.target = w.once(2) ? "/v1/cloud" : at;
      request.body = patchOfRegion(name).dump();
      if (request.target == "/v1/cloud") {
        request.body = Json{{"region", {{name, Json::parse(request.body)}}}}.dump();
      }
      if (w.once(30)) request.target += "?dry-run=true";
      break;
  }
  const bool isBatch = request.target == "/v1/batch";
  if (!isBatch && w.once(3)) {
    const auto known = etags_.find(request.target);
    if (known != etags_.end()) request.headers["if-match"] = known->second;
  } else if (!isBatch && w.once(10)) {
    request.headers["if-none-match"] = "*";
  }
  if (w.once(3)) request.headers["sync-request-id"] = requestId_;
  if (w.once(2)) {
    // Now and then a key that belongs to something else.
    if (keys_ == 0 || !w.once(12)) ++keys_;
    request.headers["idempotency-key"] = fmt::format("{}-{}", role_.name, keys_);
  }
  return request;
}

RequestText Driver::syncCall() {
  World& w = world();
  const std::string at = "/v1/region/" + region() + "/sync";
  switch (w.pick(0, 6)) {
    case 0:
    case 1: {
      if (!w.once(3)) requestId_ = fmt::format("{}-{}", role_.name, ++requestIds_);
      Json body{{"requester", role_.name}, {"requestId", requestId_}};
      if (w.once(2)) body["wait"] = w.pick(1, 12);
      return {"POST", at + "/lock", {{"content-type", "application/json"}}, body.dump()};
    }
    case 2:
      return {"GET", at, {}, ""};
    case 3:
      return {"DELETE",
              at + "/lock" + (w.once(4) ? "?force=true" : ""),
              {{"sync-request-id", requestId_}},
              ""};
    default: {
      const char* const calls[] = {"/start", "/heartbeat", "/complete"};
      RequestText request{"POST", at + calls[w.pick(0, 2)], {}, ""};
      if (!w.once(10)) request.headers["sync-request-id"] = requestId_;
      request.headers["content-length"] = "0";
      return request;
    }
  }
}

RequestText Driver::readOf() {
  World& w = world();
  const std::string name = region();
  switch (w.pick(0, 4)) {
    case 0:
      return {"GET", "/v1/cloud", {}, ""};
    case 1:
      return {"GET", "/v1/output", {}, ""};
    case 2:
      return {"GET",
              fmt::format("/v1/output?wait={}&timeout={}",
                          cloud_.knowledge.model.revision() + w.pick(0, 3), w.pick(0, 5)),
              {},
              ""};
    case 3:
      return {"GET", "/v1/cloud/region/" + name, {}, ""};
    default:
      return {
          "GET",
          "/v1/cloud/region/" + name + (w.once(2) ? "/network" : "/port/" + thing(name, "port", 3)),
          {},
          ""};
  }
}

// Watchers.

bool Watcher::isDone() const {
  return document_ && revision_ >= cloud_.knowledge.model.revision();
}

void Watcher::connectLater() {
  world().after(world().delay(300 * kMillisecond), [this, alive = std::weak_ptr(alive_)] {
    if (!alive.expired()) connect();
  });
}

void Watcher::connect() {
  if (!open()) return connectLater();
  reader_ = {};
  events_.clear();
  RequestText request{"GET", ofCloud_ ? "/v1/watch?of=cloud" : "/v1/watch", {}, ""};
  if (!id_.empty()) request.headers["last-event-id"] = id_;
  wire_->send(bytesOf(++cloud_.lastRequest, request));
  if (cloud_.isCalm) return;
  world().after(world().between(0, 20 * kSecond),
                [this, alive = std::weak_ptr(alive_), raw = wire_] {
                  if (alive.expired() || wire_ != raw || cloud_.isCalm) return;
                  world().note(role_.name + "'s watch is dropped");
                  drop();
                  connectLater();
                });
}

void Watcher::lost() {
  connectLater();
}

void Watcher::received(const std::string& bytes) {
  reader_.append(bytes);
  if (!reader_.hasHead()) return;
  if (reader_.status != 200) {
    if (!reader_.hasBody()) return;
    if (reader_.status != 503 || reader_.body.find("behind") != std::string::npos) {
      world().fail(
          fmt::format("a watch from {} is refused: {} {}", id_, reader_.status, reader_.body));
    }
    drop();
    return connectLater();
  }
  events_ += reader_.takePart();
  for (size_t end = events_.find("\n\n"); end != events_.npos; end = events_.find("\n\n")) {
    take(events_.substr(0, end));
    events_.erase(0, end + 2);
  }
}

void Watcher::take(const std::string& event) {
  std::map<std::string, std::string> fields;
  for (size_t begin = 0; begin < event.size();) {
    const size_t end = std::min(event.find('\n', begin), event.size());
    const size_t colon = event.find(": ", begin);
    fields[event.substr(begin, colon - begin)] = event.substr(colon + 2, end - colon - 2);
    begin = end + 1;
  }
  const std::string& id = fields["id"];
  const uint64_t revision = std::stoull(id);
  Knowledge& knowledge = cloud_.knowledge;
  ++knowledge.events;
  world().note(fmt::format("{} watches {} {}", role_.name, fields["event"], id));
  const auto [check, isNew] = knowledge.checks.emplace(revision, id);
  if (!isNew && check->second != id) {
    return world().fail(fmt::format("an event has the id {}, and had {}", id, check->second));
  }
  if (revision > knowledge.model.revision()) {
    return world().fail(fmt::format("an event shows revision {}, which is not there", revision));
  }
  knowledge.shown = std::max(knowledge.shown, revision);
  const Json data = Json::parse(fields["data"]);
  if (fields["event"] == "snapshot") {
    if (document_) return world().fail("a watch that resumed got a snapshot");
    document_ = data;
  } else if (fields["event"] == "patch") {
    if (!document_ || revision <= revision_) {
      return world().fail(fmt::format("a patch to {} came after {}", id, id_));
    }
    document_->merge_patch(data);
  } else if (revision < revision_) {
    return world().fail(fmt::format("a bookmark of {} came after {}", id, id_));
  }
  id_ = id;
  revision_ = revision;
  if (ofCloud_) {
    const Json expected = Model::viewOf(knowledge.model.at(revision).cloud, role_);
    if (*document_ != expected) {
      world().fail(fmt::format("{} watches {} at {}, not {}", role_.name, document_->dump(), id,
                               expected.dump()));
    }
  } else if (role_.regions.empty() && *document_ != knowledge.outputs.at(revision)) {
    world().fail(fmt::format("{} watches {} at {}, not {}", role_.name, document_->dump(), id,
                             knowledge.outputs.at(revision).dump()));
  }
}

}  // namespace sim
