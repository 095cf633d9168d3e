#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Text.h>
#include <QEVRecommendations/QEVFixedRecommendationSources.h>
#include <QEVRecommendations/QEVRecommendationContextBuilder.h>

#include <gtest/gtest.h>

#include "RecommendationTestSupport.h"

namespace {

using namespace qevr::testing;
using Mode = CountingSources::Mode;

QEVFixedRecommendationSources::Values allValues() {
  return {
      QEVMemoryIntelligenceSnapshot{
          .totalSessions = 2, .totalEvents = 40, .frequentlyVisitedScreens = {{"Home", 5}}},
      QEVBehaviorSummary(" mail me: a.b@example.com ", {"Home", "  "}, {}, {}, 0.5, kGeneratedAt),
      intent(0.7, {"token: abc, rest", "call +1 (555) 123-4567"}),
      frustration(QEVFrustrationLevel::medium, 0.6, {"Cookie=xyz"}, {"c"}),
      QEVSkillAnalysis(QEVSkillLevel::advanced, {"e"}, "password: 1", 0.8, kGeneratedAt)};
}

QEVRecommendationContextBuilder builder(std::shared_ptr<CountingSources> sources,
                                        QEVRDate now = kGeneratedAt) {
  return QEVRecommendationContextBuilder(sources, sources, [now] { return now; });
}

TEST(QEVRecommendationContextBuilderTest, FailingSourcesLeaveHoles) {
  auto sources = std::make_shared<CountingSources>(allValues());
  sources->summaryMode = sources->intentMode = sources->frustrationMode = sources->skillMode =
      sources->snapshotMode = Mode::fail;
  const QEVRecommendationContext context =
      builder(sources).build(QEVExperienceDomain::game(), std::nullopt, true);
  EXPECT_EQ(context, (QEVRecommendationContext{.domain = QEVExperienceDomain::game(),
                                               .generatedAt = kGeneratedAt}));
  EXPECT_EQ(sources->analysisCalls, 4);
  EXPECT_EQ(sources->snapshotCalls, 1);
}

TEST(QEVRecommendationContextBuilderTest, RedactsEveryAnalysis) {
  auto sources = std::make_shared<CountingSources>(allValues());
  const QEVRecommendationContext context = builder(sources).build(std::nullopt, std::nullopt, true);
  ASSERT_TRUE(context.behaviorSummary && context.intentAnalysis && context.frustrationAnalysis &&
              context.skillAnalysis);
  EXPECT_EQ(context.behaviorSummary->summary, "mail me: [redacted]");
  EXPECT_EQ(context.behaviorSummary->dominantScreens, std::vector<std::string>{"Home"});
  EXPECT_EQ(context.intentAnalysis->evidence,
            (std::vector<std::string>{"token=[redacted], rest", "call [redacted]"}));
  EXPECT_EQ(context.frustrationAnalysis->signals, std::vector<std::string>{"Cookie=[redacted]"});
  EXPECT_EQ(context.skillAnalysis->recommendedDifficultyAdjustment, "password=[redacted]");
  EXPECT_EQ(context.userGraphSummary,
            "total sessions: 2; total events: 40; average session duration: unknown; "
            "frequent screens: Home: 5");
  EXPECT_EQ(context.recentSessionSummary, "");
  EXPECT_EQ(context.domain, std::nullopt);

  // A lone address redacts to the marker and stays.
  auto lone = allValues();
  lone.behaviorSummary->summary = "x@y.io";
  const auto redacted =
      builder(std::make_shared<CountingSources>(lone)).build(std::nullopt, std::nullopt, true);
  EXPECT_EQ(redacted.behaviorSummary->summary, "[redacted]");
}

TEST(QEVRecommendationContextBuilderTest, CancellationEndsTheBuild) {
  auto sources = std::make_shared<CountingSources>(allValues());
  sources->skillMode = Mode::cancel;
  EXPECT_THROW(builder(sources).build(std::nullopt, std::nullopt, true), QEVRCancellationError);

  auto untouched = std::make_shared<CountingSources>(allValues());
  std::stop_source stop;
  stop.request_stop();
  EXPECT_THROW(builder(untouched).build(std::nullopt, std::nullopt, true, stop.get_token()),
               QEVRCancellationError);
  EXPECT_EQ(untouched->analysisCalls + untouched->snapshotCalls, 0);
}

TEST(QEVRecommendationContextBuilderTest, FrustrationCanBeLeftOut) {
  auto sources = std::make_shared<CountingSources>(allValues());
  const auto context = builder(sources).build(std::nullopt, std::nullopt, false);
  EXPECT_EQ(sources->frustrationCalls, 0);
  EXPECT_FALSE(context.frustrationAnalysis.has_value());
  EXPECT_TRUE(context.intentAnalysis.has_value());
}

TEST(QEVRecommendationContextBuilderTest, MaximumAgeKeepsTheBoundary) {
  auto sources = std::make_shared<CountingSources>(allValues());
  const std::pair<double, bool> cases[] = {{60.0, true}, {60.5, false}, {-10.0, true}};
  for (const auto& [age, kept] : cases) {
    SCOPED_TRACE(age);
    const auto context =
        builder(sources, kGeneratedAt.addingSeconds(age)).build(std::nullopt, 60.0, true);
    EXPECT_EQ(context.intentAnalysis.has_value(), kept);
    EXPECT_EQ(context.skillAnalysis.has_value(), kept);
    EXPECT_FALSE(context.userGraphSummary.empty());  // the snapshot is not aged
  }
}

TEST(QEVRecommendationContextBuilderTest, TopItemsFragment) {
  // Each entry redacted on its own; the redaction rules are the redactor's test.
  EXPECT_EQ(topItemsFragment("t", {{"auth: xyz", 3}}), "t: auth=[redacted]: 3");
  EXPECT_EQ(topItemsFragment("t", {}), "");
  EXPECT_EQ(
      topItemsFragment("t", {{"g", 1}, {"f", 1}, {"e", 1}, {"d", 1}, {"c", 1}, {"b", 1}, {"a", 1}}),
      "t: a: 1, b: 1, c: 1, d: 1, e: 1");
  // An entry that redacts to nothing is dropped and no sixth moves up.
  EXPECT_EQ(topItemsFragment("t", {{"  ", 9}, {"b", 1}, {"c", 1}, {"d", 1}, {"e", 1}, {"f", 1}}),
            "t: b: 1, c: 1, d: 1, e: 1");
}

TEST(QEVRecommendationContextBuilderTest, Summaries) {
  QEVMemoryIntelligenceSnapshot snapshot;
  EXPECT_EQ(userGraphSummaryOf(snapshot),
            "total sessions: 0; total events: 0; average session duration: unknown");
  snapshot.averageSessionDuration = 125.9;
  EXPECT_EQ(userGraphSummaryOf(snapshot),
            "total sessions: 0; total events: 0; average session duration: 125 seconds");

  snapshot.recentScreenSequences = {"Home > Cart", "2026-11-17", "A", "B", "C"};
  snapshot.recentNavigationPatterns = {{"Home->Cart", 2}};
  EXPECT_EQ(recentSessionSummaryOf(snapshot),
            "recent navigation: Home->Cart: 2; Home > Cart; [redacted]; A");
  snapshot.recentScreenSequences = {" ", "Home", "Cart", "Pay", "Done"};
  snapshot.recentNavigationPatterns = {};
  EXPECT_EQ(recentSessionSummaryOf(snapshot), "Home; Cart; Pay");

  // Cut at 2000 characters, not bytes.
  snapshot.recentScreenSequences = {std::string(1999, 'a') + "\xC3\xA9\xC3\xA9"};
  const std::string cut = recentSessionSummaryOf(snapshot);
  EXPECT_EQ(qevr::text::graphemeCount(cut), 2000u);
  EXPECT_EQ(cut.substr(1999), "\xC3\xA9");
  snapshot.recentScreenSequences = {std::string(2000, 'a')};
  EXPECT_EQ(recentSessionSummaryOf(snapshot).size(), 2000u);
}

TEST(QEVRecommendationContextBuilderTest, ContextRoundTripsThroughJSON) {
  auto sources = std::make_shared<CountingSources>(allValues());
  const auto context = builder(sources).build(QEVExperienceDomain::custom("x"), std::nullopt, true);
  qevr::json::Writer writer;
  context.encode(writer);
  const qevr::json::Value root = qevr::json::parse(writer.take());
  EXPECT_EQ(QEVRecommendationContext::decode(qevr::json::Decoder(root)), context);
}

}  // namespace
