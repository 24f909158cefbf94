#include "bench/live/peers.h"

#include <charconv>
#include <vector>

#include <openssl/evp.h>

#include "agent/client/http.h"
#include "agent/load/event_splitter.h"
#include "agent/load/http_channel.h"

namespace bench {
namespace {

using vnagent::ChannelReply;
using vnagent::CloudShape;
using vnagent::Endpoint;
using vnagent::HttpChannel;
using vnagent::LoadCloud;
using vnagent::RequestHead;

Endpoint endpointOf(const std::string& address) {
  return address.find("://") == address.npos ? Endpoint::ofSocket(address)
                                             : Endpoint::ofUrl(address);
}

// The number behind a piece of text; 0 where there is none.
std::uint64_t numberAfter(std::string_view text, std::string_view before) {
  const auto found = text.find(before);
  if (found == text.npos) return 0;
  std::uint64_t number = 0;
  const char* begin = text.data() + found + before.size();
  std::from_chars(begin, text.data() + text.size(), number);
  return number;
}

std::string base64(std::string_view text) {
  std::string encoded((text.size() + 2) / 3 * 4 + 1, '\0');
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()), bytes,
                                   static_cast<int>(text.size()));
  encoded.resize(static_cast<std::size_t>(size));
  return encoded;
}

Peer::Outcome failed(const ChannelReply& reply) {
  if (!reply.error.empty()) return {reply.error, 0};
  return {"answer " + std::to_string(reply.status) + ": " + reply.body.substr(0, 300), 0};
}

// What is common to those that speak HTTP.
class HttpPeer : public Peer {
 public:
  HttpPeer(boost::asio::io_context& context, const std::string& address, const CloudShape& shape)
      : context_(context), endpoint_(endpointOf(address)), head_(endpoint_), cloud_(shape) {}

  void open(std::size_t connections, Done done) override {
    if (channels_.size() == connections) return prepare(done);
    const auto channel = HttpChannel::make(context_, endpoint_);
    channel->open([this, channel, connections, done](const std::string& error) {
      if (!error.empty()) return done({error, 0});
      channels_.push_back(channel);
      ports_.push_back(static_cast<std::uint32_t>(ports_.size()));
      open(connections, done);
    });
  }

  void change(std::size_t connection, Done done) override {
    // Each connection has ports of its own, and moves one after another.
    std::uint32_t& port = ports_[connection];
    const std::string request = requestOf(port);
    port += static_cast<std::uint32_t>(channels_.size());
    if (port >= cloud_.ports()) port = static_cast<std::uint32_t>(connection);
    channels_[connection]->send(request, [this, done = std::move(done)](ChannelReply reply) {
      if (reply.status != 200) return done(failed(reply));
      done({"", revisionOf(reply.body)});
    });
  }

  void watch(Done ready, Seen) override { ready({name() + " cannot be watched", 0}); }

 protected:
  virtual std::string requestOf(std::uint32_t port) = 0;
  virtual std::uint64_t revisionOf(const std::string& body) const = 0;
  virtual void prepare(const Done& done) { done({}); }

  const RequestHead& head() const { return head_; }
  LoadCloud& cloud() { return cloud_; }
  const std::shared_ptr<HttpChannel>& anyChannel() const { return channels_.front(); }

  // Opens a connection of its own for a request whose answer has no end.
  void follow(std::string request, Done ready,
              const std::function<void(std::string_view bytes)>& take) {
    const auto channel = HttpChannel::make(context_, endpoint_);
    watchers_.push_back(channel);
    channel->open([=](const std::string& error) {
      if (!error.empty()) return ready({error, 0});
      channel->stream(request, [ready, take](const HttpChannel::Part& part) {
        if (!part.error.empty()) return ready({part.error, 0});
        if (part.status != 200) return ready({"answer " + std::to_string(part.status), 0});
        if (part.bytes.empty()) return ready({});
        take(part.bytes);
      });
    });
  }

 private:
  boost::asio::io_context& context_;
  const Endpoint endpoint_;
  const RequestHead head_;
  LoadCloud cloud_;
  std::vector<std::shared_ptr<HttpChannel>> channels_;
  std::vector<std::shared_ptr<HttpChannel>> watchers_;
  std::vector<std::uint32_t> ports_;  // the next of each channel
};

class BarePeer : public HttpPeer {
 public:
  using HttpPeer::HttpPeer;
  std::string name() const override { return "bare"; }

 protected:
  std::string requestOf(std::uint32_t port) override {
    return head().request("PATCH", cloud().bindingTarget(port), cloud().move(port));
  }
  std::uint64_t revisionOf(const std::string& body) const override {
    return numberAfter(body, "\"revision\": ");
  }
};

class AgentPeer final : public BarePeer {
 public:
  using BarePeer::BarePeer;
  std::string name() const override { return "agent"; }

  void watch(Done ready, Seen seen) override {
    follow(head().request("GET", "/v1/watch?since=" + std::to_string(revision_)), std::move(ready),
           [seen = std::move(seen),
            events = std::make_shared<vnagent::EventSplitter>()](std::string_view bytes) {
             events->feed(bytes, [&](const vnagent::SplitEvent& event) {
               if (event.name == "patch") seen(event.revision);
             });
           });
  }

 protected:
  // The regions of the cloud, one after another.
  void prepare(const Done& done) override { putRegion(0, done); }

  std::uint64_t revisionOf(const std::string& body) const override {
    revision_ = BarePeer::revisionOf(body);
    return revision_;
  }

 private:
  void putRegion(std::uint32_t region, const Done& done) {
    if (region == cloud().regions()) return done({});
    anyChannel()->send(head().request("PUT", "/v1/cloud/region/" + cloud().regionName(region),
                                      cloud().regionText(region)),
                       [this, region, done](const ChannelReply& reply) {
                         if (reply.status / 100 != 2) return done(failed(reply));
                         revisionOf(reply.body);
                         putRegion(region + 1, done);
                       });
  }

  mutable std::uint64_t revision_ = 0;
};

class EtcdPeer final : public HttpPeer {
 public:
  using HttpPeer::HttpPeer;
  std::string name() const override { return "etcd"; }

  // All changes are below one key.
  void watch(Done ready, Seen seen) override {
    const std::string body = R"({"create_request":{"key":")" + base64("/v1/") +
                             R"(","range_end":")" + base64("/v10") + R"("}})";
    // It answers with a line once it watches.
    follow(
        head().requestWithType("POST", "/v3/watch", "application/json", body),
        [ready](const Outcome& outcome) {
          if (!outcome.error.empty()) ready(outcome);
        },
        [ready, seen = std::move(seen),
         rest = std::make_shared<std::string>()](std::string_view bytes) {
          *rest += bytes;
          for (auto end = rest->find('\n'); end != rest->npos; end = rest->find('\n')) {
            const std::string line = rest->substr(0, end);
            rest->erase(0, end + 1);
            if (line.find("\"created\":true") != line.npos) ready({});
            // Events of one line share its revision when they come fast.
            for (auto at = line.find(kModified); at != line.npos;
                 at = line.find(kModified, at + 1)) {
              seen(numberAfter(std::string_view(line).substr(at), kModified));
            }
          }
        });
  }

 protected:
  std::string requestOf(std::uint32_t port) override {
    const std::string body = R"({"key":")" + base64(cloud().bindingTarget(port)) +
                             R"(","value":")" + base64(cloud().move(port)) + R"("})";
    return head().requestWithType("POST", "/v3/kv/put", "application/json", body);
  }
  std::uint64_t revisionOf(const std::string& body) const override {
    return numberAfter(body, "\"revision\":\"");
  }

 private:
  static constexpr std::string_view kModified = "\"mod_revision\":\"";
};

}  // namespace

std::unique_ptr<Peer> makeAgentPeer(boost::asio::io_context& context, const std::string& address,
                                    const CloudShape& shape) {
  return std::make_unique<AgentPeer>(context, address, shape);
}

std::unique_ptr<Peer> makeBarePeer(boost::asio::io_context& context, const std::string& address,
                                   const CloudShape& shape) {
  return std::make_unique<BarePeer>(context, address, shape);
}

std::unique_ptr<Peer> makeEtcdPeer(boost::asio::io_context& context, const std::string& address,
                                   const CloudShape& shape) {
  return std::make_unique<EtcdPeer>(context, address, shape);
}

}  // namespace bench
