#include <QEVRCore/QEVRFacade.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Log.h>
#include "ManualExecutor.h"
#include "QEVRRuntimeStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <thread>

#include "RecordingModule.h"
#include "ThrowsMessage.h"

namespace {

using qevr::testing::throwsWithMessage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using S = QEVRLifecycleState;

QEVRConfiguration configuration(QEVRLogLevel level = QEVRLogLevel::trace) {
  return {.appId = "com.example.tests", .logLevel = level};
}

class RuntimeStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // 2026-01-31T09:05:00.75Z: lines show whole seconds.
    clock->set(QEVRDate::fromUnixSeconds(1769850300.75));
    qevr::setClock(clock);
    store().logger().setMinimumLevel(QEVRLogLevel::trace);
  }
  void TearDown() override {
    QEVR::shutdown();
    store().moduleRegistry().removeAll();
    qevr::setClock(nullptr);
  }

  static QEVRRuntimeStore& store() { return QEVRRuntimeStore::shared(); }

  std::shared_ptr<RecordingModule> addModule(const std::string& name) {
    auto module = std::make_shared<RecordingModule>(name, journal);
    store().moduleRegistry().registerModule(module);
    return module;
  }

  // Registers module "m", which runs onStart inside its start, and starts.
  void startWithModule(std::function<void(const QEVRModuleContext&)> onStart,
                       qevr::Executor& on = qevr::defaultExecutor()) {
    addModule("m")->onStart = std::move(onStart);
    QEVR::start(configuration(), on);
  }

  std::vector<std::string> coreLines() const { return logs->texts("QEVRCore", "Lifecycle"); }

  // Outlives every start of a test, and the shutdown in TearDown.
  qevr::ManualExecutor executor;
  std::shared_ptr<qevr::ManualClock> clock = std::make_shared<qevr::ManualClock>();
  std::shared_ptr<qevr::CapturingLogSink> logs = std::make_shared<qevr::CapturingLogSink>();
  qevr::ScopedLogSink scopedSink{logs};
  std::shared_ptr<Journal> journal = std::make_shared<Journal>();
};

TEST_F(RuntimeStoreTest, BlankAppIdIsRefusedBeforeAnythingChangesEvenWhileRunning) {
  const QEVRConfiguration blank{.appId = " \n\t\u3000"};
  for (bool running : {false, true}) {
    if (running) QEVR::start(configuration());
    const S before = QEVR::lifecycleState();
    logs->clear();
    EXPECT_THAT([&] { QEVR::start(blank); },
                throwsWithMessage<QEVRError>("appId must not be empty."));
    EXPECT_EQ(QEVR::lifecycleState(), before);
    EXPECT_THAT(logs->entries(), IsEmpty());
  }
}

// At the configured warning level the lines of the calls that applied are
// held back.
TEST_F(RuntimeStoreTest, CallsThatDoNotApplyWarnAndChangeNothing) {
  QEVR::shutdown();
  QEVR::start(configuration(QEVRLogLevel::warning));
  QEVR::start({.appId = "com.example.other"});
  ASSERT_TRUE(store().runtimeState().has_value());
  EXPECT_EQ(store().runtimeState()->configuration.appId, "com.example.tests");
  QEVR::resume();  // while running
  QEVR::pause();
  QEVR::pause();  // while paused
  QEVR::shutdown();
  QEVR::shutdown();
  EXPECT_EQ(QEVR::lifecycleState(), S::shutdown);
  const std::string prefix = "2026-01-31T09:05:00Z [WARNING] [QEVRCore:Lifecycle] ";
  EXPECT_THAT(coreLines(), ElementsAre(prefix + "Shutdown ignored because SDK is not running",
                                       prefix + "Start ignored because SDK is already active",
                                       prefix + "Resume ignored because SDK is not paused",
                                       prefix + "Pause ignored because SDK is not running",
                                       prefix + "Shutdown ignored because SDK is not running"));
}

// The rollback shuts down every module started so far, in reverse, even
// past one that throws; the start's error is what the host sees.
TEST_F(RuntimeStoreTest, FailedStartRollsBackAndTheNextStartSucceeds) {
  addModule("first");
  addModule("second")->throwsFromHooks = true;
  auto third = addModule("third");
  addModule("fourth");
  third->onStart = [](const QEVRModuleContext&) { throw std::runtime_error("third failed"); };
  store().logger().setMinimumLevel(QEVRLogLevel::warning);

  EXPECT_THAT([] { QEVR::start(configuration()); },
              throwsWithMessage<std::runtime_error>("third failed"));
  EXPECT_THAT(journal->all(), ElementsAre("first.start", "second.start", "third.start",
                                          "second.shutdown", "first.shutdown"));
  EXPECT_EQ(QEVR::lifecycleState(), S::notStarted);
  EXPECT_EQ(store().dependencyContainer().count(), 0u);
  EXPECT_FALSE(store().runtimeState().has_value());
  EXPECT_TRUE(store().backgroundWorker()->isShutDown());
  EXPECT_THAT(coreLines(), IsEmpty());
  // The logger keeps the level the failed start set.
  EXPECT_EQ(store().logger().minimumLevel(), QEVRLogLevel::trace);

  third->onStart = nullptr;
  QEVR::start(configuration());
  EXPECT_TRUE(QEVR::isRunning());
  EXPECT_THAT(journal->all(), ElementsAre("first.start", "second.start", "third.start",
                                          "second.shutdown", "first.shutdown", "first.start",
                                          "second.start", "third.start", "fourth.start"));
}

TEST_F(RuntimeStoreTest, LifecycleDrivesModulesForwardAndShutdownBackwardWhateverTheyThrow) {
  addModule("a");
  addModule("b")->throwsFromHooks = true;
  addModule("c");
  EXPECT_THROW(store().moduleRegistry().registerModule(nullptr), std::invalid_argument);
  QEVR::start(configuration());
  QEVR::pause();
  EXPECT_FALSE(QEVR::isRunning());
  QEVR::resume();
  QEVR::pause();
  QEVR::shutdown();  // accepted from paused
  EXPECT_EQ(QEVR::lifecycleState(), S::shutdown);
  EXPECT_THAT(journal->all(),
              ElementsAre("a.start", "b.start", "c.start", "a.pause", "b.pause", "c.pause",
                          "a.resume", "b.resume", "c.resume", "a.pause", "b.pause", "c.pause",
                          "c.shutdown", "b.shutdown", "a.shutdown"));
  const std::string prefix = "2026-01-31T09:05:00Z [INFO] [QEVRCore:Lifecycle] SDK ";
  EXPECT_THAT(coreLines(), ElementsAre(prefix + "started", prefix + "paused", prefix + "resumed",
                                       prefix + "paused", prefix + "shut down"));
  // Shutdown finished every step of its own after the modules.
  EXPECT_EQ(store().dependencyContainer().count(), 0u);
  EXPECT_FALSE(store().runtimeState().has_value());
  EXPECT_TRUE(store().backgroundWorker()->isShutDown());
}

TEST_F(RuntimeStoreTest, RestartMakesANewWorkerAndRefillsTheContainer) {
  std::vector<size_t> entriesAtStart;
  startWithModule([&](const QEVRModuleContext& context) {
    entriesAtStart.push_back(store().dependencyContainer().count());
    EXPECT_TRUE(QEVR::isRunning());  // running while the modules start
    EXPECT_EQ(&context.executor(), &qevr::defaultExecutor());
  });
  auto firstWorker = store().backgroundWorker();
  QEVR::shutdown();
  QEVR::start(configuration());  // the overload without an executor
  auto secondWorker = store().backgroundWorker();
  EXPECT_NE(firstWorker, secondWorker);
  EXPECT_FALSE(secondWorker->isShutDown());
  EXPECT_EQ(entriesAtStart, (std::vector<size_t>{4, 4}));
  auto& container = store().dependencyContainer();
  EXPECT_EQ(container.resolve<QEVRConfiguration>()->appId, "com.example.tests");
  EXPECT_EQ(container.resolve<QEVRLogger>().get(), &store().logger());
  EXPECT_NO_THROW(container.resolve<QEVRLifecycleCoordinator>());
  EXPECT_EQ(container.resolve<QEVRBackgroundWorker>(), secondWorker);
}

// Work a module hands to its context waits on the start's executor until
// run. Tracked work not yet begun dies with the shutdown; a context kept past
// it still runs work, untracked.
TEST_F(RuntimeStoreTest, ModuleContextWorkRunsOnTheStartsExecutorAndFallsBackAfterShutdown) {
  std::optional<QEVRModuleContext> kept;
  startWithModule([&](const QEVRModuleContext& context) { kept = context; }, executor);
  ASSERT_TRUE(kept.has_value());
  EXPECT_EQ(&kept->executor(), &executor);
  int ran = 0;
  const auto work = [&](std::stop_token) { ++ran; };
  EXPECT_TRUE(kept->submitBackgroundWork(work));
  EXPECT_EQ(store().backgroundWorker()->trackedTaskCount(), 1u);
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(executor.runAll(), 1u);
  EXPECT_EQ(ran, 1);
  EXPECT_EQ(store().backgroundWorker()->trackedTaskCount(), 0u);

  EXPECT_TRUE(kept->submitBackgroundWork(work));
  QEVR::shutdown();
  EXPECT_TRUE(kept->submitBackgroundWork(work));
  EXPECT_EQ(executor.runAll(), 2u);
  EXPECT_EQ(ran, 2);
}

TEST_F(RuntimeStoreTest, DiagnosticContextIsAbsentUntilAModuleRegistersAProvider) {
  struct Home : QEVRDiagnosticContextProviding {
    QEVRDiagnosticContext currentContext() override { return {std::nullopt, "Home"}; }
  };
  std::vector<std::optional<QEVRDiagnosticContext>> seen;
  startWithModule([&](const QEVRModuleContext& context) {
    seen.push_back(context.currentDiagnosticContext());
    context.registerDiagnosticContextProvider(std::make_shared<Home>());
    seen.push_back(context.currentDiagnosticContext());
  });
  EXPECT_EQ(seen, (std::vector<std::optional<QEVRDiagnosticContext>>{
                      std::nullopt, QEVRDiagnosticContext{std::nullopt, "Home"}}));
}

TEST_F(RuntimeStoreTest, ConcurrentFacadeCallsKeepTheStateMachineConsistent) {
  addModule("a");
  addModule("b");
  const std::function<void()> calls[] = {[] { QEVR::start(configuration(QEVRLogLevel::off)); },
                                         [] { QEVR::pause(); }, [] { QEVR::resume(); },
                                         [] { QEVR::shutdown(); }};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i)
        calls[(i + t) % 4]();
    });
  }
  for (auto& t : threads)
    t.join();
  QEVR::shutdown();
  EXPECT_EQ(QEVR::lifecycleState(), S::shutdown);
  // Every start that reached the modules was matched by a shutdown.
  const auto all = journal->all();
  EXPECT_EQ(std::count(all.begin(), all.end(), "a.start"),
            std::count(all.begin(), all.end(), "a.shutdown"));
}

}  // namespace
