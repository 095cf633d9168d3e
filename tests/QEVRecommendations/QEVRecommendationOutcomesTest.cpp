#include <QEVRPlatform/Json.h>
#include <QEVRecommendations/QEVRecommendationOutcomes.h>

#include "RecommendationTestSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace qevr::testing;
using A = QEVRecommendationAction;
using E = QEVRecommendationEffect;
using T = QEVRecommendationType;
constexpr double kDay = 86400;

QEVRecommendation typed(A action, T type) {
  return recommendation(std::move(action), 0.8, QEVRecommendationPriority::high, type);
}

TEST(QEVRecommendationOutcomesTest, KeysFollowTheAdviceNotItsIdOrAmount) {
  struct Case {
    QEVRecommendation a, b;
    bool same;
  };
  const Case cases[] = {
      {typed(A::reorderComponent("Apply Coupon", "Cart", 0), T::ui),
       typed(A::reorderComponent(" apply_coupon ", "CART", 3), T::ui), true},
      {typed(A::adjustDifficulty(-1, "x", std::nullopt), T::gameplay),
       typed(A::adjustDifficulty(-3, "y", std::nullopt), T::gameplay), true},
      {typed(A::adjustDifficulty(-1, "x", std::nullopt), T::gameplay),
       typed(A::adjustDifficulty(1, "x", std::nullopt), T::gameplay), false},
      {typed(A::adjustDifficulty(-1, "x", "Ranked"), T::gameplay),
       typed(A::adjustDifficulty(-1, "x", "Casual"), T::gameplay), false},
      {typed(A::showHelp("cart", std::nullopt, std::nullopt), T::ui),
       typed(A::showHelp(std::nullopt, "cart", std::nullopt), T::ui), false},
      {typed(A::highlightComponent("cart", std::nullopt), T::ui),
       typed(A::highlightComponent("cart", std::nullopt), T::personalization), false},
      {typed(A::custom({{"a", "1"}, {"b", "2"}}), T::ui),
       typed(A::custom({{"B", "2"}, {"A", "1"}}), T::ui), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(recommendationOutcomeKey(c.a) + " vs " + recommendationOutcomeKey(c.b));
    EXPECT_EQ(recommendationOutcomeKey(c.a) == recommendationOutcomeKey(c.b), c.same);
  }
  EXPECT_EQ(recommendationOutcomeKey(cases[1].a), "gameplay/adjustDifficulty/decrease");
}

TEST(QEVRecommendationOutcomesTest, LogCountsTrimsAndRoundTrips) {
  QEVRecommendationOutcomeLog log;
  const QEVRecommendation help = typed(A::showHelp("cart", std::nullopt, "Cart"), T::ui);
  const QEVRDate t0 = kGeneratedAt;
  log.record(help, QEVRecommendationOutcome::shown, t0);
  log.record(help, QEVRecommendationOutcome::applied, t0.addingSeconds(20));
  log.record(help, QEVRecommendationOutcome::applied, t0.addingSeconds(10));
  for (int i = 0; i < 10; ++i)
    log.record(help, QEVRecommendationOutcome::dismissed, t0.addingSeconds(100 - i));
  ASSERT_EQ(log.histories().size(), 1u);
  const QEVRecommendationOutcomeHistory& h = log.histories()[0];
  EXPECT_EQ(h.shownCount, 1);
  EXPECT_EQ(h.appliedCount, 2);
  EXPECT_EQ(h.dismissedCount, 10);
  EXPECT_EQ(h.firstAppliedAt, t0.addingSeconds(10));
  // The latest eight dismissals, oldest first.
  ASSERT_EQ(h.dismissedAt.size(), QEVRecommendationOutcomeHistory::kKeptDismissals);
  EXPECT_EQ(h.dismissedAt.front(), t0.addingSeconds(93));
  EXPECT_EQ(h.dismissedAt.back(), t0.addingSeconds(100));
  EXPECT_EQ(QEVRecommendationOutcomeLog::fromJSON(log.toJSON()).histories(), log.histories());
  const std::string firstKey = h.key;

  // Past the entry limit the least recently recorded go; past a year, all.
  for (std::size_t i = 0; i < QEVRecommendationOutcomeLog::kMaxEntries; ++i) {
    log.record(
        typed(A::suggestFeature("f" + std::to_string(i), std::nullopt, std::nullopt), T::feature),
        QEVRecommendationOutcome::shown, t0.addingSeconds(200 + static_cast<double>(i)));
  }
  log.trim(t0.addingSeconds(1000));
  EXPECT_EQ(log.histories().size(), QEVRecommendationOutcomeLog::kMaxEntries);
  EXPECT_EQ(log.find(firstKey), nullptr);
  log.trim(t0.addingSeconds(367 * kDay));
  EXPECT_TRUE(log.histories().empty());
}

TEST(QEVRecommendationOutcomesTest, HostileLogsAreRefused) {
  const std::string entry =
      R"({"key":"k","type":"ui","title":"t","action":{"kind":"showHelp","componentId":"c"},)"
      R"("shown":1,"applied":0,"dismissed":0,"firstRecordedAt":1,"lastRecordedAt":2,)"
      R"("dismissedAt":[]})";
  const std::string many = [] {
    std::string s = "[";
    for (int i = 0; i < 9; ++i)
      s += i ? ",1" : "1";
    return s + "]";
  }();
  const std::string cases[] = {
      "",
      "[]",
      R"({"format":"qevr-outcomes/2","histories":[]})",
      R"({"format":"qevr-outcomes/1"})",
      R"({"format":"qevr-outcomes/1","histories":[)" + entry + "," + entry + "]}",
      R"({"format":"qevr-outcomes/1","histories":[)" +
          std::string(entry).replace(entry.find("\"shown\":1"), 9, "\"shown\":-1") + "]}",
      R"({"format":"qevr-outcomes/1","histories":[)" +
          std::string(entry).replace(entry.find("\"ui\""), 4, "\"ux\"") + "]}",
      R"({"format":"qevr-outcomes/1","histories":[)" +
          std::string(entry).replace(entry.find("[]"), 2, many) + "]}",
  };
  for (const std::string& json : cases) {
    SCOPED_TRACE(json);
    EXPECT_THROW(QEVRecommendationOutcomeLog::fromJSON(json), qevr::json::DecodingError);
  }
  EXPECT_NO_THROW(QEVRecommendationOutcomeLog::fromJSON(
      R"({"format":"qevr-outcomes/1","histories":[)" + entry + "]}"));
}

// A dated session with `failures` failed levels, `taps` on "cart" and the
// given screens.
QEVSessionGraph session(double day, std::int64_t failures, std::int64_t taps = 0,
                        std::vector<std::string> screens = {}) {
  QEVSessionGraph graph;
  graph.startedAt = kGeneratedAt.addingSeconds(day * kDay);
  graph.endedAt = graph.startedAt->addingSeconds(600);
  graph.customEventCounts = {{"level_started", 3}, {"Level Failed", failures}};
  if (taps > 0) graph.componentInteractions = {{"cart", "Cart", taps, 0}};
  graph.screenSequence = std::move(screens);
  return graph;
}

std::vector<QEVSessionGraph> sessions(std::vector<std::int64_t> before,
                                      std::vector<std::int64_t> after, bool asTaps = false) {
  std::vector<QEVSessionGraph> graphs;
  double day = 0;
  for (auto values : {before, after}) {
    for (std::int64_t v : values)
      graphs.push_back(asTaps ? session(day++, 0, v) : session(day++, v));
    day = 100;
  }
  return graphs;
}

QEVRecommendationOutcomeHistory applied(A action, T type = T::gameplay) {
  QEVRecommendationOutcomeHistory history;
  history.type = type;
  history.action = std::move(action);
  history.firstAppliedAt = kGeneratedAt.addingSeconds(50 * kDay);
  return history;
}

// Four sessions without the feature and three screens before "Inbox", then
// four with it and straight to "Inbox".
std::vector<QEVSessionGraph> featureAndShortcutSessions() {
  std::vector<QEVSessionGraph> graphs;
  for (int i = 0; i < 8; ++i) {
    const bool after = i >= 4;
    QEVSessionGraph g = session(after ? 60 + i : i, 0);
    if (after) g.customEventCounts["challenge_mode_started"] = 1;
    g.screenSequence = after ? std::vector<std::string>{"Home", "Inbox"}
                             : std::vector<std::string>{"Home", "A", "B", "C", "Inbox"};
    graphs.push_back(g);
  }
  return graphs;
}

// Three sessions each side, plus one across the application and one
// without dates, both full of failures.
std::vector<QEVSessionGraph> withStrays() {
  std::vector<QEVSessionGraph> graphs = sessions({6, 6, 6}, {1, 1, 1});
  QEVSessionGraph across = session(49.9, 50);
  across.endedAt = kGeneratedAt.addingSeconds(50.1 * kDay);
  QEVSessionGraph undated = session(0, 50);
  undated.startedAt.reset();
  undated.endedAt.reset();
  graphs.push_back(across);
  graphs.push_back(undated);
  return graphs;
}

TEST(QEVRecommendationOutcomesTest, EffectsCompareTheSessionsAroundTheApplication) {
  using S = QEVRecommendationSignal;
  const A lower = A::adjustDifficulty(-1, std::nullopt, std::nullopt);
  const A help = A::showHelp("Cart", std::nullopt, std::nullopt);
  struct Case {
    const char* name;
    A action;
    std::vector<QEVSessionGraph> graphs;
    std::optional<E> effect;
    double before, after;
    S signal = S::failuresAndRetries;
  };
  const Case cases[] = {
      {"fewer failures", lower, sessions({6, 7, 5, 6}, {2, 1, 2}), E::improved, 6, 5.0 / 3},
      {"more failures", lower, sessions({2, 1, 2, 2}, {6, 7, 5}), E::worse, 1.75, 6},
      {"noise", lower, sessions({6, 2, 9, 4}, {3, 8, 5}), E::unchanged, 5.25, 16.0 / 3},
      {"two after", lower, sessions({6, 7, 5, 6}, {0, 0}), E::tooEarly, 6, 0},
      {"tiny figures", lower, sessions({0, 0, 1, 0}, {0, 0, 0}), E::unchanged, 0.25, 0},
      {"across the application or undated: left out", lower, withStrays(), E::improved, 6, 1},
      {"repeated taps", help, sessions({9, 8, 10}, {1, 2, 1}, true), E::improved, 8, 1.0 / 3,
       S::repeatedInteractions},
      {"feature use", A::suggestFeature("Challenge Mode", std::nullopt, std::nullopt),
       featureAndShortcutSessions(), E::improved, 0, 1, S::featureUse},
      {"steps to the destination",
       A::suggestShortcut(std::nullopt, std::nullopt, "Home", "inbox", "s"),
       featureAndShortcutSessions(), E::improved, 4, 1, S::destinationSteps},
      {"hiding has no figure", A::hideComponent("cart", std::nullopt), sessions({1}, {1}),
       std::nullopt, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto measured = measureRecommendationEffect(applied(c.action), c.graphs);
    ASSERT_EQ(measured.has_value(), c.effect.has_value());
    if (!measured) continue;
    EXPECT_EQ(measured->effect, *c.effect);
    EXPECT_EQ(measured->signal, c.signal);
    EXPECT_DOUBLE_EQ(measured->before, c.before);
    EXPECT_DOUBLE_EQ(measured->after, c.after);
  }
  // Not applied: nothing to measure.
  QEVRecommendationOutcomeHistory shownOnly = applied(lower);
  shownOnly.firstAppliedAt.reset();
  EXPECT_FALSE(measureRecommendationEffect(shownOnly, sessions({1, 1, 1}, {1, 1, 1})));
}

TEST(QEVRecommendationOutcomesTest, HoldingBack) {
  const QEVRDate now = kGeneratedAt.addingSeconds(100 * kDay);
  auto history = [&](std::vector<double> dismissedDaysAgo, std::optional<E> effect) {
    QEVRecommendationOutcomeHistory h;
    for (double d : dismissedDaysAgo)
      h.dismissedAt.push_back(now.addingSeconds(-d * kDay));
    if (effect) {
      h.firstAppliedAt = now.addingSeconds(-kDay);
      h.effect = QEVRecommendationEffectMeasurement{.effect = *effect};
    }
    return h;
  };
  struct Case {
    QEVRecommendationOutcomeHistory h;
    bool heldBack;
  };
  const Case cases[] = {
      {history({}, std::nullopt), false},       {history({1}, std::nullopt), false},
      {history({29.9, 5}, std::nullopt), true}, {history({40, 30}, std::nullopt), false},
      {history({}, E::tooEarly), true},         {history({}, E::improved), true},
      {history({}, E::unchanged), true},        {history({}, E::worse), false},
      {history({3, 2}, E::worse), true},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(isHeldBackByOutcomes(cases[i].h, now), cases[i].heldBack);
  }
}

}  // namespace
