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
  struct Case {
    std::int64_t disk, age, sessions;
    QEVMemoryOptions expected;
  };
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  const Case cases[] = {
      {25, 30, 100, QEVMemoryOptions()},
      {-1, 30, 100, QEVMemoryOptions(0, 30, 100, true)},
      {25, kMin, 100, QEVMemoryOptions(25, 0, 100, true)},
      {25, 30, -100, QEVMemoryOptions(25, 30, 0, true)},
      {0, kMax, 1, QEVMemoryOptions(0, kMax, 1, true)},
  };
  for (const Case& c : cases) {
    const QEVMemoryOptions options(c.disk, c.age, c.sessions, true);
    EXPECT_EQ(options, c.expected) << c.disk << " " << c.age << " " << c.sessions;
  }
  EXPECT_EQ(QEVMemoryOptions(-5, -5, -5, false), QEVMemoryOptions(0, 0, 0, false));
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

TEST(MemoryStatsTest, JsonRoundTripsWithIsoDatesAndOmittedOptionals) {
  QEVMemoryStats stats;
  stats.estimatedDiskUsageBytes = std::numeric_limits<std::uint64_t>::max();
  stats.eventChunkCount = 4;
  stats.sessionGraphCount = 2;
  stats.hasUserGraph = true;
  stats.oldestEventDate = qevr::parseISO8601("2026-03-01T09:30:05Z");
  stats.newestEventDate = qevr::parseISO8601("2026-03-02T10:00:00Z");
  const std::string json = stats.toJSON();
  EXPECT_NE(json.find(R"("estimatedDiskUsageBytes":18446744073709551615)"), std::string::npos);
  EXPECT_NE(json.find(R"("oldestEventDate":"2026-03-01T09:30:05Z")"), std::string::npos) << json;
  EXPECT_EQ(QEVMemoryStats::fromJSON(json), stats);

  const QEVMemoryStats empty;
  EXPECT_EQ(empty.toJSON(),
            R"({"estimatedDiskUsageBytes":0,"eventChunkCount":0,"sessionGraphCount":0,)"
            R"("hasUserGraph":false})");
  EXPECT_EQ(QEVMemoryStats::fromJSON(
                R"({"estimatedDiskUsageBytes":0,"eventChunkCount":0,"sessionGraphCount":0,)"
                R"("hasUserGraph":false,"oldestEventDate":null})"),
            empty);
  EXPECT_THROW(QEVMemoryStats::fromJSON(
                   R"({"estimatedDiskUsageBytes":-1,"eventChunkCount":0,"sessionGraphCount":0,)"
                   R"("hasUserGraph":false})"),
               DecodingError);
  EXPECT_THROW(QEVMemoryStats::fromJSON(R"({"eventChunkCount":0,"sessionGraphCount":0,)"
                                        R"("hasUserGraph":false})"),
               DecodingError);
}

}  // namespace
