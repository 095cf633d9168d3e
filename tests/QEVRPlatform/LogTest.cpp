#include <QEVRPlatform/Log.h>

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

class OnlyErrors : public qevr::CapturingLogSink {
 public:
  bool isEnabled(std::string_view, std::string_view, qevr::LogType type) const override {
    return type == qevr::LogType::error;
  }
};

TEST(LogTest, ScopedSinkCapturesWhatItEnablesAndRestores) {
  auto before = qevr::currentLogSink();
  {
    auto capture = std::make_shared<qevr::CapturingLogSink>();
    qevr::ScopedLogSink scoped(capture);
    qevr::platformLog("QEVMemory", "Pruning", qevr::LogType::info, "line one");
    qevr::platformLog("QEVObserver", "Events", qevr::LogType::default_, "line two");
    EXPECT_EQ(capture->texts(), (std::vector<std::string>{"line one", "line two"}));
    EXPECT_EQ(capture->texts("QEVMemory", "Pruning"), (std::vector<std::string>{"line one"}));
    // A nested sink takes over and hands back; disabled types never reach it.
    auto errors = std::make_shared<OnlyErrors>();
    {
      qevr::ScopedLogSink nested(errors);
      qevr::platformLog("s", "c", qevr::LogType::info, "dropped");
      qevr::platformLog("s", "c", qevr::LogType::error, "kept");
    }
    EXPECT_EQ(errors->texts(), std::vector<std::string>{"kept"});
    EXPECT_EQ(qevr::currentLogSink(), capture);
  }
  EXPECT_EQ(qevr::currentLogSink(), before);
}

TEST(LogTest, NullSinkIsRefusedAndResetRestoresTheDefault) {
  auto capture = std::make_shared<qevr::CapturingLogSink>();
  qevr::setLogSink(capture);
  EXPECT_THROW(qevr::setLogSink(nullptr), std::invalid_argument);
  EXPECT_THROW(qevr::ScopedLogSink(nullptr), std::invalid_argument);
  EXPECT_EQ(qevr::currentLogSink(), capture);
  qevr::resetLogSink();
  ASSERT_NE(qevr::currentLogSink(), capture);
  // The default sink takes lines without openlog and without failing.
  qevr::platformLog("QEVRTests", "Log", qevr::LogType::debug, "default sink line");
}

}  // namespace
