#include <QEVMemory/QEVUserGraph.h>
#include <QEVRPlatform/Json.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace {

using Counts = std::unordered_map<std::string, std::int64_t>;

const QEVRUUID kUserId = QEVRUUID::parse("9F8E7D6C-5B4A-4392-8170-6F5E4D3C2B1A").value();
constexpr QEVRDate kCreatedAt{1000};

QEVSessionGraph session(std::optional<double> startedAt, std::optional<double> endedAt) {
  QEVSessionGraph graph;
  if (startedAt) graph.startedAt = QEVRDate{*startedAt};
  if (endedAt) graph.endedAt = QEVRDate{*endedAt};
  if (startedAt && endedAt) graph.duration = *endedAt - *startedAt;
  return graph;
}

TEST(UserGraphBuilderTest, StartsEmptyAndCountsAddUpAcrossSessions) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  QEVUserGraphBuilder builder(kUserId, kCreatedAt);
  EXPECT_EQ(builder.build(),
            (QEVUserGraph{.userId = kUserId, .createdAt = kCreatedAt, .updatedAt = kCreatedAt}));
  builder.merge(
      {.eventCount = 9,
       .screenSequence = {"Home", "Shop", "Home", "Home"},
       .componentInteractions = {{"buy", "Shop", 2, 3}, {"buy", "Home", 1, 0}, {"zoom", {}, 0, 4}},
       .customEventCounts = {{"jump", 2}}});
  builder.merge({.eventCount = 3,
                 .screenSequence = {"Shop"},
                 .componentInteractions = {{"buy", std::nullopt, 1, 1}},
                 .customEventCounts = {{"jump", 5}, {"duck", 1}}});
  builder.merge(QEVSessionGraph{});
  const QEVUserGraph graph = builder.build();
  EXPECT_EQ(graph.totalSessions, 3);
  EXPECT_EQ(graph.totalEvents, 12);
  EXPECT_EQ(graph.frequentlyVisitedScreens, (Counts{{"Home", 3}, {"Shop", 2}}));
  EXPECT_EQ(graph.frequentComponents, (Counts{{"buy", 8}, {"zoom", 4}}));
  EXPECT_EQ(graph.frequentCustomEvents, (Counts{{"jump", 7}, {"duck", 1}}));

  // Sums saturate instead of overflowing.
  const QEVSessionGraph huge{.eventCount = kMax, .componentInteractions = {{"x", {}, kMax, 1}}};
  builder.merge(huge);
  builder.merge(huge);
  EXPECT_EQ(builder.build().totalEvents, kMax);
  EXPECT_EQ(builder.build().frequentComponents.at("x"), kMax);
}

// The average counts only sessions with a duration; last seen and updated
// only move forward, and every session counts however old.
TEST(UserGraphBuilderTest, AverageLastSeenAndUpdated) {
  struct Case {
    const char* name;
    std::vector<QEVSessionGraph> sessions;
    std::optional<double> average;
    std::optional<QEVRDate> lastSeenAt;
    QEVRDate updatedAt;
  };
  const std::optional<double> none;
  const auto row = [](const char* name, std::vector<QEVSessionGraph> sessions,
                      std::optional<double> average, std::optional<double> lastSeenAt,
                      double updatedAt) {
    std::optional<QEVRDate> lastSeen;
    if (lastSeenAt) lastSeen = QEVRDate{*lastSeenAt};
    return Case{name, std::move(sessions), average, lastSeen, QEVRDate{updatedAt}};
  };
  const Case cases[] = {
      row("one undated of three", {session(0, 10), session(100, 120), session(5, none)}, 15, 120,
          1000),
      row("ended wins over started", {session(1500, 1800)}, 300, 1800, 1800),
      row("started when not ended", {session(1500, none)}, none, 1500, 1500),
      row("no dates", {session(none, none)}, none, none, 1000),
      row("negative duration counts", {session(50, 40), session(0, 30)}, 10, 40, 1000),
      row("older session later", {session(1500, 2000), session(1100, 1200)}, 300, 2000, 2000),
      row("before creation", {session(100, 200)}, 100, 200, 1000),
      row("before creation, then older", {session(100, 200), session(none, 150)}, 100, 200, 1000),
      row("undated after dated", {session(1500, 1600), session(none, none)}, 100, 1600, 1600),
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    QEVUserGraphBuilder builder(kUserId, kCreatedAt);
    for (const QEVSessionGraph& s : c.sessions)
      builder.merge(s);
    const QEVUserGraph graph = builder.build();
    EXPECT_EQ(graph.averageSessionDuration, c.average);
    EXPECT_EQ(graph.lastSeenAt, c.lastSeenAt);
    EXPECT_EQ(graph.updatedAt, c.updatedAt);
  }
}

// A builder that carries on from an earlier graph: same identity, totals
// added to, the earlier average weighted by its sessions.
TEST(UserGraphBuilderTest, CarryingOnAddsToTheEarlierGraph) {
  struct Case {
    const char* name;
    std::int64_t earlierSessions;
    std::optional<double> earlierAverage;
    std::optional<QEVSessionGraph> next;
    std::int64_t totalSessions;
    std::optional<double> average;
  };
  const Case cases[] = {
      {"nothing merged", 4, 12.5, std::nullopt, 4, 12.5},
      {"weighted average", 4, 10.0, session(1500, 1520), 5, 12.0},
      {"no earlier average", 2, std::nullopt, session(1500, 1530), 3, 30.0},
      {"undated session", 2, 10.0, session(std::nullopt, std::nullopt), 3, 10.0},
      {"negative total", -3, 5.0, session(1500, 1510), 1, 10.0},
      {"average past double", 10, 1e308, session(1500, 1510), 11, 10.0},
  };
  for (const Case& c : cases) {
    const QEVUserGraph earlier{.userId = kUserId,
                               .createdAt = kCreatedAt,
                               .updatedAt = QEVRDate{1400},
                               .totalSessions = c.earlierSessions,
                               .totalEvents = 30,
                               .frequentlyVisitedScreens = {{"Home", 4}},
                               .averageSessionDuration = c.earlierAverage,
                               .lastSeenAt = QEVRDate{1400}};
    QEVUserGraphBuilder builder(earlier);
    QEVUserGraph expected = earlier;
    if (c.next) {
      QEVSessionGraph next = *c.next;
      next.eventCount = 2;
      next.screenSequence = {"Home", "Shop"};
      builder.merge(next);
      expected.totalEvents = 32;
      expected.frequentlyVisitedScreens = {{"Home", 5}, {"Shop", 1}};
      if (next.endedAt) {
        expected.updatedAt = *next.endedAt;
        expected.lastSeenAt = next.endedAt;
      }
    }
    expected.totalSessions = c.totalSessions;
    expected.averageSessionDuration = c.average;
    EXPECT_EQ(builder.build(), expected) << c.name;
  }
}

TEST(UserGraphJsonTest, PinnedFormRoundTripsAndOmitsAbsentKeys) {
  QEVUserGraphBuilder builder(kUserId, kCreatedAt);
  QEVSessionGraph s = session(1500, 1510.5);
  s.screenSequence = {"a/b"};
  builder.merge(s);
  QEVUserGraph graph = builder.build();
  const std::string json = graph.toJSON();
  EXPECT_EQ(json,
            R"({"userId":"9F8E7D6C-5B4A-4392-8170-6F5E4D3C2B1A","createdAt":)"
            R"("2001-01-01T00:16:40Z","updatedAt":"2001-01-01T00:25:10Z","totalSessions":1,)"
            R"("totalEvents":0,"frequentlyVisitedScreens":{"a\/b":1},"frequentComponents":{},)"
            R"("frequentCustomEvents":{},"averageSessionDuration":10.5,)"
            R"("lastSeenAt":"2001-01-01T00:25:10Z"})");
  graph.updatedAt = graph.updatedAt.addingSeconds(-0.5);  // whole seconds on disk
  graph.lastSeenAt = graph.updatedAt;
  EXPECT_EQ(QEVUserGraph::fromJSON(json), graph);

  const std::string empty = QEVUserGraphBuilder(kUserId, kCreatedAt).build().toJSON();
  EXPECT_THAT(empty, ::testing::Not(::testing::ContainsRegex("averageSessionDuration|lastSeenAt")));
  const qevr::json::Value emptyRoot = qevr::json::parse(empty);
  for (const qevr::json::Member& member : emptyRoot.object()) {
    qevr::json::Value root = emptyRoot;
    std::erase_if(root.object(), [&](const qevr::json::Member& m) { return m.key == member.key; });
    EXPECT_THROW(QEVUserGraph::fromJSON(qevr::json::serialize(root)), qevr::json::DecodingError)
        << member.key;
  }
}

}  // namespace
