#include <QEVObserver/QEVObserverEventDispatcher.h>
#include <QEVObserver/QEVObserverSession.h>
#include <QEVRPlatform/Json.h>

#include <gtest/gtest.h>

#include "QEVComponentInteractionTracker.h"
#include "QEVGestureTracker.h"
#include "QEVNavigationTracker.h"
#include "QEVObserverDiagnosticContextProvider.h"
#include "QEVScreenTracker.h"
#include "QEVSessionTracker.h"

namespace {

using State = QEVObserverEventDispatcher::State;

TEST(SessionTrackerTest, StartIsIdempotentAndEndRecordsTheSession) {
  QEVSessionTracker tracker;
  EXPECT_FALSE(tracker.endSession(QEVRDate{5}).has_value());
  EXPECT_EQ(tracker.currentState(), QEVSessionTracker::State::inactive);
  const QEVRUUID first = QEVRUUID::random();
  auto a = tracker.startSession(first, QEVRDate{10});
  auto b = tracker.startSession(QEVRUUID::random(), QEVRDate{20});
  EXPECT_EQ(a, b);
  EXPECT_EQ(b.id, first);
  // An end before the start gives a zero duration, never a negative one.
  auto ended = tracker.endSession(QEVRDate{4});
  ASSERT_TRUE(ended.has_value());
  EXPECT_EQ(ended->duration, 0.0);
  EXPECT_EQ(tracker.currentState(), QEVSessionTracker::State::ended);
  EXPECT_EQ(tracker.lastEndedSession(), ended);
  auto next = tracker.startSession(QEVRUUID::random(), QEVRDate{30});
  EXPECT_NE(next.id, first);
  EXPECT_EQ(tracker.lastEndedSession(), ended);  // survives a new start
}

TEST(SessionTrackerTest, SessionJsonKeepsDurationAsRead) {
  const char* json =
      R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","startedAt":3,"duration":9.5})";
  const qevr::json::Value v = qevr::json::parse(json);
  auto session = QEVObserverSession::decode(qevr::json::Decoder(v));
  EXPECT_EQ(session.duration, 9.5);
  EXPECT_FALSE(session.endedAt.has_value());
  QEVObserverSession full(QEVRUUID::random(), QEVRDate{1}, QEVRDate{4});
  EXPECT_EQ(full.duration, 3.0);
  qevr::json::Writer w;
  full.encode(w);
  const qevr::json::Value back = qevr::json::parse(w.take());
  EXPECT_EQ(QEVObserverSession::decode(qevr::json::Decoder(back)), full);
}

TEST(DiagnosticProviderTest, ReportsScreenWithoutSession) {
  auto sessions = std::make_shared<QEVSessionTracker>();
  auto screens = std::make_shared<QEVScreenTracker>();
  QEVObserverDiagnosticContextProvider provider(sessions, screens);
  screens->setCurrentName("Home");
  EXPECT_EQ(provider.currentContext(), (QEVRDiagnosticContext{std::nullopt, "Home"}));
  auto s = sessions->startSession(QEVRUUID::random(), QEVRDate{});
  EXPECT_EQ(provider.currentContext().sessionId, s.id);
}

TEST(GestureTypeTest, RawValuesRoundTrip) {
  for (QEVGestureType t : kAllGestureTypes)
    EXPECT_EQ(gestureTypeFromRawValue(rawValueOf(t)), t);
  EXPECT_FALSE(gestureTypeFromRawValue("Tap").has_value());
}

TEST(DispatcherTest, ASinkMayRemoveItselfWhileBeingCalled) {
  QEVObserverEventDispatcher dispatcher;
  dispatcher.setState(State::running);
  struct SelfRemoving : QEVObserverEventSink {
    QEVObserverEventDispatcher* owner = nullptr;
    QEVRUUID id;
    int calls = 0;
    void receive(const QEVObserverEvent&) override {
      ++calls;
      owner->removeSink(id);
    }
  };
  auto sink = std::make_shared<SelfRemoving>();
  sink->owner = &dispatcher;
  sink->id = QEVRUUID::random();
  dispatcher.addSink(sink->id, sink);
  const QEVObserverEvent tap(QEVRUUID::random(), QEVObserverEventType::buttonTap, QEVRDate{3},
                             std::nullopt, std::nullopt, "ok", {});
  dispatcher.dispatch(tap, {State::running});
  dispatcher.dispatch(tap, {State::running});
  EXPECT_EQ(sink->calls, 1);
}

}  // namespace
