// JSON-RPC over a Unix socket: requests and answers are JSON texts with nothing between them.
#include <array>
#include <memory>
#include <vector>

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/write.hpp>
#include <nlohmann/json.hpp>

#include "bench/live/peers.h"

namespace bench {
namespace {

namespace asio = boost::asio;

using nlohmann::json;
using Local = asio::local::stream_protocol;
using Error = boost::system::error_code;

// Where the JSON texts of a stream end.
class TextEnds {
 public:
  // Whether the byte is the last of a text.
  bool take(char byte) {
    if (inString_) {
      if (isEscaped_) {
        isEscaped_ = false;
      } else if (byte == '\\') {
        isEscaped_ = true;
      } else if (byte == '"') {
        inString_ = false;
      }
      return false;
    }
    if (byte == '"') inString_ = true;
    if (byte == '{' || byte == '[') ++depth_;
    if (byte == '}' || byte == ']') return --depth_ == 0;
    return false;
  }

 private:
  int depth_ = 0;
  bool inString_ = false;
  bool isEscaped_ = false;
};

class Rpc : public std::enable_shared_from_this<Rpc> {
 public:
  using Answered = std::function<void(const std::string& error, const std::string& answer)>;

  explicit Rpc(asio::io_context& context) : socket_(context) {}

  void open(const std::string& path, std::function<void(const std::string& error)> opened) {
    socket_.async_connect(Local::endpoint(path), [self = shared_from_this(), opened](Error error) {
      opened(error ? error.message() : "");
      if (!error) self->read();
    });
  }

  void call(std::string request, Answered answered) {
    answered_ = std::move(answered);
    request_ = std::move(request);
    asio::async_write(socket_, asio::buffer(request_),
                      [self = shared_from_this()](Error error, std::size_t) {
                        if (error) self->finish(error.message());
                      });
  }

 private:
  void read() {
    socket_.async_read_some(asio::buffer(buffer_),
                            [self = shared_from_this()](Error error, std::size_t size) {
                              if (error) return self->finish(error.message());
                              for (std::size_t i = 0; i < size; ++i) self->take(self->buffer_[i]);
                              self->read();
                            });
  }

  void take(char byte) {
    text_ += byte;
    if (!ends_.take(byte)) return;
    const std::string text = std::exchange(text_, {});
    if (text.find("\"method\":\"echo\"") == text.npos) return finish("", text);
    // The server asks whether the connection is alive.
    const json request = json::parse(text);
    const json answer = {{"id", request["id"]}, {"result", request["params"]}, {"error", nullptr}};
    auto bytes = std::make_shared<std::string>(answer.dump());
    asio::async_write(socket_, asio::buffer(*bytes), [bytes](Error, std::size_t) {});
  }

  void finish(const std::string& error, const std::string& answer = {}) {
    if (answered_) std::exchange(answered_, nullptr)(error, answer);
  }

  Local::socket socket_;
  std::array<char, 8192> buffer_{};
  std::string request_;
  std::string text_;
  TextEnds ends_;
  Answered answered_;
};

class OvsdbPeer final : public Peer {
 public:
  OvsdbPeer(asio::io_context& context, std::string address, const vnagent::CloudShape& shape)
      : context_(context), address_(std::move(address)), cloud_(shape) {}

  std::string name() const override { return "ovsdb"; }

  void open(std::size_t connections, Done done) override {
    if (channels_.size() == connections) return insert(done);
    const auto channel = std::make_shared<Rpc>(context_);
    channel->open(address_, [this, channel, connections, done](const std::string& error) {
      if (!error.empty()) return done({address_ + ": " + error, 0});
      channels_.push_back(channel);
      ports_.push_back(static_cast<std::uint32_t>(ports_.size()));
      open(connections, done);
    });
  }

  void change(std::size_t connection, Done done) override {
    std::uint32_t& port = ports_[connection];
    const json update = {{"op", "update"},
                         {"table", "Port"},
                         {"where", {{"_uuid", "==", {"uuid", uuids_[port]}}}},
                         {"row", {{"binding", cloud_.move(port)}}}};
    port += static_cast<std::uint32_t>(channels_.size());
    if (port >= cloud_.ports()) port = static_cast<std::uint32_t>(connection);
    transact(connection, {update, {{"op", "commit"}, {"durable", true}}}, done);
  }

  void watch(Done ready, Seen) override { ready({"not measured", 0}); }

 private:
  // A row for each port, in one transaction. Rows are found by their UUID, which needs no search.
  void insert(const Done& done) {
    json operations = json::array();
    for (std::uint32_t port = 0; port < cloud_.ports(); ++port) {
      operations.push_back({{"op", "insert"},
                            {"table", "Port"},
                            {"row", {{"name", cloud_.bindingTarget(port)}, {"binding", "{}"}}}});
    }
    transact(0, std::move(operations), [this, done](const Outcome& outcome) {
      if (!outcome.error.empty()) return done(outcome);
      const json answer = json::parse(answer_);
      for (const json& row : answer.at("result")) uuids_.push_back(row.at("uuid").at(1));
      done({});
    });
  }

  void transact(std::size_t connection, json operations, const Done& done) {
    json params = {"Bench"};
    for (json& operation : operations) params.push_back(std::move(operation));
    const json request = {{"id", ++id_}, {"method", "transact"}, {"params", std::move(params)}};
    const auto take = [this, done](const std::string& error, const std::string& text) {
      if (!error.empty()) return done({error, 0});
      const bool isMade = text.find("\"error\":null") != text.npos &&
                          text.find("\"details\"") == text.npos &&
                          text.find("\"count\":0") == text.npos;
      if (uuids_.empty()) answer_ = text;
      done({isMade ? "" : text.substr(0, 300), 0});
    };
    channels_[connection]->call(request.dump(), take);
  }

  asio::io_context& context_;
  const std::string address_;
  vnagent::LoadCloud cloud_;
  std::vector<std::shared_ptr<Rpc>> channels_;
  std::vector<std::uint32_t> ports_;  // the next of each channel
  std::vector<std::string> uuids_;    // of each port's row
  std::string answer_;                // to the insertion of the rows
  std::uint64_t id_ = 0;
};

}  // namespace

std::unique_ptr<Peer> makeOvsdbPeer(asio::io_context& context, const std::string& address,
                                    const vnagent::CloudShape& shape) {
  return std::make_unique<OvsdbPeer>(context, address, shape);
}

}  // namespace bench
