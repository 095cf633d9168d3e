#include <QEVMemory/QEVMemoryOptions.h>

#include <gtest/gtest.h>

#include "MemoryTestSupport.h"

#include <array>
#include <cstdint>
#include <limits>
#include <string>

namespace {

TEST(MemoryOptionsTest, ConstructorRaisesNegativeLimitsToZero) {
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  const struct {
    QEVMemoryOptions options;
    std::array<std::int64_t, 3> limits;  // disk, age, sessions
  } cases[] = {
      {QEVMemoryOptions(-1, 30, 100, true), {0, 30, 100}},
      {QEVMemoryOptions(-5, kMin, -100, false), {0, 0, 0}},
      {QEVMemoryOptions(0, kMax, 1, true), {0, kMax, 1}},
  };
  for (const auto& [o, limits] : cases) {
    EXPECT_EQ((std::array{o.maxDiskUsageMB, o.maxEventAgeDays, o.maxSessionCount}), limits);
  }
}

// Decoding keeps numbers as they stand (the pruner treats negative ones as
// 0) and needs every key.
TEST(MemoryOptionsTest, JsonKeepsNumbersAsTheyStandAndNeedsAllKeys) {
  const QEVMemoryOptions options(7, 0, 3, false);
  const std::string json = options.toJSON();
  EXPECT_EQ(
      json,
      R"({"maxDiskUsageMB":7,"maxEventAgeDays":0,"maxSessionCount":3,"pruningEnabled":false})");
  EXPECT_EQ(QEVMemoryOptions::fromJSON(json), options);
  // Unknown keys are ignored.
  const QEVMemoryOptions negative = QEVMemoryOptions::fromJSON(
      replaced(replaced(replaced(json, ":7", ":-3"), ":3", ":-1"), "}", R"(,"x":0})"));
  EXPECT_EQ(negative.maxDiskUsageMB, -3);
  EXPECT_EQ(negative.maxSessionCount, -1);

  const std::pair<std::string, const char*> refused[] = {
      {replaced(json, "maxDiskUsageMB", "x"), "keyNotFound.maxDiskUsageMB"},
      {replaced(json, "maxEventAgeDays", "x"), "keyNotFound.maxEventAgeDays"},
      {replaced(json, "maxSessionCount", "x"), "keyNotFound.maxSessionCount"},
      {replaced(json, "pruningEnabled", "x"), "keyNotFound.pruningEnabled"},
      {replaced(json, "7", "2.5"), "dataCorrupted.maxDiskUsageMB"},
      {replaced(json, "false", "0"), "typeMismatch.pruningEnabled"},
  };
  for (const auto& [edited, failure] : refused) {
    EXPECT_EQ(decodingFailure<QEVMemoryOptions>(edited), failure) << edited;
  }
}

// Stats are not a file: their dates are seconds since 2001, as a number.
TEST(MemoryStatsTest, JsonIsTheLiteralDocumentWithDatesInSecondsSince2001) {
  QEVMemoryStats full{std::numeric_limits<std::uint64_t>::max(),
                      4,
                      2,
                      true,
                      qevr::parseISO8601("2026-03-01T09:30:05Z"),
                      QEVRDate{794138400.5}};
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
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.stats.toJSON(), c.json);
    EXPECT_EQ(QEVMemoryStats::fromJSON(c.json), c.stats);
  }
  // A null date is an absent one; ISO dates, negative sizes and missing keys
  // are refused.
  const std::string empty = QEVMemoryStats{}.toJSON();
  const std::string withDate = replaced(empty, "}", R"(,"oldestEventDate":null})");
  EXPECT_EQ(QEVMemoryStats::fromJSON(withDate), QEVMemoryStats{});
  const std::pair<std::string, const char*> refused[] = {
      {replaced(withDate, "null", R"("2026-03-01T09:30:05Z")"), "typeMismatch.oldestEventDate"},
      {replaced(empty, ":0", ":-1"), "dataCorrupted.estimatedDiskUsageBytes"},
      {replaced(empty, "estimatedDiskUsageBytes", "x"), "keyNotFound.estimatedDiskUsageBytes"},
  };
  for (const auto& [edited, failure] : refused) {
    EXPECT_EQ(decodingFailure<QEVMemoryStats>(edited), failure) << edited;
  }
}

}  // namespace
