#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVMemory/QEVMemoryModule.h>
#include <QEVMemory/QEVUserGraph.h>
#include <QEVRCore/QEVRFacade.h>
#include <QEVRCore/QEVRModuleRegistry.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Log.h>
#include <QEVRecommendations/QEVRecommendationsFacade.h>
#include <QEVRecommendations/QEVRecommendationsModule.h>
#include "ManualExecutor.h"
#include "QEVRecommendationsRuntime.h"
#include "RecommendationTestSupport.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <thread>

namespace {

namespace Recommendations = QEVR::Recommendations;
using qevr::testing::Strings;
using qevr::testing::titlesOf;

class QEVRecommendationsModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QEVR::shutdown();
    registry().removeAll();
    std::string pattern =
        (std::filesystem::temp_directory_path() / "qevr-recommendations-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory = pattern;
    qevr::setApplicationSupportDirectoryOverride(directory);
    QEVRecommendationsRuntime::shared().reset();
  }

  void TearDown() override {
    QEVR::shutdown();
    // Each generation waited for every task it started.
    EXPECT_EQ(executor.pending(), 0u);
    registry().removeAll();
    QEVRecommendationsRuntime::shared().reset();
    Recommendations::setOutcomeLearning(false);
    qevr::setClock(nullptr);
    qevr::setApplicationSupportDirectoryOverride(std::nullopt);
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
  }

  static QEVRModuleRegistry& registry() { return QEVRModuleRegistry::shared(); }

  // A user graph on disk with two busy components: enough for the UI
  // engine to recommend something whenever generation is active.
  void storeUserGraph() {
    QEVUserGraph graph;
    graph.userId = QEVRUUID::random();
    graph.totalSessions = 6;
    graph.totalEvents = 60;
    graph.frequentComponents = {{"checkout", 9}, {"search", 6}};
    graph.frequentlyVisitedScreens = {{"Home", 12}, {"Cart", 7}};
    QEVFileMemoryStore(directory / "QEVR" / "Memory", qevr::FileSystem::defaultFileSystem(),
                       std::make_shared<QEVLZFSECompressionEngine>())
        .saveUserGraph(graph);
  }

  // Only the fallback flag given; the AI flags stay off.
  static QEVRConfiguration configuration(bool fallback) {
    return {.appId = "com.example.recommendations-tests",
            .logLevel = QEVRLogLevel::off,
            .isFallbackRecommendationsEnabled = fallback};
  }

  // Where the starts' generations run their tasks: on the thread that waits.
  qevr::ManualExecutor executor;
  std::filesystem::path directory;
  std::shared_ptr<qevr::CapturingLogSink> sink = std::make_shared<qevr::CapturingLogSink>();
  qevr::ScopedLogSink scopedSink{sink};
};

// Any one flag makes recommendations available, and so do the defaults;
// pause and shutdown take them away again.
TEST_F(QEVRecommendationsModuleTest, AvailabilityFollowsTheFlagsAndTheLifecycle) {
  const auto flags = [](bool onDevice, bool cloud, bool local, bool fallback) {
    QEVRConfiguration c = configuration(fallback);
    c.isOnDeviceAIEnabled = onDevice;
    c.isCloudAIEnabled = cloud;
    c.isLocalLLMEnabled = local;
    return c;
  };
  const struct {
    const char* label;
    QEVRConfiguration configuration;
    bool available;
  } cases[] = {
      {"no flag", flags(false, false, false, false), false},
      {"on-device AI", flags(true, false, false, false), true},
      {"cloud AI", flags(false, true, false, false), true},
      {"local LLM", flags(false, false, true, false), true},
      {"fallback", flags(false, false, false, true), true},
      // What a host gets when it names nothing but its appId.
      {"only appId", {.appId = "com.example.recommendations-tests"}, true},
  };
  storeUserGraph();
  EXPECT_TRUE(Recommendations::generate().empty());  // before any start
  registry().registerModule(QEVRecommendationsIntegration::makeModule());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    sink->clear();
    QEVR::start(c.configuration, executor);
    EXPECT_EQ(
        sink->texts("com.qevr.recommendations", "Lifecycle"),
        std::vector<std::string>{c.available ? "Recommendations module started"
                                             : "Recommendations unavailable by configuration; "
                                               "module inactive"});
    EXPECT_EQ(Recommendations::generate().empty(), !c.available);
    QEVR::pause();
    EXPECT_TRUE(Recommendations::generate().empty());
    QEVR::resume();
    EXPECT_EQ(Recommendations::generate().empty(), !c.available);
    QEVR::shutdown();
    EXPECT_TRUE(Recommendations::generate().empty());
  }
}

TEST_F(QEVRecommendationsModuleTest, PauseBeforeStartKeepsTheRuntimeInactive) {
  storeUserGraph();
  auto module = QEVRecommendationsIntegration::makeModule();
  module->pause();
  module->resume();
  EXPECT_TRUE(Recommendations::generate().empty());
  module->shutdown();  // safe without a start
  Recommendations::clearCache();
  EXPECT_TRUE(Recommendations::generate().empty());
}

TEST_F(QEVRecommendationsModuleTest, ConcurrentGenerationsDuringStartAndShutdown) {
  storeUserGraph();
  registry().registerModule(QEVRecommendationsIntegration::makeModule());
  std::atomic<bool> done{false};
  std::atomic<int> calls{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      while (!done.load()) {
        const auto list =
            i % 2 == 0 ? Recommendations::generate()
                       : Recommendations::generate(
                             QEVExperienceDomain::game(),
                             QEVRecommendationPolicy::defaultPolicy(QEVExperienceDomain::game()));
        for (const QEVRecommendation& r : list)
          EXPECT_GE(r.confidence(), 0.65);
        if (i == 0) Recommendations::clearCache();
        ++calls;
      }
    });
  }
  for (int round = 0; round < 10; ++round) {
    QEVR::start(configuration(true), executor);
    // A slow scheduler could otherwise finish every round before any caller runs.
    const int before = calls.load();
    while (calls.load() < before + 2)
      std::this_thread::yield();
    QEVR::pause();
    QEVR::resume();
    QEVR::shutdown();
  }
  done = true;
  for (std::thread& t : threads)
    t.join();
  EXPECT_GE(calls.load(), 20);
  EXPECT_TRUE(Recommendations::generate().empty());
}

TEST_F(QEVRecommendationsModuleTest, AsyncFormsGiveTheBlockingResult) {
  storeUserGraph();
  registry().registerModule(QEVRecommendationsIntegration::makeModule());
  QEVR::start(configuration(true), executor);
  const auto blocking = Recommendations::generate();
  ASSERT_FALSE(blocking.empty());
  EXPECT_EQ(Recommendations::generateAsync().get(), blocking);  // cached
  const QEVRecommendationPolicy none(0.0, true, true, true, false);
  EXPECT_TRUE(Recommendations::generateAsync(QEVExperienceDomain::mobileApp(), none).get().empty());
}

// Off, outcomes are refused and generation is untouched; on, advice
// dismissed twice stays away for 30 days, and nothing else does.
TEST_F(QEVRecommendationsModuleTest, OutcomeLearningHoldsBackDismissedAdvice) {
  auto clock = std::make_shared<qevr::ManualClock>(QEVRDate{800000000});
  qevr::setClock(clock);
  storeUserGraph();
  registry().registerModule(QEVRecommendationsIntegration::makeModule());
  QEVR::start(configuration(true), executor);
  const std::vector<QEVRecommendation> all = Recommendations::generate();
  ASSERT_GE(all.size(), 2u);
  const std::filesystem::path log = directory / "QEVR" / "Memory" / "outcomes.json";

  EXPECT_FALSE(Recommendations::recordOutcome(all[0], QEVRecommendationOutcome::dismissed));
  EXPECT_FALSE(std::filesystem::exists(log));
  EXPECT_EQ(sink->texts("com.qevr.recommendations", "Outcomes"),
            Strings{"Outcome not recorded: outcome learning is off"});

  Recommendations::setOutcomeLearning(true);
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(Recommendations::recordOutcome(all[0], QEVRecommendationOutcome::dismissed));
  }
  EXPECT_TRUE(std::filesystem::exists(log));
  std::vector<QEVRecommendation> rest(all.begin() + 1, all.end());
  auto titles = [](const std::vector<QEVRecommendation>& list) { return titlesOf(list); };
  EXPECT_EQ(titles(Recommendations::generate()), titles(rest));
  const auto histories = Recommendations::outcomes();
  ASSERT_EQ(histories.size(), 1u);
  EXPECT_EQ(histories[0].dismissedCount, 2);
  EXPECT_TRUE(histories[0].isHeldBack);

  Recommendations::setOutcomeLearning(false);
  EXPECT_EQ(Recommendations::generate(), all);
  Recommendations::setOutcomeLearning(true);
  clock->advance(30 * 86400);
  Recommendations::clearCache();
  EXPECT_EQ(titles(Recommendations::generate()), titles(all));

  // A damaged log holds nothing back and is started afresh by the next
  // recording.
  clock->set(QEVRDate{800000000});
  std::filesystem::resize_file(log, 10);
  EXPECT_EQ(titles(Recommendations::generate()), titles(all));
  EXPECT_TRUE(Recommendations::outcomes().empty());
  EXPECT_TRUE(Recommendations::recordOutcome(all[1], QEVRecommendationOutcome::applied));
  EXPECT_EQ(sink->texts("com.qevr.recommendations", "Outcomes").back(),
            "Outcome log could not be read; starting a new one");
  EXPECT_EQ(Recommendations::outcomes().size(), 1u);
}

}  // namespace
