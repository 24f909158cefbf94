// The connections of the live agent: who leaves, who waits, who takes nothing, and how many.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/server_support.h"

namespace vnagent {
namespace {

using std::chrono::milliseconds;
using test::Client;
using test::eventually;
using test::openDescriptors;
using test::TestNetwork;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kLock = "/v1/region/R/sync/lock";

TEST(ServerConnectionTest, whoClosesGivesUpItsPlace) {
  TestNetwork net;
  Client client = net.client();
  client.send(TestNetwork::post(kLock, "{}"));
  ASSERT_TRUE(eventually([&] { return net.handler.waitingCount() == 1; }));
  client.close();
  EXPECT_TRUE(eventually([&] { return net.handler.waitingCount() == 0; }));
  EXPECT_TRUE(eventually([&] { return net.network.connectionCount() == 0; }));
}

TEST(ServerConnectionTest, whoClosesItsSendingHalfGivesUpItsPlace) {
  TestNetwork net;
  Client client = net.client();
  client.send(TestNetwork::post(kLock, "{}"));
  ASSERT_TRUE(eventually([&] { return net.handler.waitingCount() == 1; }));
  client.finish();
  EXPECT_TRUE(eventually([&] { return net.handler.waitingCount() == 0; }));
  EXPECT_EQ(client.readToEnd(), "");
}

TEST(ServerConnectionTest, whoPipelinesBehindAWaitAndClosesGivesUpItsPlace) {
  TestNetwork net;
  Client client = net.client();
  client.send(TestNetwork::post(kLock, "{}") + TestNetwork::get("/v1"));
  ASSERT_TRUE(eventually([&] { return net.handler.waitingCount() == 1; }));
  client.close();
  EXPECT_TRUE(eventually([&] { return net.handler.waitingCount() == 0; }));
  EXPECT_EQ(net.handler.handled(), 1);
}

TEST(ServerConnectionTest, streamsEventsInChunks) {
  TestNetwork net;
  Client client = net.client();
  client.send(TestNetwork::get("/stream"));
  EXPECT_THAT(client.readThrough("\r\n\r\n"), HasSubstr("Transfer-Encoding: chunked\r\n"));
  net.activity.run([&] { net.handler.stream()->add("id: 1\n\n"); });
  EXPECT_EQ(client.readThrough("\n\n\r\n"), "7\r\nid: 1\n\n\r\n");
  net.activity.run([&] {
    net.handler.stream()->add("id: 2\n\n");
    net.handler.stream()->add("id: 3\n\n");
  });
  EXPECT_EQ(client.readThrough("id: 3\n\n\r\n"), "7\r\nid: 2\n\n\r\n7\r\nid: 3\n\n\r\n");
  net.activity.run([&] { net.handler.stream()->end(); });
  EXPECT_EQ(client.readToEnd(), "0\r\n\r\n");
  EXPECT_TRUE(eventually([&] { return net.handler.streams() == 0; }));
}

TEST(ServerConnectionTest, streamsToHttp10WithoutChunks) {
  TestNetwork net;
  Client client = net.client();
  client.send("GET /stream HTTP/1.0\r\n\r\n");
  client.readThrough("\r\n\r\n");
  net.activity.run([&] {
    net.handler.stream()->add("id: 1\n\n");
    net.handler.stream()->end();
  });
  EXPECT_EQ(client.readToEnd(), "id: 1\n\n");
}

TEST(ServerConnectionTest, noticesAtOnceThatAWatcherHasGone) {
  TestNetwork net;
  for (const bool halfOnly : {false, true}) {
    Client client = net.client();
    client.send(TestNetwork::get("/stream"));
    client.readThrough("\r\n\r\n");
    ASSERT_EQ(net.handler.streams(), 1);
    if (halfOnly) {
      client.finish();
    } else {
      client.close();
    }
    EXPECT_TRUE(eventually([&] { return net.handler.streams() == 0; }));
  }
}

TEST(ServerConnectionTest, cutsAWatcherThatTakesNothing) {
  TestNetwork net({.stalled = milliseconds(100)});
  Client client = net.client();
  client.send(TestNetwork::get("/stream"));
  client.readThrough("\r\n\r\n");
  net.activity.run([&] { net.handler.stream()->add(std::string(50'000'000, 'x')); });
  EXPECT_TRUE(eventually([&] { return net.handler.streams() == 0; }));
  EXPECT_EQ(net.counts.cuts, 1);
}

TEST(ServerConnectionTest, keepsAWatcherThatHasNothingToTake) {
  TestNetwork net(
      {.request = milliseconds(20), .idle = milliseconds(20), .stalled = milliseconds(20)});
  Client watcher = net.client();
  watcher.send(TestNetwork::get("/stream"));
  watcher.readThrough("\r\n\r\n");
  Client silent = net.client();
  EXPECT_TRUE(silent.isClosed()) << "all limits have passed now";
  net.activity.run([&] { net.handler.stream()->add("id: 1\n\n"); });
  EXPECT_THAT(watcher.readThrough("\n\n"), HasSubstr("id: 1"));
}

TEST(ServerConnectionTest, refusesConnectionsBeyondTheLimit) {
  TestNetwork net({.connections = 3});
  std::vector<Client> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(net.client());
    clients.back().send(TestNetwork::get("/v1"));
    EXPECT_THAT(clients.back().readReply(), StartsWith("HTTP/1.1 200 "));
  }
  Client more = net.client();
  more.send(TestNetwork::get("/v1"));
  const auto refusal = more.readToEnd();
  EXPECT_THAT(refusal, StartsWith("HTTP/1.1 429 "));
  EXPECT_THAT(refusal, HasSubstr("/problems/too-many"));
  more.close();
  clients.pop_back();
  EXPECT_TRUE(eventually([&] {
    Client next = net.client();
    next.send(TestNetwork::get("/v1"));
    return next.readReply().starts_with("HTTP/1.1 200 ");
  }));
}

TEST(ServerConnectionTest, leavesRoomBesideOnePrincipal) {
  TestNetwork net({.connections = 64});
  std::vector<Client> clients;
  for (int i = 0; i < 63; ++i) {
    clients.push_back(net.client());
    clients.back().send(TestNetwork::get("/v1"));
    ASSERT_THAT(clients.back().readReply(), StartsWith("HTTP/1.1 200 "));
  }
  Client more = net.client();
  more.send(TestNetwork::get("/v1"));
  EXPECT_THAT(more.readToEnd(), HasSubstr("one principal may hold 63"));
  clients[0].send(TestNetwork::get("/v1"));
  EXPECT_THAT(clients[0].readReply(), StartsWith("HTTP/1.1 200 "));
}

TEST(ServerConnectionTest, stopsWhenWhatWasAcceptedIsAnswered) {
  TestNetwork net;
  Client waiting = net.client();
  waiting.send(TestNetwork::post(kLock, "{}"));
  Client idle = net.client();
  idle.send(TestNetwork::get("/v1"));
  idle.readReply();
  ASSERT_TRUE(eventually([&] { return net.handler.waitingCount() == 1; }));
  net.network.stopAccepting();
  net.network.stop();
  EXPECT_EQ(idle.readToEnd(), "");
  net.activity.run([&] { net.handler.answerAll(503); });
  EXPECT_THAT(waiting.readToEnd(), StartsWith("HTTP/1.1 503 "));
  waiting.close();
  EXPECT_TRUE(net.network.waitUntilIdle(test::kPatience));
}

TEST(ServerConnectionTest, hasItsDescriptorsBackAfterAStorm) {
  TestNetwork net;
  net.client().send(TestNetwork::get("/v1"));
  ASSERT_TRUE(eventually([&] { return net.counts.disconnected == 1; }));
  const size_t before = openDescriptors();
  {
    std::vector<Client> clients;
    for (int i = 0; i < 200; ++i) clients.push_back(net.client());
    for (size_t i = 0; i < clients.size(); ++i) {
      const std::array<std::string, 5> requests{
          TestNetwork::get("/v1"), "GET /half", TestNetwork::post(kLock, "{}"),
          TestNetwork::get("/stream"), "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 9\r\n\r\nx"};
      clients[i].send(requests[i % requests.size()]);
    }
    EXPECT_TRUE(eventually([&] { return net.handler.waitingCount() == 40; }));
  }
  EXPECT_TRUE(eventually([&] { return net.network.connectionCount() == 0; }));
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= before; }));
  EXPECT_TRUE(eventually([&] { return net.handler.waitingCount() == 0; }));
  EXPECT_TRUE(eventually([&] { return net.handler.streams() == 0; }));
  EXPECT_EQ(net.counts.connected, net.counts.disconnected);
}

TEST(ServerSocketTest, refusesAPathOnWhichAProcessListens) {
  TestNetwork net;
  ActivityThread activity;
  test::Counts counts;
  Network second({}, activity, {}, counts);
  try {
    second.listenOnUnixSocket(net.path(), {});
    ADD_FAILURE() << "two processes share a socket";
  } catch (const CannotListen& fault) {
    EXPECT_THAT(fault.what(), HasSubstr("process " + std::to_string(getpid())));
  }
  Client client = net.client();
  client.send(TestNetwork::get("/v1"));
  EXPECT_THAT(client.readReply(), StartsWith("HTTP/1.1 200 ")) << "the first one goes on";
}

TEST(ServerSocketTest, replacesTheSocketOfAProcessThatHasEnded) {
  test::Folder folder;
  const std::string path = folder / "socket";
  {
    const int left = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(left, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ::close(left);
  }
  ActivityThread activity;
  test::Counts counts;
  Network network({}, activity, {}, counts);
  network.listenOnUnixSocket(path, {});
  const auto mode = std::filesystem::status(path).permissions();
  EXPECT_EQ(static_cast<unsigned>(mode), 0660u);
}

TEST(ServerSocketTest, leavesAFileThatIsNoSocket) {
  test::Folder folder;
  const std::string path = folder / "file";
  std::fclose(std::fopen(path.c_str(), "w"));
  ActivityThread activity;
  test::Counts counts;
  Network network({}, activity, {}, counts);
  EXPECT_THROW(network.listenOnUnixSocket(path, {}), CannotListen);
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(ServerSocketTest, removesItsSocketAtTheEnd) {
  std::string path;
  test::Folder folder;
  {
    ActivityThread activity;
    test::Counts counts;
    Network network({}, activity, {}, counts);
    path = folder / "socket";
    network.listenOnUnixSocket(path, {});
    EXPECT_TRUE(std::filesystem::exists(path));
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ServerSocketTest, knowsLoopbackAddresses) {
  EXPECT_TRUE(isLoopback("127.0.0.1:80"));
  EXPECT_TRUE(isLoopback("[::1]:0"));
  EXPECT_TRUE(isLoopback("localhost:80"));
  EXPECT_FALSE(isLoopback("0.0.0.0:80"));
  EXPECT_FALSE(isLoopback("[::]:80"));
  for (const char* bad : {"", ":80", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "::1:80",
                          "127.0.0.1:80x", "name:80"}) {
    EXPECT_THROW(isLoopback(bad), CannotListen) << bad;
  }
}

}  // namespace
}  // namespace vnagent
