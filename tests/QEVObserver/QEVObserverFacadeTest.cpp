#include <QEVObserver/QEVObserverFacade.h>
#include <QEVObserver/QEVObserverInMemoryEventSink.h>
#include <QEVObserver/QEVObserverModule.h>
#include <QEVRCore/QEVRFacade.h>
#include <QEVRCore/QEVRModuleRegistry.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Log.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QEVComponentInteractionTracker.h"
#include "QEVGestureTracker.h"
#include "QEVNavigationTracker.h"
#include "QEVScreenTracker.h"
#include "QEVSessionTracker.h"

#include <atomic>
#include <stdexcept>
#include <thread>

namespace {

using ::testing::ElementsAre;
using Type = QEVObserverEventType;
using Sink = QEVObserverInMemoryEventSink;
namespace Observer = QEVR::Observer;

std::vector<Type> typesOf(const Sink& sink) {
  std::vector<Type> out;
  for (const auto& e : sink.storedEvents())
    out.push_back(e.type());
  return out;
}

class ThrowingSink : public QEVObserverEventSink {
 public:
  void receive(const QEVObserverEvent&) override { throw std::runtime_error("host sink failed"); }
};

class ObserverFacadeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TearDown();
    QEVRModuleRegistry::shared().registerModule(module);
  }
  void TearDown() override {
    QEVR::shutdown();
    QEVRModuleRegistry::shared().removeAll();
    Observer::configure(QEVObserverPrivacyOptions{});
  }

  static void start() {
    QEVR::start({.appId = "com.example.observer-tests", .logLevel = QEVRLogLevel::off});
  }

  std::shared_ptr<Sink> startWithSink() {
    start();
    auto sink = std::make_shared<Sink>();
    EXPECT_TRUE(QEVObserverIntegration::registerEventSink(sink).has_value());
    return sink;
  }

  std::vector<std::string> lines() const { return logs->texts("QEVObserver", "Events"); }

  std::shared_ptr<QEVObserverModule> module = std::make_shared<QEVObserverModule>();
  std::shared_ptr<qevr::CapturingLogSink> logs = std::make_shared<qevr::CapturingLogSink>();
  qevr::ScopedLogSink scoped{logs};
};

// Validation comes first, then the running check, then the call's own flag.
// The flags, set before the start, hold through it and through the shutdown.
TEST_F(ObserverFacadeTest, RefusalsComeInPipelineOrderEachWithItsErrorLine) {
  const QEVObserverPrivacyOptions options{.allowScreenTracking = false,
                                          .allowGestureTracking = false,
                                          .allowComponentTracking = false,
                                          .allowCustomEvents = false};
  Observer::configure(options);
  EXPECT_FALSE(Observer::track("  ", {}));
  EXPECT_FALSE(Observer::track("jump", {}));
  start();
  EXPECT_FALSE(Observer::track("", {}));
  EXPECT_FALSE(Observer::track("jump", {}));
  EXPECT_FALSE(Observer::screenView("A", {}));
  EXPECT_FALSE(Observer::screenDisappear("A", {}));
  EXPECT_FALSE(Observer::navigation(std::nullopt, "A", {}));
  EXPECT_FALSE(Observer::buttonTap("b", std::nullopt, {}));
  EXPECT_FALSE(Observer::gesture(QEVGestureType::pan, std::nullopt, {}));
  EXPECT_FALSE(Observer::gesture(QEVGestureType::pan, " ", {}));  // blank id: an error
  QEVR::pause();
  EXPECT_FALSE(Observer::track("jump", {}));
  EXPECT_THAT(lines(), ElementsAre("Custom event ignored because validation failed",
                                   "Custom event ignored because QEVObserver is not running",
                                   "Custom event ignored because validation failed",
                                   "Custom event ignored because custom tracking is disabled",
                                   "Screen view ignored because screen tracking is disabled",
                                   "Screen disappear ignored because screen tracking is disabled",
                                   "Navigation ignored because screen tracking is disabled",
                                   "Button tap ignored because component tracking is disabled",
                                   "Gesture ignored because gesture tracking is disabled",
                                   "Gesture ignored because validation failed",
                                   "Custom event ignored because QEVObserver is not running"));
  for (const auto& e : logs->entries())
    EXPECT_TRUE(e.subsystem != "QEVObserver" || e.type == qevr::LogType::error);
  QEVR::shutdown();
  EXPECT_EQ(Observer::privacyOptions(), options);
}

TEST_F(ObserverFacadeTest, EventsCarryTheSessionTheScreenAndSanitisedMetadata) {
  auto sink = startWithSink();
  const auto session = module->sessionTracker()->activeSession();
  ASSERT_TRUE(session.has_value());
  EXPECT_TRUE(Observer::screenView(" Home ", {}));
  EXPECT_TRUE(Observer::buttonTap("play", "  ", {{"title", "mine"}}));
  EXPECT_TRUE(Observer::track("score", {{"password", "x"}, {"points", 10}}));
  auto events = sink->storedEvents();
  ASSERT_EQ(events.size(), 3u);
  for (const auto& e : events)
    EXPECT_EQ(e.sessionId(), session->id);
  EXPECT_EQ(events[0].screenName(), "Home");
  EXPECT_EQ(events[1].screenName(), "Home");  // filled from the screen tracker
  EXPECT_EQ(*events[1].metadata().at("title").stringValue(), "mine");  // blank title: kept
  EXPECT_EQ(events[2].metadata().count("password"), 0u);
  EXPECT_EQ(*events[2].metadata().at("name").stringValue(), "score");
  EXPECT_EQ(module->componentInteractionTracker()->lastInteraction(),
            (QEVComponentInteractionTracker::Interaction{"play", "mine"}));
}

TEST_F(ObserverFacadeTest, TrackersFollowScreensNavigationAndGestures) {
  start();
  auto& screens = *module->screenTracker();
  Observer::screenView("A", {});
  Observer::screenDisappear("B", {});
  EXPECT_EQ(screens.currentName(), "A");
  Observer::screenDisappear("A", {});
  EXPECT_FALSE(screens.currentName().has_value());
  Observer::navigation(" ", "Settings", {{"from", "kept"}});
  EXPECT_EQ(screens.currentName(), "Settings");
  EXPECT_EQ(module->navigationTracker()->lastSource(), "kept");
  Observer::navigation(std::nullopt, "Shop", {});
  EXPECT_FALSE(module->navigationTracker()->lastSource().has_value());
  EXPECT_EQ(module->navigationTracker()->lastDestination(), "Shop");
  Observer::gesture(QEVGestureType::swipe, " board ", {});
  EXPECT_EQ(module->gestureTracker()->lastGesture(),
            (QEVGestureTracker::Gesture{QEVGestureType::swipe, "board"}));
  QEVR::shutdown();
  EXPECT_FALSE(screens.currentName().has_value());
  EXPECT_FALSE(module->gestureTracker()->lastGesture().has_value());
}

// Registration needs a bound dispatcher, so a sink registered through the
// integration can exist only from the start to the shutdown, and misses
// sessionStart; a sink on the module's own dispatcher sees both ends.
TEST_F(ObserverFacadeTest, SessionEventsFrameEachRunAndARestartBeginsANewSession) {
  EXPECT_FALSE(QEVObserverIntegration::registerEventSink(std::make_shared<Sink>()));
  auto own = std::make_shared<Sink>();
  module->dispatcher()->addSink(QEVRUUID::random(), own);
  auto clock = std::make_shared<qevr::ManualClock>();
  clock->set(QEVRDate{800000000});
  qevr::setClock(clock);
  auto late = startWithSink();
  const auto session = module->sessionTracker()->activeSession();
  ASSERT_TRUE(session.has_value());
  clock->set(QEVRDate{800000090});
  QEVR::pause();
  QEVR::shutdown();  // from paused: sessionEnd still goes out
  qevr::setClock(nullptr);
  EXPECT_THAT(typesOf(*late), ElementsAre(Type::sessionEnd));
  ASSERT_THAT(typesOf(*own), ElementsAre(Type::sessionStart, Type::sessionEnd));
  const QEVObserverEvent begin = own->storedEvents()[0], end = own->storedEvents()[1];
  EXPECT_EQ(begin.sessionId(), session->id);
  EXPECT_EQ(begin.timestamp(), QEVRDate{800000000});
  EXPECT_EQ(begin.metadata(), (QEVObserverMetadata{{"startedAt", QEVRDate{800000000}}}));
  EXPECT_EQ(end.metadata(), (QEVObserverMetadata{{"startedAt", QEVRDate{800000000}},
                                                 {"endedAt", QEVRDate{800000090}},
                                                 {"duration", 90.0}}));
  EXPECT_FALSE(QEVObserverIntegration::registerEventSink(std::make_shared<Sink>()));

  auto again = startWithSink();
  const auto second = module->sessionTracker()->activeSession()->id;
  EXPECT_NE(second, session->id);
  EXPECT_TRUE(Observer::track("after restart", {}));
  ASSERT_EQ(again->storedEvents().size(), 1u);
  EXPECT_EQ(again->storedEvents()[0].sessionId(), second);
}

TEST_F(ObserverFacadeTest, MisbehavingHostInputIsContained) {
  start();
  EXPECT_FALSE(QEVObserverIntegration::registerEventSink(nullptr).has_value());
  EXPECT_TRUE(QEVObserverIntegration::registerEventSink(std::make_shared<ThrowingSink>()));
  auto sink = std::make_shared<Sink>();
  EXPECT_TRUE(QEVObserverIntegration::registerEventSink(sink));
  EXPECT_EQ(module->dispatcher()->sinkCount(), 2u);

  // The throwing sink comes first; the second still gets every event.
  EXPECT_TRUE(Observer::track("after a throwing sink", {}));
  // A gesture cast from an integer names no case: dropped, nothing read.
  EXPECT_FALSE(Observer::gesture(static_cast<QEVGestureType>(99), std::nullopt, {}));
  EXPECT_FALSE(Observer::gesture(static_cast<QEVGestureType>(-1), std::nullopt, {}));
  EXPECT_THAT(typesOf(*sink), ElementsAre(Type::custom));

  // Shutdown sends sessionEnd through the throwing sink and still completes.
  QEVR::shutdown();
  EXPECT_EQ(QEVR::lifecycleState(), QEVRLifecycleState::shutdown);
  EXPECT_EQ(module->dispatcher()->state(), QEVObserverEventDispatcher::State::shutdown);
  EXPECT_EQ(module->dispatcher()->sinkCount(), 0u);
  EXPECT_FALSE(module->sessionTracker()->activeSession().has_value());
  EXPECT_THAT(typesOf(*sink), ElementsAre(Type::custom, Type::sessionEnd));
}

TEST_F(ObserverFacadeTest, ViewAdaptersCheckTheirOwnFlagFirst) {
  auto sink = startWithSink();
  Observer::configure({.allowSwiftUIHelpers = false});
  QEVObserverViewHelpers::screenAppeared("Home");
  EXPECT_TRUE(lines().empty());
  Observer::configure({.allowScreenTracking = false});
  QEVObserverViewHelpers::screenAppeared("Home");
  QEVObserverViewHelpers::componentTapped("play", "Play");
  EXPECT_THAT(lines(), ElementsAre("Screen view ignored because screen tracking is disabled"));
  EXPECT_THAT(typesOf(*sink), ElementsAre(Type::buttonTap));
}

// Host threads track while the lifecycle changes underneath them (TSan checks
// the locking); at the end nothing is accepted and no sink is left.
TEST_F(ObserverFacadeTest, ConcurrentCallsDuringLifecycleChanges) {
  qevr::ScopedLogSink quiet(std::make_shared<qevr::CapturingLogSink>());
  std::atomic<bool> stop{false};
  std::vector<std::thread> hosts;
  for (int t = 0; t < 8; ++t) {
    hosts.emplace_back([&, t] {
      while (!stop) {
        Observer::track("tick", {{"n", 1}});
        Observer::screenView("Screen", {});
        Observer::buttonTap("b", "t", {});
        Observer::gesture(QEVGestureType::tap, std::nullopt, {});
        if (t == 0) {
          auto sink = std::make_shared<Sink>();
          if (auto id = QEVObserverIntegration::registerEventSink(sink)) {
            QEVObserverIntegration::removeEventSink(*id);
          }
        }
      }
    });
  }
  for (int round = 0; round < 30; ++round) {
    start();
    // Every shutdown below sends sessionEnd through a sink that throws.
    QEVObserverIntegration::registerEventSink(std::make_shared<ThrowingSink>());
    QEVR::pause();
    QEVR::resume();
    QEVR::shutdown();
  }
  stop = true;
  for (auto& h : hosts)
    h.join();
  EXPECT_FALSE(Observer::track("after", {}));
  EXPECT_EQ(module->dispatcher()->sinkCount(), 0u);
}

}  // namespace
