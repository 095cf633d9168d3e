#include <QEVRPlatform/Date.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace qevr {
namespace {

// 2026-01-31T09:05:00Z
constexpr double kJanuary31UnixSeconds = 1769850300;

// Parsing the text gives the whole second at or below the date.
TEST(ISO8601Test, FormatsUtcWholeSecondsRoundingTowardThePastAndParsesBack) {
  const struct {
    const char* label;
    QEVRDate date;
    const char* text;
  } cases[] = {
      {"reference date", QEVRDate{0}, "2001-01-01T00:00:00Z"},
      {"Unix epoch", QEVRDate::fromUnixSeconds(0), "1970-01-01T00:00:00Z"},
      {"a log line's time", QEVRDate::fromUnixSeconds(kJanuary31UnixSeconds),
       "2026-01-31T09:05:00Z"},
      {"fraction dropped", QEVRDate::fromUnixSeconds(kJanuary31UnixSeconds + 0.999),
       "2026-01-31T09:05:00Z"},
      {"half a second before the reference date", QEVRDate{-0.5}, "2000-12-31T23:59:59Z"},
      {"one and a half before", QEVRDate{-1.5}, "2000-12-31T23:59:58Z"},
      {"one second before the epoch", QEVRDate::fromUnixSeconds(-1), "1969-12-31T23:59:59Z"},
      {"leap day", QEVRDate::fromUnixSeconds(1709208000), "2024-02-29T12:00:00Z"},
      {"last second of year 9999", QEVRDate::fromUnixSeconds(253402300799), "9999-12-31T23:59:59Z"},
      {"first second of year 0", QEVRDate::fromUnixSeconds(-62167219200), "0000-01-01T00:00:00Z"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(formatISO8601(c.date), c.text);
    const std::optional<QEVRDate> back = parseISO8601(c.text);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->unixSeconds(), std::floor(c.date.unixSeconds()));
  }
}

TEST(ISO8601Test, FormatRefusesDatesFourDigitsCannotWrite) {
  for (double seconds :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
        -std::numeric_limits<double>::infinity(), 253402300800.0, -62167219201.0, 1e300}) {
    SCOPED_TRACE(seconds);
    EXPECT_THROW(formatISO8601(QEVRDate::fromUnixSeconds(seconds)), std::out_of_range);
  }
}

TEST(ISO8601Test, ParsesUtcAndNumericOffsets) {
  const struct {
    const char* text;
    double unixSeconds;
  } cases[] = {
      {"2026-01-31T10:05:00+01:00", kJanuary31UnixSeconds},
      {"2026-01-31T04:35:00-04:30", kJanuary31UnixSeconds},
      {"2026-01-31T09:05:00-00:00", kJanuary31UnixSeconds},
      {"2026-02-01T09:04:00+23:59", kJanuary31UnixSeconds},
      {"2000-02-29T00:00:00Z", 951782400},
      // Offsets that keep the instant inside the writable years.
      {"0000-01-01T01:00:00+01:00", -62167219200},
      {"9999-12-31T22:59:59-01:00", 253402300799},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const std::optional<QEVRDate> date = parseISO8601(c.text);
    ASSERT_TRUE(date.has_value());
    EXPECT_EQ(date->unixSeconds(), c.unixSeconds);
  }
}

TEST(ISO8601Test, ParseRefusesEveryOtherForm) {
  for (const char* text :
       {// Other forms: no zone, a fraction (even zero), lower case, a space for T, the basic
        // form, no seconds, date only, week and ordinal dates, one-digit month, signed year,
        // spaces around.
        "", "2026-01-31T09:05:00", "2026-01-31T09:05:00.5Z", "2026-01-31T09:05:00.000Z",
        "2026-01-31t09:05:00z", "2026-01-31T09:05:00z", "2026-01-31 09:05:00Z", "20260131T090500Z",
        "2026-01-31T09:05Z", "2026-01-31", "2026-W05-6T09:05:00Z", "2026-031T09:05:00Z",
        "2026-1-31T09:05:00Z", "+2026-01-31T09:05:00Z", " 2026-01-31T09:05:00Z",
        "2026-01-31T09:05:00Z ",
        // Offsets without colon or minutes, out of range, or after a Z.
        "2026-01-31T09:05:00+0100", "2026-01-31T09:05:00+01", "2026-01-31T09:05:00+24:00",
        "2026-01-31T09:05:00+01:60", "2026-01-31T09:05:00Z+01:00",
        // Fields out of range: month 13 and 0, day 0, April 31, February 29 of 2026 and of
        // 1900, hour 24, minute 60, a leap second, a letter and a non-ASCII digit.
        "2026-13-01T00:00:00Z", "2026-00-10T00:00:00Z", "2026-01-00T00:00:00Z",
        "2026-04-31T00:00:00Z", "2026-02-29T00:00:00Z", "1900-02-29T00:00:00Z",
        "2026-01-31T24:00:00Z", "2026-01-31T09:60:00Z", "2026-01-31T09:05:60Z",
        "2026-01-3aT09:05:00Z", "2026-01-31T09:05:\xD9\xA0Z",
        // In UTC before year 0 or in year 10000, if only by a minute.
        "0000-01-01T00:30:00+01:00", "0000-01-01T00:00:00+00:01", "9999-12-31T23:30:00-01:00",
        "9999-12-31T23:59:59-00:01"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(parseISO8601(text).has_value());
  }
}

// Every test that installs a clock restores the system clock.
class ClockTest : public ::testing::Test {
 protected:
  void TearDown() override { setClock(nullptr); }
};

TEST_F(ClockTest, InstalledManualClockDrivesNowUntilNullptrRestoresTheSystemClock) {
  auto clock = std::make_shared<ManualClock>(QEVRDate{100});
  setClock(clock);
  EXPECT_EQ(now(), QEVRDate{100});
  clock->advance(2.5);
  EXPECT_EQ(now(), QEVRDate{102.5});
  clock->set(QEVRDate{-3});
  EXPECT_EQ(now(), QEVRDate{-3});

  setClock(nullptr);
  const QEVRDate before = systemClock().now();
  const QEVRDate current = now();
  EXPECT_LE(before, current);
  EXPECT_LE(current, systemClock().now());
  // The system clock is far from the manual clock's 2001 instant.
  EXPECT_GT(current.secondsSinceReferenceDate, 7e8);
}

// Threads advance one manual clock and read now() while the installed
// clock is replaced under them.
TEST_F(ClockTest, ClocksAdvanceAtomicallyAndNowIsSafeWhileReplaced) {
  ManualClock shared;
  std::vector<std::thread> readers;
  std::vector<int> unexpected(4, 0);
  for (std::size_t t = 0; t < unexpected.size(); ++t) {
    readers.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        shared.advance(0.25);
        const double seconds = now().secondsSinceReferenceDate;
        // Either a manual clock's 1 or 2, or the system clock.
        if (seconds != 1 && seconds != 2 && seconds < 7e8) ++unexpected[t];
      }
    });
  }
  for (int i = 0; i < 500; ++i) {
    setClock(std::make_shared<ManualClock>(QEVRDate{static_cast<double>(1 + i % 2)}));
    if (i % 3 == 0) setClock(nullptr);
  }
  for (std::thread& reader : readers)
    reader.join();
  EXPECT_EQ(shared.now(), QEVRDate{2000});
  for (int count : unexpected)
    EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace qevr
