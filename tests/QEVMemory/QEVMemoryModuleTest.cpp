#include <QEVMemory/QEVMemoryModule.h>
#include <QEVObserver/QEVObserverFacade.h>
#include <QEVObserver/QEVObserverModule.h>
#include <QEVRCore/QEVRFacade.h>
#include <QEVRCore/QEVRModuleRegistry.h>
#include <QEVRPlatform/Log.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <functional>
#include <limits>

#include "ManualExecutor.h"
#include "MemoryTestSupport.h"
#include "QEVMemoryEventStore.h"
#include "ThrowsMessage.h"

namespace {

namespace Observer = QEVR::Observer;
namespace Memory = QEVR::Memory;
using qevr::testing::throwsWithMessage;

class MemoryModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QEVR::shutdown();
    registry().removeAll();
    qevr::setApplicationSupportDirectoryOverride(dir.path);
    Memory::configure(QEVMemoryOptions{});
    // Made after the override, so that its store lies in the test's directory.
    memory = std::static_pointer_cast<QEVMemoryModule>(QEVMemoryIntegration::makeModule(executor));
    registry().registerModule(QEVObserverIntegration::makeModule());
    registry().registerModule(memory);
  }
  void TearDown() override {
    QEVR::shutdown();
    executor.runUntilIdle();
    registry().removeAll();
    qevr::setApplicationSupportDirectoryOverride(std::nullopt);
    Memory::configure(QEVMemoryOptions{});
  }

  static QEVRModuleRegistry& registry() { return QEVRModuleRegistry::shared(); }

  void start() {
    QEVR::start({.appId = "com.example.memory-tests",
                 .logLevel = QEVRLogLevel::off,
                 .isBackgroundProcessingEnabled = true},
                executor);
  }

  // One run of the app. The start's pruning run goes first, so that it never
  // sees this run's files; the saves and graph jobs run once the run is over.
  void runApp(const std::function<void()>& events) {
    start();
    executor.runUntilIdle();
    events();
    QEVR::shutdown();
    executor.runUntilIdle();
  }

  std::filesystem::path root() const { return dir.path / "QEVR" / "Memory"; }
  QEVUserGraph userGraph() const { return makeStore(root())->loadUserGraph().value(); }

  // Runs the module's saves, pruning and graph jobs when the test says so.
  qevr::ManualExecutor executor;
  TemporaryDirectory dir;
  std::shared_ptr<qevr::CapturingLogSink> logs = std::make_shared<qevr::CapturingLogSink>();
  qevr::ScopedLogSink scoped{logs};
  std::shared_ptr<QEVMemoryModule> memory;
};

// Events while paused leave no trace and use no number; a restarted module
// saves as after its first start, its numbers rising on: one counter.
TEST_F(MemoryModuleTest, EventsTravelFromTheObserverToDiskAndBackAsASnapshot) {
  start();
  ASSERT_FALSE(memory->isMemoryOnly());
  Observer::screenView("Home", {});
  for (int i = 0; i < 99; ++i)
    Observer::buttonTap("play", std::nullopt, {{"n", i}});
  // The 100th event closes a chunk, saved while the session goes on.
  Observer::navigation("Home", "Settings/Profile", {});
  QEVR::pause();
  memory->receive(observerEvent(QEVObserverEventType::custom, qevr::now(), std::nullopt));
  QEVR::resume();
  Observer::track("level_completed", {{"password", "x"}, {"score", 3}});
  EXPECT_EQ(memory->eventStore()->nextSequenceNumber(), 103u);
  QEVR::shutdown();
  EXPECT_EQ(Memory::memoryStats(), QEVMemoryStats{});  // nothing written yet
  executor.runUntilIdle();

  const QEVMemoryStats stats = Memory::memoryStats();
  EXPECT_EQ(stats.eventChunkCount, 2);  // the full one, and the one closed at shutdown
  const auto snapshot = Memory::intelligenceSnapshot();
  EXPECT_EQ(snapshot.totalEvents, 102);
  EXPECT_EQ(snapshot.frequentComponents.at("play"), 99);
  EXPECT_EQ(snapshot.frequentCustomEvents.at("level_completed"), 1);

  runApp([] { Observer::track("again", {}); });
  EXPECT_EQ(memory->eventStore()->nextSequenceNumber(), 104u);
  EXPECT_EQ(Memory::memoryStats().eventChunkCount, 3);
}

TEST_F(MemoryModuleTest, StartWithoutAnObserverFailsAndALaterStartSucceeds) {
  registry().removeAll();
  registry().registerModule(memory);
  EXPECT_THROW(start(), QEVMemoryModuleError);
  EXPECT_EQ(QEVR::lifecycleState(), QEVRLifecycleState::notStarted);
  registry().removeAll();
  registry().registerModule(QEVObserverIntegration::makeModule());
  registry().registerModule(memory);
  EXPECT_NO_THROW(start());
  EXPECT_TRUE(QEVR::isRunning());
}

// A crash mid-write leaves a temporary outside every limit; the start
// queues a sweep of each directory (which temporaries go is the file
// system's rule).
TEST_F(MemoryModuleTest, StartRemovesTemporariesOfWritesCutShortByACrash) {
  const pid_t dead = ::fork();
  ASSERT_GE(dead, 0);
  if (dead == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(dead, nullptr, 0), dead);
  std::vector<std::filesystem::path> leftovers;
  for (const char* directory : {"events", "sessions", "user"}) {
    std::filesystem::create_directories(root() / directory);
    leftovers.push_back(root() / directory / (".A.json." + std::to_string(dead) + ".3.99.tmp"));
    std::ofstream(leftovers.back()) << "{\"partial";
  }
  start();
  EXPECT_TRUE(std::filesystem::exists(leftovers[0]));  // the sweep waits to be run
  executor.runUntilIdle();
  for (const auto& file : leftovers)
    EXPECT_FALSE(std::filesystem::exists(file)) << file;
}

TEST_F(MemoryModuleTest, DamagedFilesFailLoadsUntilClearMemory) {
  runApp([] { Observer::track("x", {}); });
  const auto bad = root() / "events" / "00000000-0000-4000-8000-000000000000.json";
  std::ofstream(bad) << R"({"compressionType":"lzfse","uncompressedByteCount":3,"payload":"AAAA"})";
  EXPECT_ANY_THROW(Memory::memoryStats());
  logs->clear();
  Memory::clearMemory();
  EXPECT_THAT(logs->texts("QEVMemory", "Diagnostics"),
              ::testing::ElementsAre("Cleared local QEVMemory storage"));
  EXPECT_EQ(Memory::memoryStats(), QEVMemoryStats{});
  EXPECT_EQ(Memory::memoryStatsAsync().get(), QEVMemoryStats{});
}

TEST_F(MemoryModuleTest, WithoutApplicationSupportTheModuleKeepsToMemory) {
  qevr::setApplicationSupportDirectoryOverride(std::nullopt);
  const char* home = std::getenv("HOME");
  const char* data = std::getenv("XDG_DATA_HOME");
  const std::string savedHome = home ? home : "", savedData = data ? data : "";
  ::unsetenv("HOME");
  ::unsetenv("XDG_DATA_HOME");
  auto isolated =
      std::static_pointer_cast<QEVMemoryModule>(QEVMemoryIntegration::makeModule(executor));
  EXPECT_THAT([] { Memory::memoryStats(); },
              throwsWithMessage<QEVFileMemoryStoreError>("applicationSupportUnavailable"));
  if (home) ::setenv("HOME", savedHome.c_str(), 1);
  if (data) ::setenv("XDG_DATA_HOME", savedData.c_str(), 1);
  EXPECT_TRUE(isolated->isMemoryOnly());

  registry().removeAll();
  registry().registerModule(QEVObserverIntegration::makeModule());
  registry().registerModule(isolated);
  start();
  EXPECT_TRUE(Observer::track("kept in memory", {}));
  EXPECT_EQ(isolated->eventStore()->nextSequenceNumber(), 2u);
}

// Three runs of an app over one store, an hour apart, one screen each. The
// setting is read at start: each run flips it while it runs, to no effect.
// With continuity the user graph adds the runs up and their sessions keep
// their dates through later pruning. Without it each start stands alone, and the
// undated session graphs go at the first pruning run that sees them: the
// one behind the closing chunk, which the graph job (at medium priority)
// goes before.
TEST_F(MemoryModuleTest, ContinuityCarriesTheUserGraphAndDatesSessionsAcrossRuns) {
  const struct {
    bool continuity;
    std::int64_t totalSessions;
    std::vector<std::string> recentScreenSequences;
    std::int64_t datedSessionFiles;
  } cases[] = {
      {true, 3, {"Run3", "Run2", "Run1"}, 3},
      {false, 1, {}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.continuity ? "on" : "off");
    Memory::clearMemory();
    auto clock = std::make_shared<qevr::ManualClock>(qevr::systemClock().now());
    qevr::setClock(clock);
    std::optional<QEVUserGraph> first;
    for (int run = 1; run <= 3; ++run) {
      Memory::setContinuity(c.continuity);
      runApp([&] {
        Memory::setContinuity(!c.continuity);
        clock->advance(60);
        Observer::screenView("Run" + std::to_string(run), {});
        clock->advance(60);
        Observer::track("played", {});
      });
      const QEVUserGraph user = userGraph();
      if (!first) first = user;
      const bool same = user.userId == first->userId && user.createdAt == first->createdAt;
      EXPECT_EQ(same, run == 1 || c.continuity);
      EXPECT_EQ(user.lastSeenAt.has_value(), c.continuity);
      clock->advance(3600);
    }
    qevr::setClock(nullptr);
    const QEVMemoryIntelligenceSnapshot snapshot = Memory::intelligenceSnapshot();
    EXPECT_EQ(snapshot.totalSessions, c.totalSessions);
    EXPECT_EQ(snapshot.frequentCustomEvents.at("played"), c.totalSessions);
    EXPECT_EQ(snapshot.recentScreenSequences, c.recentScreenSequences);
    std::int64_t dated = 0;
    for (const QEVSessionGraph& graph : makeStore(root())->loadSessionGraphs()) {
      if (!graph.startedAt || !graph.endedAt) continue;
      ++dated;
      EXPECT_NEAR(graph.duration.value_or(0), 60, 1e-3);  // from the first event to the last
    }
    EXPECT_EQ(dated, c.datedSessionFiles);
  }
  Memory::setContinuity(false);
}

TEST_F(MemoryModuleTest, ContinuityStartsAfreshFromADamagedUserGraph) {
  Memory::setContinuity(true);
  const auto graphFile = root() / "user" / "graph.json";
  std::filesystem::create_directories(graphFile.parent_path());
  std::ofstream(graphFile) << R"({"userId":"not a uuid","totalSessions":40})";
  runApp([] { Observer::track("after", {}); });
  Memory::setContinuity(false);
  EXPECT_EQ(userGraph().totalSessions, 1);
  EXPECT_EQ(logs->texts("QEVMemory", "Continuity").size(), 1u);
}

// Snapshot rules over a store written directly.
class SnapshotTest : public ::testing::Test {
 protected:
  static QEVSessionGraph session(double started, std::vector<std::string> screens,
                                 std::vector<QEVNavigationEdge> edges = {}) {
    return {.sessionId = QEVRUUID::random(),
            .startedAt = QEVRDate{started},
            .endedAt = QEVRDate{started + 10},
            .eventCount = 3,
            .screenSequence = std::move(screens),
            .navigationEdges = std::move(edges)};
  }
  TemporaryDirectory dir;
  std::shared_ptr<QEVFileMemoryStore> store = makeStore(dir.path);
};

TEST_F(SnapshotTest, RecentFieldsUseTheFiveLatestSessionsAndAllRedact) {
  EXPECT_EQ(intelligenceSnapshot(*store), QEVMemoryIntelligenceSnapshot{});
  for (int i = 0; i < 7; ++i)
    store->saveSessionGraph(session(100.0 * i, {"S" + std::to_string(i), "  "}, {{{}, "Shop", i}}));
  store->saveSessionGraph(
      session(1e6, {"mail me: ann@example.com", "+1 (555) 123-4567"}, {{"a@b.io", "Home", 2}}));
  QEVSessionGraph undated = session(0, {"Old"});
  undated.startedAt.reset();
  undated.endedAt.reset();
  store->saveSessionGraph(undated);

  const auto snapshot = intelligenceSnapshot(*store);
  EXPECT_EQ(snapshot.totalSessions, 9);  // no user graph: count the files
  EXPECT_EQ(snapshot.totalEvents, 27);
  EXPECT_THAT(snapshot.recentScreenSequences,
              ::testing::ElementsAre("mail me: [redacted] > [redacted]", "S6", "S5", "S4", "S3"));
  // Sessions 6, 5, 4, 3 carry counts 6 + 5 + 4 + 3 on the same edge.
  EXPECT_EQ(snapshot.recentNavigationPatterns.at("unknown->Shop"), 18);
  EXPECT_EQ(snapshot.recentNavigationPatterns.at("[redacted]->Home"), 2);
  EXPECT_EQ(snapshot.timeWindowStart, QEVRDate{0});
  EXPECT_EQ(snapshot.timeWindowEnd, QEVRDate{1e6 + 10});

  // A user graph provides the totals and the maps, redacted as well.
  store->saveUserGraph(
      {.userId = QEVRUUID::random(),
       .createdAt = QEVRDate{60},
       .updatedAt = QEVRDate{60},
       .totalSessions = 1,
       .totalEvents = 4,
       .frequentlyVisitedScreens = {{"+44 20 7946 0958", 2}, {"555 987 6543", 5}, {" Home ", 1}}});
  const auto withUser = intelligenceSnapshot(*store);
  EXPECT_EQ(withUser.totalSessions, 1);
  EXPECT_EQ(withUser.frequentlyVisitedScreens.size(), 2u);  // the two numbers collide
  EXPECT_EQ(withUser.frequentlyVisitedScreens.count("[redacted]"), 1u);
  EXPECT_EQ(withUser.frequentlyVisitedScreens.at("Home"), 1);
  EXPECT_EQ(withUser.timeWindowStart, QEVRDate{60});
  EXPECT_EQ(withUser.timeWindowEnd, QEVRDate{1e6 + 10});  // lastSeenAt absent: from the sessions
}

// Graph files may hold any 64-bit count; sums over them stop at the limit
// (UBSan fails the test on an overflow).
TEST_F(SnapshotTest, SumsOverGraphFilesSaturate) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  const struct {
    const char* name;
    std::vector<std::int64_t> counts;  // one session each, as eventCount and edge count
    std::int64_t sum;
  } cases[] = {
      {"one past the maximum", {kMax, 1}, kMax},
      {"two at the minimum", {kMin, kMin}, kMin},
      {"back from the limit", {kMax, kMin, 5}, 4},
      {"ordinary", {3, 4}, 7},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    store->clearAll();
    for (std::size_t i = 0; i < c.counts.size(); ++i) {
      QEVSessionGraph graph = session(100.0 * i, {"A"}, {{"A", "B", c.counts[i]}});
      graph.eventCount = c.counts[i];
      store->saveSessionGraph(graph);
    }
    const QEVMemoryIntelligenceSnapshot snapshot = intelligenceSnapshot(*store);
    EXPECT_EQ(snapshot.totalEvents, c.sum);
    EXPECT_EQ(snapshot.recentNavigationPatterns.at("A->B"), c.sum);
  }
}

TEST(RedactionTest, EmailsAndPhoneNumbersBecomeRedacted) {
  EXPECT_EQ(redactedSnapshotText("  Contact BOB@Example.ORG now "), "Contact [redacted] now");
  EXPECT_EQ(redactedSnapshotText("1234567"), "1234567");  // too short for a number
}

}  // namespace
