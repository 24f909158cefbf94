// What the live agent says of itself: its metrics page and its log.
#include <array>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/logger.h>
#include <unistd.h>

#include "agent/server/log.h"
#include "agent/server/log_writer.h"
#include "agent/server/metrics.h"

namespace vnagent {
namespace {

using ::testing::HasSubstr;

std::string filledPage(Metrics& metrics) {
  metrics.onApplied(1, "a", "PATCH /v1/cloud", 0.002);
  metrics.onRefused("a", "PATCH /v1/cloud", "rule-broken");
  metrics.onLock("R", "a", "driver", "r1", "granted");
  metrics.onSyncStatus("R", "syncRequired", "syncInProgress");
  metrics.onConnected();
  metrics.onReply("GET", "/v1/cloud/region/secret?x", 200);
  metrics.onReply("BREW", "/coffee", 404);
  metrics.committed(0.004);
  ServiceFigures figures;
  figures.revision = 7;
  figures.regionsBySyncStatus = {{"syncInProgress", 2}};
  figures.notifications = {.queued = 5, .delivered = 3, .skipped = 1, .coalesced = 2};
  const JournalFigures journal{.bytes = 4096};
  return metrics.page(figures, &journal);
}

TEST(MetricsTest, showWhatHappened) {
  Metrics metrics;
  const auto page = filledPage(metrics);
  for (const char* line :
       {"\nvnagent_revision 7\n", "vnagent_regions{sync_status=\"syncInProgress\"} 2\n",
        "vnagent_changes_applied_total 1\n",
        "vnagent_changes_refused_total{reason=\"rule-broken\"} 1\n",
        "vnagent_lock_decisions_total{decision=\"granted\"} 1\n",
        "vnagent_sync_transitions_total{status=\"syncInProgress\"} 1\n",
        "vnagent_apply_seconds_count 1\n", "vnagent_commit_seconds_sum 0.004\n",
        "vnagent_notifications_queued_total 5\n", "vnagent_notifications_delivered_total 3\n",
        "vnagent_notifications_skipped_total 1\n", "vnagent_notifications_coalesced_total 2\n",
        "vnagent_journal_size_bytes 4096\n", "vnagent_http_connections 1\n",
        "vnagent_http_requests_total{method=\"GET\",route=\"/v1/cloud\",status=\"200\"} 1\n",
        "vnagent_http_requests_total{method=\"other\",route=\"other\",status=\"404\"} 1\n"}) {
    EXPECT_THAT(page, HasSubstr(line));
  }
  EXPECT_EQ(page.find("secret"), std::string::npos);
}

TEST(MetricsTest, countOnWhenTheMachinesAreMadeAnew) {
  Metrics metrics;
  ServiceFigures figures;
  figures.notifications.queued = 5;
  (void)metrics.page(figures, nullptr);
  figures.notifications.queued = 7;
  EXPECT_THAT(metrics.page(figures, nullptr), HasSubstr("vnagent_notifications_queued_total 7\n"));
  figures.notifications.queued = 4;
  EXPECT_THAT(metrics.page(figures, nullptr), HasSubstr("vnagent_notifications_queued_total 11\n"));
}

// The rules of the format's own checker: each family has a help text and a type; counters end in
// _total and nothing else does; the endings of histograms belong to histograms; names have base
// units and not their type.
TEST(MetricsTest, haveNamesThatFollowTheRules) {
  Metrics metrics;
  std::istringstream page(filledPage(metrics));
  std::map<std::string, std::string> types;
  std::set<std::string> helped;
  for (std::string line; std::getline(page, line);) {
    std::istringstream words(line);
    std::string hash, kind, name, rest;
    if (line.starts_with("# HELP ")) {
      words >> hash >> kind >> name >> rest;
      EXPECT_FALSE(rest.empty()) << line;
      helped.insert(name);
    } else if (line.starts_with("# TYPE ")) {
      words >> hash >> kind >> name >> rest;
      EXPECT_TRUE(types.emplace(name, rest).second) << name << " is there twice";
    } else {
      name = line.substr(0, line.find_first_of("{ "));
      const auto family = std::regex_replace(name, std::regex("_(bucket|sum|count)$"), "");
      EXPECT_TRUE(types.contains(name) || types[family] == "histogram") << line;
    }
  }
  EXPECT_GT(types.size(), 20u);
  for (const auto& [name, type] : types) {
    EXPECT_TRUE(helped.contains(name)) << name;
    EXPECT_TRUE(std::regex_match(name, std::regex("vnagent(_[a-z]+)+"))) << name;
    EXPECT_EQ(name.ends_with("_total"), type == "counter") << name;
    EXPECT_FALSE(std::regex_search(name, std::regex("_(count|sum|bucket)$"))) << name;
    EXPECT_FALSE(std::regex_search(
        name, std::regex("_(counter|gauge|histogram|milliseconds|kilobytes|minutes)(_|$)")))
        << name;
    EXPECT_TRUE(type != "histogram" || name.ends_with("_seconds")) << name;
  }
}

TEST(MetricsTest, knowEachRouteByOneWord) {
  EXPECT_EQ(routeOf("/v1"), "/v1");
  EXPECT_EQ(routeOf("/v1/output?wait=3"), "/v1/output");
  EXPECT_EQ(routeOf("/v1/cloud/region/R/portBinding/p"), "/v1/cloud");
  EXPECT_EQ(routeOf("/v1/cloudy"), "other");
  EXPECT_EQ(routeOf("/v1/region/R/sync/lock?force=true"), "/sync/lock");
  EXPECT_EQ(routeOf("/v1/region/R/sync"), "/sync");
  EXPECT_EQ(routeOf("/v1/region/R"), "other");
  EXPECT_EQ(routeOf(""), "other");
}

TEST(LogTest, quotesValuesSoThatNoneMakesALine) {
  EXPECT_EQ(logLine("applied", {{"revision", "3"}, {"principal", "uid:0"}}),
            "applied revision=3 principal=uid:0");
  EXPECT_EQ(logLine("lock", {{"requester", "a b\"\\\n"}, {"requestId", ""}}),
            "lock requester=\"a b\\\"\\\\\\x0a\" requestId=\"\"");
}

TEST(LogTest, writesToStandardErrorBeforeItEnds) {
  testing::internal::CaptureStderr();
  {
    Log log;
    ServiceLog service(log);
    service.onApplied(9, "driver", "PATCH /v1/cloud", 0.25);
    service.onLock("R", "driver", "a", "r1", "granted");
    log.error("trouble");
  }
  const auto text = testing::internal::GetCapturedStderr();
  EXPECT_THAT(text, HasSubstr("info applied revision=9 principal=driver what=\"PATCH /v1/cloud\""));
  EXPECT_THAT(text, HasSubstr("lock decision=granted region=R"));
  EXPECT_THAT(text, HasSubstr("error trouble\n"));
}

// Logging goes on while nobody reads; what was not kept is counted.
TEST(LogTest, dropsTheOldestLinesForAReaderThatIsTooSlow) {
  constexpr size_t kLines = 50'000;
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  auto writer = std::make_shared<LogWriter>(ends[1]);
  std::optional<spdlog::logger> logger(std::in_place, "test", writer);
  logger->set_pattern("%v");
  for (size_t i = 0; i < kLines; ++i) logger->info("line {:050}", i);
  std::string text;
  std::thread reader([&] {
    std::array<char, 4096> buffer{};
    for (ssize_t size = 0; (size = read(ends[0], buffer.data(), buffer.size())) > 0;) {
      text.append(buffer.data(), static_cast<size_t>(size));
    }
  });
  logger.reset();
  writer.reset();
  close(ends[1]);
  reader.join();
  close(ends[0]);
  EXPECT_TRUE(text.ends_with(fmt::format("line {:050}\n", kLines - 1)));
  size_t read = 0;
  size_t dropped = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("line ")) {
      ++read;
    } else {
      EXPECT_THAT(line, HasSubstr(" lines of the log were dropped"));
      dropped += std::stoul(line);
    }
  }
  EXPECT_GT(dropped, 0U);
  EXPECT_EQ(read + dropped, kLines);
}

}  // namespace
}  // namespace vnagent
