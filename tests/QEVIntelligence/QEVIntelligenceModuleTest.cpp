#include <QEVIntelligence/QEVIntelligenceFacade.h>
#include <QEVIntelligence/QEVIntelligenceModule.h>
#include <QEVMemory/QEVMemoryModule.h>
#include <QEVObserver/QEVObserverModule.h>
#include <QEVRCore/QEVRFacade.h>
#include <QEVRCore/QEVRModuleRegistry.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Log.h>

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>

#include "IntelligenceTestSupport.h"

namespace {

namespace Intelligence = QEVR::Intelligence;
using Mode = QEVLLMExecutionMode;

constexpr const char* kStarted = "Intelligence module started";
constexpr const char* kDisabled = "Intelligence disabled by configuration; AI services not started";

// Keeps the context of each start, so a test can start the module under
// test by hand with any configuration.
class ContextKeeper final : public QEVRModule {
 public:
  std::string identifier() const override { return "test.context-keeper"; }
  void start(const QEVRModuleContext& context) override { kept.emplace(context); }
  void pause() override {}
  void resume() override {}
  void shutdown() override {}
  std::optional<QEVRModuleContext> kept;
};

QEVRConfiguration configuration(bool onDevice, bool cloud, bool local) {
  return {.appId = "com.example.intelligence-tests",
          .logLevel = QEVRLogLevel::off,
          .isOnDeviceAIEnabled = onDevice,
          .isCloudAIEnabled = cloud,
          .isLocalLLMEnabled = local};
}

class IntelligenceModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QEVR::shutdown();
    registry().removeAll();
    std::string pattern =
        (std::filesystem::temp_directory_path() / "qevr-intelligence-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir = pattern;
    qevr::setApplicationSupportDirectoryOverride(dir);
    qevr::setClock(clock);
  }
  void TearDown() override {
    QEVR::shutdown();
    module->shutdown();
    registry().removeAll();
    qevr::setClock(nullptr);
    qevr::setApplicationSupportDirectoryOverride(std::nullopt);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }

  static QEVRModuleRegistry& registry() { return QEVRModuleRegistry::shared(); }
  static QEVIntelligenceRuntime& runtime() { return QEVIntelligenceRuntime::shared(); }

  // A real module context for `c`, taken from a start of the core.
  static QEVRModuleContext contextFor(const QEVRConfiguration& c) {
    auto keeper = std::make_shared<ContextKeeper>();
    registry().removeAll();
    registry().registerModule(keeper);
    QEVR::start(c);
    QEVR::shutdown();
    registry().removeAll();
    return *keeper->kept;
  }

  std::vector<std::string> lifecycleLines() const {
    return logs->texts("com.qevr.intelligence", "Lifecycle");
  }

  std::filesystem::path dir;
  std::shared_ptr<qevr::ManualClock> clock = std::make_shared<qevr::ManualClock>(kTestNow);
  std::shared_ptr<qevr::CapturingLogSink> logs = std::make_shared<qevr::CapturingLogSink>();
  qevr::ScopedLogSink scoped{logs};
  std::shared_ptr<QEVIntelligenceModule> module = std::make_shared<QEVIntelligenceModule>();
};

TEST_F(IntelligenceModuleTest, TheAIFlagsChooseTheModeAndTheLogLine) {
  const struct {
    bool onDevice, cloud, local;
    Mode mode;
    const char* line;
  } cases[] = {
      {false, false, false, Mode::disabled, kDisabled},
      {false, false, true, Mode::localNetwork, kStarted},
      {false, true, true, Mode::cloud, kStarted},
      {true, true, true, Mode::onDevice, kStarted},
      {true, false, false, Mode::onDevice, kStarted},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const QEVRModuleContext context = contextFor(configuration(c.onDevice, c.cloud, c.local));
    logs->clear();
    module->start(context);
    EXPECT_EQ(logs->entries(),
              (std::vector<qevr::CapturingLogSink::Entry>{
                  {"com.qevr.intelligence", "Lifecycle", qevr::LogType::info, c.line}}));
    EXPECT_TRUE(module->started());
    EXPECT_EQ(module->aiEnabled(), c.mode != Mode::disabled);
    EXPECT_EQ(runtime().intentAnalyzer().preferredExecutionMode, c.mode);
    EXPECT_EQ(runtime().skillAnalyzer().cache, runtime().sharedCache());
    module->shutdown();
    EXPECT_FALSE(module->started());
    EXPECT_FALSE(module->aiEnabled());
    EXPECT_EQ(runtime().intentAnalyzer().preferredExecutionMode, Mode::disabled);
    EXPECT_EQ(lifecycleLines().size(), 1u);  // shutdown logs nothing
  }
}

TEST_F(IntelligenceModuleTest, ASecondStartChangesNothingAndLogsNothing) {
  const QEVRModuleContext off = contextFor(configuration(false, false, false));
  const QEVRModuleContext cloud = contextFor(configuration(false, true, false));
  logs->clear();
  module->start(off);
  module->start(cloud);
  EXPECT_EQ(lifecycleLines(), std::vector<std::string>{kDisabled});
  EXPECT_EQ(runtime().summarizer().preferredExecutionMode, Mode::disabled);
  EXPECT_FALSE(module->aiEnabled());
}

TEST_F(IntelligenceModuleTest, PauseIsOnlyAFlagAndOnlyWhileStarted) {
  module->pause();
  EXPECT_FALSE(module->paused());
  module->start(contextFor(configuration(false, false, false)));
  module->pause();
  EXPECT_TRUE(module->paused());
  EXPECT_EQ(Intelligence::summarizeBehavior().summary, "No behavior data is available yet.");
  module->resume();
  EXPECT_FALSE(module->paused());
  module->pause();
  module->shutdown();
  EXPECT_FALSE(module->paused());
}

TEST_F(IntelligenceModuleTest, AnalysesRunBeforeTheStartDuringItAndAfterTheShutdown) {
  // Before the start: default analysers, each with a cache of its own.
  const QEVIntentAnalysis before = Intelligence::analyzeIntent(QEVExperienceDomain::game());
  EXPECT_EQ(before, QEVIntentAnalysis("unknown", {}, {}, 0.15, kTestNow));
  EXPECT_NE(runtime().intentAnalyzer().cache, runtime().sharedCache());
  EXPECT_NE(runtime().intentAnalyzer().cache, runtime().skillAnalyzer().cache);

  registry().registerModule(QEVObserverIntegration::makeModule());
  registry().registerModule(QEVMemoryIntegration::makeModule());
  registry().registerModule(QEVIntelligenceIntegration::makeModule());
  QEVR::start(configuration(false, true, false));
  EXPECT_EQ(runtime().sharedCache()->count(), 0u);
  EXPECT_EQ(Intelligence::summarizeBehavior().confidence, 0.2);
  EXPECT_EQ(Intelligence::detectFrustration().level, QEVFrustrationLevel::none);
  EXPECT_EQ(Intelligence::analyzeSkill(std::nullopt).skillLevel, QEVSkillLevel::unknown);
  EXPECT_EQ(runtime().sharedCache()->count(), 3u);
  EXPECT_EQ(Intelligence::summarizeBehaviorAsync().get(), Intelligence::summarizeBehavior());
  EXPECT_EQ(Intelligence::analyzeIntentAsync(std::nullopt).get().primaryIntent, "unknown");
  EXPECT_EQ(Intelligence::detectFrustrationAsync().get().confidence, 0.35);
  EXPECT_EQ(Intelligence::analyzeSkillAsync(QEVExperienceDomain::game()).get().confidence, 0.15);
  EXPECT_EQ(runtime().sharedCache()->count(), 5u);
  Intelligence::clearCache();
  EXPECT_EQ(runtime().sharedCache()->count(), 0u);
  Intelligence::summarizeBehavior();
  EXPECT_EQ(runtime().sharedCache()->count(), 1u);
  std::stop_source stop;
  stop.request_stop();
  EXPECT_THROW(Intelligence::analyzeSkill(std::nullopt, stop.get_token()), QEVRCancellationError);

  // The shutdown clears the shared cache and brings default analysers back;
  // clearCache() does not reach their private caches.
  QEVR::shutdown();
  EXPECT_EQ(runtime().sharedCache()->count(), 0u);
  EXPECT_EQ(Intelligence::analyzeIntent(std::nullopt).confidence, 0.15);
  const QEVIntentAnalyzer after = runtime().intentAnalyzer();
  EXPECT_EQ(after.preferredExecutionMode, Mode::disabled);
  EXPECT_EQ(after.cache->count(), 1u);
  Intelligence::clearCache();
  EXPECT_EQ(after.cache->count(), 1u);

  // A later start works like the first.
  QEVR::start(configuration(true, false, false));
  EXPECT_EQ(runtime().summarizer().preferredExecutionMode, Mode::onDevice);
  EXPECT_EQ(Intelligence::summarizeBehavior().summary, "No behavior data is available yet.");
}

}  // namespace
