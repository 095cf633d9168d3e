#include <QEVMemory/QEVMemoryOptions.h>
#include <QEVRPlatform/Json.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

using qevr::json::DecodingError;

std::string replaced(std::string json, std::string_view from, std::string_view to) {
  return json.replace(json.find(from), from.size(), to);
}

TEST(MemoryOptionsTest, ConstructorRaisesNegativeLimitsToZero) {
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  const std::pair<QEVMemoryOptions, QEVMemoryOptions> cases[] = {
      {QEVMemoryOptions(-1, 30, 100, true), QEVMemoryOptions(0, 30, 100, true)},
      {QEVMemoryOptions(25, kMin, 100, true), QEVMemoryOptions(25, 0, 100, true)},
      {QEVMemoryOptions(25, 30, -100, true), QEVMemoryOptions(25, 30, 0, true)},
      {QEVMemoryOptions(-5, -5, -5, false), QEVMemoryOptions(0, 0, 0, false)},
  };
  for (const auto& [clamped, expected] : cases) {
    EXPECT_EQ(clamped, expected);
  }
  EXPECT_EQ(QEVMemoryOptions(0, kMax, 1, true).maxEventAgeDays, kMax);
}

TEST(MemoryOptionsTest, JsonKeepsNumbersAsTheyStandAndNeedsAllKeys) {
  const QEVMemoryOptions options(7, 0, 3, false);
  const std::string json = options.toJSON();
  EXPECT_EQ(
      json,
      R"({"maxDiskUsageMB":7,"maxEventAgeDays":0,"maxSessionCount":3,"pruningEnabled":false})");
  EXPECT_EQ(QEVMemoryOptions::fromJSON(json), options);

  const QEVMemoryOptions negative = QEVMemoryOptions::fromJSON(
      R"({"maxDiskUsageMB":-3,"maxEventAgeDays":30,"maxSessionCount":-1,"pruningEnabled":true,"x":0})");
  EXPECT_EQ(negative.maxDiskUsageMB, -3);
  EXPECT_EQ(negative.maxSessionCount, -1);

  for (const char* key :
       {"maxDiskUsageMB", "maxEventAgeDays", "maxSessionCount", "pruningEnabled"}) {
    qevr::json::Value root = qevr::json::parse(json);
    std::erase_if(root.object(), [key](const qevr::json::Member& m) { return m.key == key; });
    try {
      QEVMemoryOptions::fromJSON(qevr::json::serialize(root));
      ADD_FAILURE() << key;
    } catch (const DecodingError& error) {
      EXPECT_EQ(error.kind(), DecodingError::Kind::keyNotFound);
      EXPECT_EQ(error.codingPath(), std::vector<std::string>{key});
    }
  }
  EXPECT_THROW(QEVMemoryOptions::fromJSON(replaced(json, "7", "2.5")), DecodingError);
  EXPECT_THROW(QEVMemoryOptions::fromJSON(replaced(json, "false", "0")), DecodingError);
}

// Stats are not a file: their dates are seconds since 2001, as a number.
TEST(MemoryStatsTest, JsonIsTheLiteralDocumentWithDatesInSecondsSince2001) {
  QEVMemoryStats full;
  full.estimatedDiskUsageBytes = std::numeric_limits<std::uint64_t>::max();
  full.eventChunkCount = 4;
  full.sessionGraphCount = 2;
  full.hasUserGraph = true;
  full.oldestEventDate = qevr::parseISO8601("2026-03-01T09:30:05Z");
  full.newestEventDate = QEVRDate{794138400.5};
  QEVMemoryStats onlyOldest;
  onlyOldest.oldestEventDate = QEVRDate{-1.25};

  const struct {
    const char* name;
    QEVMemoryStats stats;
    const char* json;
  } cases[] = {
      {"empty", QEVMemoryStats{},
       R"({"estimatedDiskUsageBytes":0,"eventChunkCount":0,"sessionGraphCount":0,)"
       R"("hasUserGraph":false})"},
      {"full", full,
       R"({"estimatedDiskUsageBytes":18446744073709551615,"eventChunkCount":4,)"
       R"("sessionGraphCount":2,"hasUserGraph":true,"oldestEventDate":794050205,)"
       R"("newestEventDate":794138400.5})"},
      {"one date", onlyOldest,
       R"({"estimatedDiskUsageBytes":0,"eventChunkCount":0,"sessionGraphCount":0,)"
       R"("hasUserGraph":false,"oldestEventDate":-1.25})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.stats.toJSON(), c.json);
    EXPECT_EQ(QEVMemoryStats::fromJSON(c.json), c.stats);
  }
}

TEST(MemoryStatsTest, DecodingRefusesIsoDatesMissingKeysAndNegativeSizes) {
  const QEVMemoryStats empty;
  EXPECT_EQ(QEVMemoryStats::fromJSON(
                R"({"estimatedDiskUsageBytes":0,"eventChunkCount":0,"sessionGraphCount":0,)"
                R"("hasUserGraph":false,"oldestEventDate":null})"),
            empty);
  const char* refused[] = {
      R"({"estimatedDiskUsageBytes":0,"eventChunkCount":0,"sessionGraphCount":0,)"
      R"("hasUserGraph":false,"oldestEventDate":"2026-03-01T09:30:05Z"})",
      R"({"estimatedDiskUsageBytes":-1,"eventChunkCount":0,"sessionGraphCount":0,)"
      R"("hasUserGraph":false})",
      R"({"eventChunkCount":0,"sessionGraphCount":0,"hasUserGraph":false})",
  };
  for (const char* json : refused) {
    SCOPED_TRACE(json);
    EXPECT_THROW(QEVMemoryStats::fromJSON(json), DecodingError);
  }
}

}  // namespace
