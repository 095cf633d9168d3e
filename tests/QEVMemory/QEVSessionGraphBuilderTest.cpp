#include <QEVMemory/QEVSessionGraph.h>

#include <gtest/gtest.h>

#include "MemoryTestSupport.h"

#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

using Type = QEVMemoryEventType;
using Edge = QEVNavigationEdge;
using Summary = QEVComponentInteractionSummary;

QEVMemoryEvent ev(Type type, std::optional<std::string> screenName = {},
                  std::optional<std::string> componentId = {}, QEVMemoryMetadata metadata = {},
                  double timestamp = 0, std::optional<QEVRUUID> sessionId = {}) {
  return QEVMemoryEvent{QEVRUUID::random(),    type,
                        QEVRDate{timestamp},   sessionId,
                        std::move(screenName), std::move(componentId),
                        std::move(metadata),   1};
}

// A dated event with no labels.
QEVMemoryEvent at(double timestamp, Type type, QEVMemoryMetadata metadata = {}) {
  return ev(type, {}, {}, std::move(metadata), timestamp);
}

QEVSessionGraph buildFrom(const std::vector<QEVMemoryEvent>& events) {
  QEVSessionGraphBuilder builder;
  for (const QEVMemoryEvent& event : events)
    builder.ingest(event);
  return builder.build();
}

TEST(SessionGraphBuilderTest, EventTypesFeedTheirOwnFields) {
  EXPECT_EQ(QEVSessionGraphBuilder().build(), QEVSessionGraph{});

  const QEVRUUID first = QEVRUUID::random();
  const QEVSessionGraph graph = buildFrom({
      ev(Type::screenView, "Home"),                // no session yet: the first present one sticks
      ev(Type::screenView, {}, {}, {}, 0, first),  // no screen name: counted only
      ev(Type::screenView, "Shop", {}, {}, 0, QEVRUUID::random()),
      ev(Type::screenView, "Home"),
      ev(Type::screenDisappear, "Home", "x"),
      ev(Type::custom, "Home", "x", {{"name", "jump"}}),
      ev(Type::custom, {}, {}, {{"name", "jump"}}),
      ev(Type::custom, {}, {}, {{"name", 3}}),
      ev(Type::custom),
      ev(Type::gesture, "Home"),  // no component: nothing to count on
      ev(Type::buttonTap, "Home", "x", {{"to", "Shop"}}),
  });
  EXPECT_EQ(graph, (QEVSessionGraph{.sessionId = first,
                                    .eventCount = 11,
                                    .screenSequence = {"Home", "Shop", "Home"},
                                    .componentInteractions = {{"x", "Home", 1, 0}},
                                    .customEventCounts = {{"jump", 2}}}));
}

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

std::optional<QEVRDate> dateOf(double seconds) {
  if (std::isnan(seconds)) return std::nullopt;
  return QEVRDate{seconds};
}

// Start and end come from the session's own events, date metadata first and
// later events winning; dating by events fills only what those left open.
TEST(SessionGraphBuilderTest, SessionDates) {
  struct Case {
    const char* name;
    bool byEvents;
    double startedAt, endedAt, duration;  // kNone: absent
    std::vector<QEVMemoryEvent> events;
  };
  const auto row = [](const char* name, bool byEvents, double startedAt, double endedAt,
                      double duration, std::vector<QEVMemoryEvent> events) {
    return Case{name, byEvents, startedAt, endedAt, duration, std::move(events)};
  };
  const Case cases[] = {
      row("end only", false, kNone, 70, kNone, {at(70, Type::sessionEnd)}),
      row("metadata dates", false, 500, 530, 30,
          {at(10, Type::sessionStart, {{"startedAt", QEVRDate{500}}}),
           at(530, Type::sessionEnd, {{"endedAt", "yesterday"}})}),
      row("later start wins, duration not clamped", false, 20, 15, -5,
          {at(10, Type::sessionStart), at(20, Type::sessionStart, {{"startedAt", 1.0}}),
           at(99, Type::sessionEnd, {{"endedAt", QEVRDate{15}}})}),
      row("no events", true, kNone, kNone, kNone, {}),
      // The first and last ingested, not the earliest and latest.
      row("neither start nor end", true, 40, 25, -15,
          {ev(Type::screenView, "Home", {}, {}, 40), ev(Type::buttonTap, "Home", "b", {}, 10),
           at(25, Type::custom, {{"name", "x"}})}),
      row("start without end", true, 5, 30, 25,
          {at(8, Type::sessionStart, {{"startedAt", QEVRDate{5}}}), at(30, Type::screenView)}),
      row("end without start", true, 12, 50, 38,
          {at(12, Type::screenView), at(51, Type::sessionEnd, {{"endedAt", QEVRDate{50}}})}),
      row("both", true, 3, 9, 6, {at(3, Type::sessionStart), at(9, Type::sessionEnd)}),
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    QEVSessionGraphBuilder builder;
    for (const QEVMemoryEvent& event : c.events)
      builder.ingest(event);
    QEVSessionGraph expected = builder.build();
    expected.startedAt = dateOf(c.startedAt);
    expected.endedAt = dateOf(c.endedAt);
    expected.duration = std::isnan(c.duration) ? std::nullopt : std::optional(c.duration);
    // Everything but the dates is what build() gives.
    EXPECT_EQ(c.byEvents ? builder.buildDatedByEvents() : builder.build(), expected);
  }
}

// Edges come only from navigation events' own fields. An absent "from"
// sorts as the empty text, not before it (where the two otherwise tie,
// absent comes first); texts sort by code point, so "P" < "Z" < "z" < "é".
TEST(SessionGraphBuilderTest, EdgesComeFromNavigationEventsAndSortByFromThenTo) {
  auto nav = [](std::optional<std::string> from, std::string to) {
    QEVMemoryMetadata metadata{{"to", std::move(to)}};
    if (from) metadata.emplace("from", std::move(*from));
    return ev(Type::navigation, {}, {}, std::move(metadata));
  };
  const QEVSessionGraph graph = buildFrom(
      {ev(Type::navigation, "Cart", {}, {{"to", "Pay"}, {"from", "Cart"}}),
       ev(Type::navigation, "Pay", {}, {{"from", "Cart"}}),           // to from screenName
       ev(Type::navigation, "Pay", {}, {{"to", 7}, {"from", true}}),  // wrong kinds ignored
       ev(Type::navigation, {}, {}, {{"from", "Cart"}}),              // nowhere to go
       ev(Type::screenView, "Home"), ev(Type::screenView, "Shop"),    // no edge
       nav("\u00e9", "a"), nav("z", "a"), nav("Z", "a"), nav(std::nullopt, "b"), nav("", "a"),
       nav("", "b"), nav(std::nullopt, "a"), nav("", "a")});
  const std::vector<Edge> expected{{std::nullopt, "Pay", 1},
                                   {std::nullopt, "a", 1},
                                   {"", "a", 2},
                                   {std::nullopt, "b", 1},
                                   {"", "b", 1},
                                   {"Cart", "Pay", 2},
                                   {"Z", "a", 1},
                                   {"z", "a", 1},
                                   {"\u00e9", "a", 1}};
  EXPECT_EQ(graph.navigationEdges, expected);
}

TEST(SessionGraphBuilderTest, ComponentsCountPerScreenAndSortByScreenThenId) {
  const QEVSessionGraph graph = buildFrom({
      ev(Type::buttonTap, "Shop", "buy"),
      ev(Type::buttonTap, "Home", "buy"),
      ev(Type::gesture, "Home", "buy", {{"kind", "swipe"}}),
      ev(Type::gesture, "Home", "buy", {{"kind", "pinch"}}),
      ev(Type::buttonTap, {}, "buy"),
      ev(Type::buttonTap, {}, "zoom"),
      ev(Type::buttonTap, "", "add"),
      ev(Type::buttonTap, "\u00c5", "a"),
  });
  const std::vector<Summary> expected{
      {"add", "", 1, 0},     {"buy", std::nullopt, 1, 0}, {"zoom", std::nullopt, 1, 0},
      {"buy", "Home", 1, 2}, {"buy", "Shop", 1, 0},       {"a", "\u00c5", 1, 0}};
  EXPECT_EQ(graph.componentInteractions, expected);
}

TEST(SessionGraphBuilderTest, ConcurrentIngestLosesNothing) {
  QEVSessionGraphBuilder builder;
  constexpr int kThreads = 4, kEventsPerThread = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&builder, t] {
      for (int i = 0; i < kEventsPerThread; ++i) {
        builder.ingest(ev(Type::buttonTap, "S" + std::to_string(t), "x"));
        if (i % 100 == 0) builder.build();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  const QEVSessionGraph graph = builder.build();
  EXPECT_EQ(graph.eventCount, kThreads * kEventsPerThread);
  ASSERT_EQ(graph.componentInteractions.size(), static_cast<std::size_t>(kThreads));
  for (const Summary& summary : graph.componentInteractions) {
    EXPECT_EQ(summary.tapCount, kEventsPerThread);
  }
}

TEST(SessionGraphJsonTest, PinnedFormsRoundTripAndEveryCollectionIsNeeded) {
  const QEVRUUID id = QEVRUUID::parse("11111111-2222-4333-8444-555555555555").value();
  QEVSessionGraph graph = buildFrom({
      ev(Type::sessionStart, {}, {}, {}, 100, id),
      ev(Type::screenView, "A/B"),
      ev(Type::navigation, {}, {}, {{"to", "B"}}),
      ev(Type::buttonTap, {}, "x"),
      ev(Type::custom, {}, {}, {{"name", "n"}}),
      ev(Type::sessionEnd, {}, {}, {}, 160.5),
  });
  const std::string json = graph.toJSON();
  EXPECT_EQ(json,
            R"({"sessionId":"11111111-2222-4333-8444-555555555555","startedAt":)"
            R"("2001-01-01T00:01:40Z","endedAt":"2001-01-01T00:02:40Z","duration":60.5,)"
            R"("eventCount":6,"screenSequence":["A\/B"],"navigationEdges":[{"to":"B","count":1}],)"
            R"("componentInteractions":[{"componentId":"x","tapCount":1,"gestureCount":0}],)"
            R"("customEventCounts":{"n":1}})");
  graph.endedAt = QEVRDate{160};  // whole seconds on disk
  EXPECT_EQ(QEVSessionGraph::fromJSON(json), graph);

  EXPECT_EQ(QEVSessionGraph{}.toJSON(),
            R"({"eventCount":0,"screenSequence":[],"navigationEdges":[],)"
            R"("componentInteractions":[],"customEventCounts":{}})");
  for (const std::string key : {"eventCount", "screenSequence", "navigationEdges",
                                "componentInteractions", "customEventCounts"}) {
    const std::string renamed = replaced(json, '"' + key + '"', R"("x")");
    EXPECT_EQ(decodingFailure<QEVSessionGraph>(renamed), "keyNotFound." + key);
  }
  EXPECT_EQ(QEVSessionGraph::fromJSON(
                R"({"sessionId":null,"eventCount":0,"screenSequence":[],"navigationEdges":)"
                R"([{"from":null,"to":"x","count":1}],"componentInteractions":[],)"
                R"("customEventCounts":{},"extra":1})")
                .navigationEdges,
            (std::vector<Edge>{{std::nullopt, "x", 1}}));
}

}  // namespace
