#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Log.h>
#include "QEVRLogger.h"

#include <gtest/gtest.h>

namespace {

using L = QEVRLogLevel;

class CountingSink : public QEVRLogSink {
 public:
  void write(const QEVRLogRecord& record) override { records.push_back(record); }
  std::vector<QEVRLogRecord> records;
};

TEST(LoggerTest, PassesRecordsAtOrAboveTheMinimum) {
  const struct {
    L minimum, record;
    bool passes;
  } cases[] = {{L::warning, L::info, false}, {L::warning, L::warning, true},
               {L::warning, L::error, true}, {L::trace, L::trace, true},
               {L::info, L::debug, false},   {L::critical, L::critical, true},
               {L::off, L::critical, false}};
  for (const auto& c : cases) {
    auto sink = std::make_shared<CountingSink>();
    QEVRLogger("QEVRCore", c.minimum, sink).log(c.record, "Lifecycle", "message");
    EXPECT_EQ(sink->records.size(), c.passes ? 1u : 0u)
        << static_cast<int>(c.minimum) << " " << static_cast<int>(c.record);
  }
}

class TypeFilteringSink : public qevr::CapturingLogSink {
 public:
  bool isEnabled(std::string_view, std::string_view, qevr::LogType type) const override {
    return type != qevr::LogType::debug;
  }
};

TEST(OSLogSinkTest, MapsLevelsToPlatformTypesAndDropsDisabledOnes) {
  auto capture = std::make_shared<TypeFilteringSink>();
  qevr::ScopedLogSink scoped(capture);
  QEVROSLogSink sink;
  const std::pair<L, qevr::LogType> table[] = {
      {L::trace, qevr::LogType::debug},  {L::debug, qevr::LogType::debug},
      {L::info, qevr::LogType::info},    {L::warning, qevr::LogType::default_},
      {L::error, qevr::LogType::error},  {L::critical, qevr::LogType::fault},
      {L::off, qevr::LogType::default_},
  };
  std::vector<qevr::LogType> expected;
  for (const auto& [level, type] : table) {
    sink.write(QEVRLogRecord{QEVRDate{}, level, "QEVRCore", "Lifecycle", "m"});
    if (type != qevr::LogType::debug) expected.push_back(type);
  }
  std::vector<qevr::LogType> got;
  for (const auto& e : capture->entries()) {
    got.push_back(e.type);
    EXPECT_EQ(e.subsystem, "QEVRCore");
    EXPECT_EQ(e.category, "Lifecycle");
  }
  EXPECT_EQ(got, expected);
}

}  // namespace
