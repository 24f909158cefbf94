// The network side of the live agent, request by request: framing, limits, order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/server/request_reader.h"
#include "tests/agent/server_support.h"

namespace vnagent {
namespace {

using std::chrono::milliseconds;
using test::Client;
using test::eventually;
using test::TestNetwork;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

TEST(ServerHttpTest, answersOnTheUnixSocketForItsUser) {
  TestNetwork net;
  Client client = net.client();
  client.send(TestNetwork::get("/v1"));
  const auto reply = client.readReply();
  EXPECT_THAT(reply, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(reply, HasSubstr("Content-Type: application/json\r\n"));
  EXPECT_THAT(reply, EndsWith("\r\n\r\nGET /v1 "));
  ASSERT_TRUE(net.handler.last().principal);
  EXPECT_EQ(net.handler.last().principal->role, Role::kAdmin);
  EXPECT_EQ(net.handler.last().principal->name, userName(getuid()));
}

TEST(ServerHttpTest, takesARequestThatArrivesByteByByte) {
  TestNetwork net;
  Client client = net.client();
  const std::string chunked =
      "POST /a HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"
      "3\r\nabc\r\n4;x=y\r\ndefg\r\n0\r\n\r\n";
  for (const std::string& request : {TestNetwork::post("/a", "abcdefg"), chunked}) {
    for (const char c : request) client.send({&c, 1});
    EXPECT_THAT(client.readReply(), EndsWith("POST /a abcdefg"));
  }
}

// Splits every request at every place, without a socket.
TEST(RequestReaderTest, takesARequestThatIsSplitAnywhere) {
  const std::string text =
      "\r\nPOST /a?b=c HTTP/1.1\r\nHost: a\r\nX: 1\r\nX: 2\r\nTransfer-Encoding: chunked\r\n\r\n"
      "3\r\nabc\r\n1\r\nd\r\n0\r\nTrailer: t\r\n\r\n";
  for (size_t at = 0; at <= text.size(); ++at) {
    RequestReader reader(1000, 1000);
    std::vector<RequestReader::Status> seen;
    for (const auto& part : {text.substr(0, at), text.substr(at)}) {
      reader.append(part);
      for (auto status = reader.advance(); status != RequestReader::Status::kMore;
           status = reader.advance()) {
        seen.push_back(status);
        if (status != RequestReader::Status::kComplete) continue;
        const Request request = reader.takeRequest();
        EXPECT_EQ(request.target, "/a?b=c");
        EXPECT_EQ(request.body, "abcd");
        EXPECT_EQ(request.headerCount("x"), 2u);
        EXPECT_EQ(request.header("trailer"), nullptr) << "a field after the body is no header";
      }
    }
    EXPECT_EQ(seen, (std::vector{RequestReader::Status::kHeader, RequestReader::Status::kComplete}))
        << "split at " << at;
  }
}

TEST(ServerHttpTest, answersPipelinedRequestsInOrder) {
  TestNetwork net;
  Client client = net.client();
  std::string requests;
  for (int i = 0; i < 200; ++i) {
    requests +=
        TestNetwork::post("/" + std::to_string(i), std::string(static_cast<size_t>(i), 'b'));
  }
  client.send(requests);
  for (int i = 0; i < 200; ++i) {
    EXPECT_THAT(client.readReply(), HasSubstr("POST /" + std::to_string(i) + " "));
  }
}

TEST(ServerHttpTest, answersWhatWasSentBeforeTheSendingHalfWasClosed) {
  TestNetwork net;
  Client client = net.client();
  client.send(TestNetwork::get("/1") + TestNetwork::get("/2"));
  client.finish();
  EXPECT_THAT(client.readReply(), EndsWith("GET /1 "));
  EXPECT_THAT(client.readReply(), EndsWith("GET /2 "));
  EXPECT_TRUE(client.isClosed());
}

struct BadFraming {
  const char* name;
  const char* request;
};
class ServerFramingTest : public testing::TestWithParam<BadFraming> {};

TEST_P(ServerFramingTest, isRefusedAndCloses) {
  TestNetwork net;
  Client client = net.client();
  client.send(GetParam().request);
  const auto reply = client.readToEnd();
  EXPECT_THAT(reply, StartsWith("HTTP/1.1 400 Bad Request\r\n"));
  EXPECT_THAT(reply, HasSubstr("Connection: close\r\n"));
  EXPECT_THAT(reply, HasSubstr("application/problem+json"));
  EXPECT_THAT(reply, HasSubstr("/problems/bad-request"));
  EXPECT_EQ(reply.find("HTTP/1.1", 1), std::string::npos) << "what follows is no second request";
  EXPECT_EQ(net.handler.handled(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Bad, ServerFramingTest,
    testing::Values(
        BadFraming{"LengthThenChunked",
                   "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\n"
                   "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n"},
        BadFraming{"ChunkedThenLength",
                   "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n"
                   "Content-Length: 5\r\n\r\n0\r\n\r\n"},
        BadFraming{"TwoLengths",
                   "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\n"
                   "Content-Length: 2\r\n\r\nab"},
        BadFraming{"TheSameLengthTwice",
                   "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\n"
                   "Content-Length: 1\r\n\r\na"},
        BadFraming{"AListOfLengths", "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1, 1\r\n\r\na"},
        BadFraming{"NegativeLength", "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: -1\r\n\r\n"},
        BadFraming{"HugeLength",
                   "POST / HTTP/1.1\r\nHost: a\r\n"
                   "Content-Length: 99999999999999999999999\r\n\r\n"},
        BadFraming{"UnknownCoding",
                   "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: gzip\r\n\r\n"},
        BadFraming{"CodingBelowChunked",
                   "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: gzip, chunked\r\n\r\n"},
        BadFraming{"ChunkedTwice",
                   "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n"
                   "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n"},
        BadFraming{"BadChunkSize",
                   "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n"},
        BadFraming{"NoHost", "GET / HTTP/1.1\r\n\r\n"},
        BadFraming{"TwoHosts", "GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n"},
        BadFraming{"BareLineFeeds", "GET / HTTP/1.1\nHost: a\n\n"},
        BadFraming{"BlankBeforeColon", "GET / HTTP/1.1\r\nHost : a\r\n\r\n"},
        BadFraming{"NoVersion", "GET /\r\n\r\n"},
        BadFraming{"LaterVersion", "GET / HTTP/2.0\r\nHost: a\r\n\r\n"},
        BadFraming{"NoPath", "GET v1 HTTP/1.1\r\nHost: a\r\n\r\n"},
        BadFraming{"NoHttp", "\x16\x03\x01\x02\x03\x01\xfc\x03\x03\r\n\r\n"}),
    [](const auto& bad) { return std::string(bad.param.name); });

TEST(ServerHttpTest, refusesALargeHeader) {
  TestNetwork net({.headerBytes = 1000});
  for (const std::string& part :
       {"GET /" + std::string(2000, 'a'), "GET / HTTP/1.1\r\nX: " + std::string(2000, 'a')}) {
    Client client = net.client();
    client.send(part);
    EXPECT_THAT(client.readToEnd(), HasSubstr("/problems/header-too-large"));
  }
  Client client = net.client();
  client.send("GET / HTTP/1.1\r\nHost: a\r\nX: " + std::string(900, 'a') + "\r\n\r\n");
  EXPECT_THAT(client.readReply(), StartsWith("HTTP/1.1 200 "));
}

TEST(ServerHttpTest, refusesALargeBodyBeforeItIsSent) {
  TestNetwork net({.bodyBytes = 1000});
  Client client = net.client();
  client.send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1001\r\n\r\n");
  EXPECT_THAT(client.readToEnd(), StartsWith("HTTP/1.1 413 "));
  Client chunked = net.client();
  chunked.send("POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n");
  for (int i = 0; i < 11; ++i) chunked.send("64\r\n" + std::string(100, 'b') + "\r\n");
  EXPECT_THAT(chunked.readToEnd(), HasSubstr("/problems/too-large"));
  Client fits = net.client();
  fits.send(TestNetwork::post("/", std::string(1000, 'b')));
  EXPECT_THAT(fits.readReply(), StartsWith("HTTP/1.1 200 "));
}

TEST(ServerHttpTest, boundsTheBodiesOfAllRequestsTogether) {
  TestNetwork net({.bodyBytes = 1'000'000, .bodiesBytes = 1'500'000});
  const std::string large = TestNetwork::post("/", std::string(1'000'000, 'b'));
  const auto reply = [&](const std::string& request) {
    Client client = net.client();
    client.send(request);
    return client.readReply();
  };
  Client first = net.client();
  first.send(std::string_view(large).substr(0, 900'000));
  std::string refusal;
  EXPECT_TRUE(eventually([&] {
    refusal = reply(large);
    return refusal.starts_with("HTTP/1.1 503 ");
  }));
  EXPECT_THAT(refusal, HasSubstr("Retry-After: 1\r\n"));
  EXPECT_THAT(refusal, HasSubstr("Connection: close\r\n"));
  EXPECT_THAT(refusal, HasSubstr("/problems/not-ready"));
  EXPECT_THAT(reply(TestNetwork::post("/", std::string(60'000, 's'))), StartsWith("HTTP/1.1 200 "));
  first.send(std::string_view(large).substr(900'000));
  EXPECT_THAT(first.readReply(), StartsWith("HTTP/1.1 200 "));
  EXPECT_TRUE(eventually([&] { return reply(large).starts_with("HTTP/1.1 200 "); }));
}

TEST(ServerHttpTest, aClientThatGoesAwayGivesTheMemoryOfItsBodyBack) {
  TestNetwork net({.bodyBytes = 1'000'000, .bodiesBytes = 1'000'000});
  const std::string large = TestNetwork::post("/", std::string(1'000'000, 'b'));
  for (int i = 0; i < 3; ++i) {
    Client leaves = net.client();
    leaves.send(std::string_view(large).substr(0, 900'000));
  }
  EXPECT_TRUE(eventually([&] {
    Client client = net.client();
    client.send(large);
    return client.readReply().starts_with("HTTP/1.1 200 ");
  }));
}

// Whoever sends a large body first and reads then must still read why it was refused.
TEST(ServerHttpTest, letsAClientReadWhyItsBodyIsRefused) {
  TestNetwork net({.bodyBytes = 1000});
  Client client = net.client();
  client.send(TestNetwork::post("/", std::string(3'000'000, 'b')));
  EXPECT_THAT(client.readToEnd(), StartsWith("HTTP/1.1 413 "));
}

TEST(ServerHttpTest, boundsTheLinesBetweenChunks) {
  TestNetwork net({.headerBytes = 1000});
  Client client = net.client();
  client.send("POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n");
  client.send("Trailer: " + std::string(5000, 't'));
  EXPECT_THAT(client.readToEnd(), StartsWith("HTTP/1.1 400 "));
}

TEST(ServerHttpTest, refusesASlowRequest) {
  TestNetwork net({.request = milliseconds(50)});
  for (const char* part :
       {"GET / HT", "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\n\r\nab"}) {
    Client client = net.client();
    client.send(part);
    EXPECT_THAT(client.readToEnd(), HasSubstr("/problems/timeout"));
  }
}

TEST(ServerHttpTest, closesConnectionsThatSendNothing) {
  TestNetwork net({.request = milliseconds(50), .idle = milliseconds(50)});
  Client silent = net.client();
  EXPECT_TRUE(silent.isClosed());
  Client once = net.client();
  once.send(TestNetwork::get("/v1"));
  EXPECT_THAT(once.readReply(), StartsWith("HTTP/1.1 200 "));
  EXPECT_EQ(once.readToEnd(), "");
}

TEST(ServerHttpTest, aRequestThatWaitsIsNotSlow) {
  TestNetwork net({.request = milliseconds(20), .idle = milliseconds(20)});
  Client client = net.client();
  client.send(TestNetwork::post("/v1/region/R/sync/lock", "{}"));
  ASSERT_TRUE(eventually([&] { return net.handler.waitingCount() == 1; }));
  // Another connection outlives both limits meanwhile.
  Client silent = net.client();
  EXPECT_TRUE(silent.isClosed());
  net.activity.run([&] { net.handler.answerAll(200); });
  EXPECT_THAT(client.readReply(), StartsWith("HTTP/1.1 200 "));
}

TEST(ServerHttpTest, answersHeadWithoutABody) {
  TestNetwork net;
  Client client = net.client();
  client.send("HEAD /v1 HTTP/1.1\r\nHost: a\r\n\r\n" + TestNetwork::get("/v1"));
  const auto head = client.readReply(false);
  EXPECT_THAT(head, HasSubstr("Content-Length: 9\r\n"));
  EXPECT_THAT(client.readReply(), EndsWith("GET /v1 "));
}

TEST(ServerHttpTest, asksForABodyThatTheClientHoldsBack) {
  TestNetwork net;
  Client client = net.client();
  client.send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(client.readThrough("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
  client.send("abc");
  EXPECT_THAT(client.readReply(), EndsWith("POST / abc"));
}

TEST(ServerHttpTest, refusesABodyThatTheClientHoldsBackAtOnce) {
  TestNetwork net({.bodyBytes = 2});
  Client client = net.client();
  client.send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_THAT(client.readToEnd(), StartsWith("HTTP/1.1 413 "));
}

TEST(ServerHttpTest, servesHttp10) {
  TestNetwork net;
  Client once = net.client();
  once.send("GET /v1 HTTP/1.0\r\n\r\n");
  EXPECT_THAT(once.readToEnd(), HasSubstr("Connection: close\r\n"));
  Client kept = net.client();
  for (int i = 0; i < 2; ++i) {
    kept.send("GET /v1 HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
    EXPECT_THAT(kept.readReply(), HasSubstr("Connection: keep-alive\r\n"));
  }
}

TEST(ServerHttpTest, closesWhenAsked) {
  TestNetwork net;
  Client client = net.client();
  client.send("GET /v1 HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n");
  EXPECT_THAT(client.readToEnd(), EndsWith("GET /v1 "));
}

TEST(ServerHttpTest, takesAWholeUrlForItsPath) {
  TestNetwork net;
  Client client = net.client();
  client.send("GET http://switch.example/v1?a=b HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_THAT(client.readReply(), EndsWith("GET /v1?a=b "));
}

TEST(ServerHttpTest, handsHeadersOverInLowerCase) {
  TestNetwork net;
  Client client = net.client();
  client.send("GET / HTTP/1.1\r\nHoSt: a\r\nIf-None-Match: \"3\"\r\n\r\n");
  client.readReply();
  const Request request = net.handler.last();
  ASSERT_NE(request.header("if-none-match"), nullptr);
  EXPECT_EQ(*request.header("if-none-match"), "\"3\"");
}

TEST(ServerHttpTest, sendsALargeReplyToASlowReader) {
  TestNetwork net;
  Client client = net.client();
  client.send(TestNetwork::get("/large?20000000"));
  EXPECT_THAT(client.readReply().size(), testing::Gt(20'000'000u));
}

TEST(ServerHttpTest, answersProbesByItself) {
  TestNetwork net;
  Client client = net.client();
  for (const char* path : {"/healthz", "/readyz"}) {
    client.send(TestNetwork::get(path));
    EXPECT_THAT(client.readReply(), StartsWith("HTTP/1.1 200 "));
  }
  net.unready = true;
  client.send(TestNetwork::get("/readyz"));
  const auto unready = client.readReply();
  EXPECT_THAT(unready, StartsWith("HTTP/1.1 503 "));
  EXPECT_THAT(unready, HasSubstr("/problems/not-ready"));
  EXPECT_THAT(unready, HasSubstr("the test says so"));
  net.unhealthy = true;
  client.send(TestNetwork::get("/healthz"));
  EXPECT_THAT(client.readReply(), StartsWith("HTTP/1.1 503 "));
  client.send(TestNetwork::post("/healthz", "x"));
  EXPECT_THAT(client.readReply(), HasSubstr("Allow: GET, HEAD\r\n"));
  client.send(TestNetwork::get("/readyz?x=y"));
  EXPECT_THAT(client.readReply(), StartsWith("HTTP/1.1 400 "));
  EXPECT_EQ(net.handler.handled(), 0);
}

TEST(ServerHttpTest, refusesRequestsWhileNobodyTakesThem) {
  TestNetwork net;
  net.activity.run([&] { net.network.handlerIs(nullptr); });
  Client client = net.client();
  client.send(TestNetwork::get("/v1"));
  EXPECT_THAT(client.readReply(), HasSubstr("/problems/not-ready"));
}

}  // namespace
}  // namespace vnagent
