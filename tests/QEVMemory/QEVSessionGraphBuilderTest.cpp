#include <QEVMemory/QEVSessionGraph.h>
#include <QEVRPlatform/Json.h>

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

using Type = QEVMemoryEventType;
using Edge = QEVNavigationEdge;
using Summary = QEVComponentInteractionSummary;

struct EventSpec {
  EventSpec(Type t, std::optional<std::string> screen = {},  // NOLINT: braced lists in tables
            std::optional<std::string> component = {}, QEVMemoryMetadata entries = {},
            double time = 0, std::optional<QEVRUUID> session = {})
      : type(t),
        screenName(std::move(screen)),
        componentId(std::move(component)),
        metadata(std::move(entries)),
        timestamp(time),
        sessionId(session) {}

  Type type;
  std::optional<std::string> screenName;
  std::optional<std::string> componentId;
  QEVMemoryMetadata metadata;
  double timestamp;
  std::optional<QEVRUUID> sessionId;
};

QEVMemoryEvent make(EventSpec spec) {
  static std::atomic<std::uint64_t> sequence{0};
  QEVMemoryEvent event;
  event.id = QEVRUUID::random();
  event.type = spec.type;
  event.timestamp = QEVRDate{spec.timestamp};
  event.sessionId = spec.sessionId;
  event.screenName = std::move(spec.screenName);
  event.componentId = std::move(spec.componentId);
  event.metadata = std::move(spec.metadata);
  event.sequenceNumber = ++sequence;
  return event;
}

QEVSessionGraph buildFrom(const std::vector<EventSpec>& specs) {
  QEVSessionGraphBuilder builder;
  for (const EventSpec& spec : specs) builder.ingest(make(spec));
  return builder.build();
}

TEST(SessionGraphBuilderTest, EmptyBuilderBuildsAnEmptyGraph) {
  EXPECT_EQ(QEVSessionGraphBuilder().build(), QEVSessionGraph{});
}

TEST(SessionGraphBuilderTest, FirstPresentSessionIdSticks) {
  const QEVRUUID first = QEVRUUID::random(), second = QEVRUUID::random();
  const QEVSessionGraph graph = buildFrom({{Type::screenDisappear},
                                          {Type::screenDisappear, {}, {}, {}, 0, first},
                                          {Type::screenDisappear, {}, {}, {}, 0, second}});
  EXPECT_EQ(graph.sessionId, first);
  EXPECT_EQ(graph.eventCount, 3);
}

TEST(SessionGraphBuilderTest, EventTypesFeedTheirOwnFields) {
  const QEVSessionGraph graph = buildFrom({
      {Type::screenView, "Home"},
      {Type::screenView},  // no screen name: counted, not appended
      {Type::screenView, "Shop"},
      {Type::screenView, "Home"},
      {Type::screenDisappear, "Home", "x"},
      {Type::custom, "Home", "x", {{"name", "jump"}}},
      {Type::custom, {}, {}, {{"name", "jump"}}},
      {Type::custom, {}, {}, {{"name", 3}}},
      {Type::custom},
      {Type::gesture, "Home"},  // no component: nothing to count on
      {Type::buttonTap, "Home", "x", {{"to", "Shop"}}},
  });
  EXPECT_EQ(graph.eventCount, 11);
  EXPECT_EQ(graph.screenSequence, (std::vector<std::string>{"Home", "Shop", "Home"}));
  EXPECT_EQ(graph.customEventCounts, (std::unordered_map<std::string, std::int64_t>{{"jump", 2}}));
  EXPECT_EQ(graph.componentInteractions, (std::vector<Summary>{{"x", "Home", 1, 0}}));
  EXPECT_TRUE(graph.navigationEdges.empty());
  EXPECT_FALSE(graph.startedAt || graph.endedAt || graph.duration);
}

TEST(SessionGraphBuilderTest, SessionDatesPreferDateMetadataAndLaterEventsWin) {
  const QEVRDate metaStart{500};
  struct Case {
    std::vector<EventSpec> events;
    std::optional<QEVRDate> startedAt, endedAt;
    std::optional<double> duration;
  };
  const Case cases[] = {
      {{{Type::sessionEnd, {}, {}, {}, 70}}, std::nullopt, QEVRDate{70}, std::nullopt},
      {{{Type::sessionStart, {}, {}, {{"startedAt", metaStart}}, 10},
        {Type::sessionEnd, {}, {}, {{"endedAt", "yesterday"}}, 530}},
       metaStart, QEVRDate{530}, 30.0},
      {{{Type::sessionStart, {}, {}, {}, 10},
        {Type::sessionStart, {}, {}, {{"startedAt", 1.0}}, 20},
        {Type::sessionEnd, {}, {}, {{"endedAt", QEVRDate{15}}}, 99}},
       QEVRDate{20}, QEVRDate{15}, -5.0},  // not clamped
  };
  for (const Case& c : cases) {
    const QEVSessionGraph graph = buildFrom(c.events);
    EXPECT_EQ(graph.startedAt, c.startedAt);
    EXPECT_EQ(graph.endedAt, c.endedAt);
    EXPECT_EQ(graph.duration, c.duration);
  }
}

TEST(SessionGraphBuilderTest, NavigationEdgesTakeToAndFromOnlyFromTheirOwnEvent) {
  const QEVSessionGraph graph = buildFrom({
      {Type::navigation, "Cart", {}, {{"to", "Pay"}, {"from", "Cart"}}},
      {Type::navigation, "Pay", {}, {{"from", "Cart"}}},          // to from screenName
      {Type::navigation, "Pay", {}, {{"to", 7}, {"from", true}}},  // wrong kinds ignored
      {Type::navigation, {}, {}, {{"from", "Cart"}}},              // nowhere to go
      {Type::screenView, "Home"},
      {Type::screenView, "Shop"},  // screen changes alone make no edge
  });
  EXPECT_EQ(graph.navigationEdges, (std::vector<Edge>{{std::nullopt, "Pay", 1}, {"Cart", "Pay", 2}}));
}

// An absent origin or screen sorts as the empty text, not before it; texts
// sort by code point, without case folding.
TEST(SessionGraphBuilderTest, EdgesSortByFromAsEmptyTextThenTo) {
  auto nav = [](std::optional<std::string> from, std::string to) {
    QEVMemoryMetadata metadata{{"to", std::move(to)}};
    if (from) metadata.emplace("from", std::move(*from));
    return EventSpec{Type::navigation, {}, {}, std::move(metadata)};
  };
  const QEVSessionGraph graph = buildFrom({nav("\u00e9", "a"), nav("z", "a"), nav("Z", "a"),
                                           nav(std::nullopt, "b"), nav("", "a"), nav("", "b"),
                                           nav(std::nullopt, "a"), nav("", "a")});
  EXPECT_EQ(graph.navigationEdges, (std::vector<Edge>{{std::nullopt, "a", 1},
                                                      {"", "a", 2},
                                                      {std::nullopt, "b", 1},
                                                      {"", "b", 1},
                                                      {"Z", "a", 1},
                                                      {"z", "a", 1},
                                                      {"\u00e9", "a", 1}}));
}

TEST(SessionGraphBuilderTest, ComponentsCountPerScreenAndSortByScreenThenId) {
  const QEVSessionGraph graph = buildFrom({
      {Type::buttonTap, "Shop", "buy"},
      {Type::buttonTap, "Home", "buy"},
      {Type::gesture, "Home", "buy", {{"kind", "swipe"}}},
      {Type::gesture, "Home", "buy", {{"kind", "pinch"}}},
      {Type::buttonTap, {}, "buy"},
      {Type::buttonTap, {}, "zoom"},
      {Type::buttonTap, "", "add"},
      {Type::buttonTap, "\u00c5", "a"},
  });
  EXPECT_EQ(graph.componentInteractions, (std::vector<Summary>{{"add", "", 1, 0},
                                                               {"buy", std::nullopt, 1, 0},
                                                               {"zoom", std::nullopt, 1, 0},
                                                               {"buy", "Home", 1, 2},
                                                               {"buy", "Shop", 1, 0},
                                                               {"a", "\u00c5", 1, 0}}));
}

TEST(SessionGraphBuilderTest, BuildLeavesTheBuilderAsItIs) {
  QEVSessionGraphBuilder builder;
  builder.ingest(make({Type::buttonTap, "Home", "x"}));
  const QEVSessionGraph first = builder.build();
  EXPECT_EQ(builder.build(), first);
  builder.ingest(make({Type::buttonTap, "Home", "x"}));
  EXPECT_EQ(builder.build().componentInteractions, (std::vector<Summary>{{"x", "Home", 2, 0}}));
}

TEST(SessionGraphBuilderTest, ConcurrentIngestLosesNothing) {
  QEVSessionGraphBuilder builder;
  constexpr int kThreads = 4, kEventsPerThread = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&builder, t] {
      const std::string screen = "S" + std::to_string(t);
      for (int i = 0; i < kEventsPerThread; ++i) {
        builder.ingest(make({Type::buttonTap, screen, "x"}));
        if (i % 100 == 0) builder.build();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const QEVSessionGraph graph = builder.build();
  EXPECT_EQ(graph.eventCount, kThreads * kEventsPerThread);
  ASSERT_EQ(graph.componentInteractions.size(), static_cast<std::size_t>(kThreads));
  for (const Summary& summary : graph.componentInteractions) {
    EXPECT_EQ(summary.tapCount, kEventsPerThread);
  }
}

TEST(SessionGraphJsonTest, RoundTripsAndOmitsAbsentKeys) {
  QEVSessionGraph graph = buildFrom({
      {Type::sessionStart, {}, {}, {}, 100, QEVRUUID::random()},
      {Type::screenView, "A/B"},
      {Type::navigation, {}, {}, {{"to", "B"}}},
      {Type::buttonTap, {}, "x"},
      {Type::custom, {}, {}, {{"name", "n"}}},
      {Type::sessionEnd, {}, {}, {}, 160.5},
  });
  const std::string json = graph.toJSON();
  EXPECT_NE(json.find(R"("screenSequence":["A\/B"])"), std::string::npos) << json;
  EXPECT_NE(json.find(R"("startedAt":"2001-01-01T00:01:40Z")"), std::string::npos) << json;
  EXPECT_NE(json.find(R"("duration":60.5)"), std::string::npos) << json;
  EXPECT_NE(json.find(R"({"to":"B","count":1})"), std::string::npos) << json;
  EXPECT_NE(json.find(R"({"componentId":"x","tapCount":1,"gestureCount":0})"), std::string::npos)
      << json;
  const QEVSessionGraph read = QEVSessionGraph::fromJSON(json);
  graph.endedAt = QEVRDate{160};  // whole seconds on disk
  EXPECT_EQ(read, graph);

  const std::string empty = QEVSessionGraph{}.toJSON();
  EXPECT_EQ(empty,
            R"({"eventCount":0,"screenSequence":[],"navigationEdges":[],)"
            R"("componentInteractions":[],"customEventCounts":{}})");
  EXPECT_EQ(QEVSessionGraph::fromJSON(
                R"({"sessionId":null,"duration":null,"eventCount":0,"screenSequence":[],)"
                R"("navigationEdges":[{"from":null,"to":"x","count":1}],)"
                R"("componentInteractions":[],"customEventCounts":{},"extra":1})")
                .navigationEdges,
            (std::vector<Edge>{{std::nullopt, "x", 1}}));
  for (const char* key : {"eventCount", "screenSequence", "navigationEdges",
                          "componentInteractions", "customEventCounts"}) {
    qevr::json::Value root = qevr::json::parse(empty);
    std::erase_if(root.object(), [key](const qevr::json::Member& m) { return m.key == key; });
    EXPECT_THROW(QEVSessionGraph::fromJSON(qevr::json::serialize(root)), qevr::json::DecodingError)
        << key;
  }
  graph.duration = std::numeric_limits<double>::infinity();
  EXPECT_THROW(graph.toJSON(), qevr::json::EncodingError);
}

}  // namespace
