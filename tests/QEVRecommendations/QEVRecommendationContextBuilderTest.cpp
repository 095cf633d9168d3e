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

class QEVRecommendationContextBuilderTest : public ::testing::Test {
 protected:
  // A build over `sources` at `now`, with frustration asked for.
  QEVRecommendationContext build(std::optional<QEVExperienceDomain> domain = std::nullopt,
                                 std::optional<double> maxAge = std::nullopt,
                                 bool includeFrustration = true, QEVRDate now = kGeneratedAt,
                                 std::stop_token stop = {}) {
    return QEVRecommendationContextBuilder(sources, sources, [now] { return now; })
        .build(domain, maxAge, includeFrustration, std::move(stop));
  }

  std::shared_ptr<CountingSources> sources = std::make_shared<CountingSources>(allValues());
};

TEST_F(QEVRecommendationContextBuilderTest, FailingSourcesLeaveHoles) {
  sources->summaryMode = sources->intentMode = sources->frustrationMode = sources->skillMode =
      sources->snapshotMode = Mode::fail;
  EXPECT_EQ(build(QEVExperienceDomain::game()),
            (QEVRecommendationContext{.domain = QEVExperienceDomain::game(),
                                      .generatedAt = kGeneratedAt}));
  EXPECT_EQ(sources->analysisCalls, 4);
  EXPECT_EQ(sources->snapshotCalls, 1);
}

TEST_F(QEVRecommendationContextBuilderTest, RedactsEveryAnalysis) {
  const QEVRecommendationContext context = build();
  ASSERT_TRUE(context.behaviorSummary && context.intentAnalysis && context.frustrationAnalysis &&
              context.skillAnalysis);
  EXPECT_EQ(context.behaviorSummary->summary, "mail me: [redacted]");
  EXPECT_EQ(context.behaviorSummary->dominantScreens, Strings{"Home"});
  EXPECT_EQ(context.intentAnalysis->evidence,
            (Strings{"token=[redacted], rest", "call [redacted]"}));
  EXPECT_EQ(context.frustrationAnalysis->signals, Strings{"Cookie=[redacted]"});
  EXPECT_EQ(context.skillAnalysis->recommendedDifficultyAdjustment, "password=[redacted]");
  EXPECT_EQ(context.userGraphSummary,
            "total sessions: 2; total events: 40; average session duration: unknown; "
            "frequent screens: Home: 5");
  EXPECT_EQ(context.recentSessionSummary, "");
  EXPECT_EQ(context.domain, std::nullopt);

  // A lone address redacts to the marker and stays.
  auto lone = allValues();
  lone.behaviorSummary->summary = "x@y.io";
  sources = std::make_shared<CountingSources>(lone);
  EXPECT_EQ(build().behaviorSummary->summary, "[redacted]");
}

TEST_F(QEVRecommendationContextBuilderTest, CancellationEndsTheBuild) {
  std::stop_source stop;
  stop.request_stop();
  EXPECT_THROW(build(std::nullopt, std::nullopt, true, kGeneratedAt, stop.get_token()),
               QEVRCancellationError);
  EXPECT_EQ(sources->analysisCalls + sources->snapshotCalls, 0);
  sources->skillMode = Mode::cancel;
  EXPECT_THROW(build(), QEVRCancellationError);
}

TEST_F(QEVRecommendationContextBuilderTest, FrustrationCanBeLeftOut) {
  const auto context = build(std::nullopt, std::nullopt, false);
  EXPECT_EQ(sources->frustrationCalls, 0);
  EXPECT_FALSE(context.frustrationAnalysis.has_value());
  EXPECT_TRUE(context.intentAnalysis.has_value());
}

TEST_F(QEVRecommendationContextBuilderTest, MaximumAgeKeepsTheBoundary) {
  const std::pair<double, bool> cases[] = {{60.0, true}, {60.5, false}, {-10.0, true}};
  for (const auto& [age, kept] : cases) {
    SCOPED_TRACE(age);
    const auto context = build(std::nullopt, 60.0, true, kGeneratedAt.addingSeconds(age));
    EXPECT_EQ(context.intentAnalysis.has_value(), kept);
    EXPECT_EQ(context.skillAnalysis.has_value(), kept);
    EXPECT_FALSE(context.userGraphSummary.empty());  // the snapshot is not aged
  }
}

TEST_F(QEVRecommendationContextBuilderTest, TopItemsFragment) {
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

TEST_F(QEVRecommendationContextBuilderTest, Summaries) {
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

TEST_F(QEVRecommendationContextBuilderTest, ContextRoundTripsThroughJSON) {
  const auto context = build(QEVExperienceDomain::custom("x"));
  qevr::json::Writer writer;
  context.encode(writer);
  const qevr::json::Value root = qevr::json::parse(writer.take());
  EXPECT_EQ(QEVRecommendationContext::decode(qevr::json::Decoder(root)), context);
}

}  // namespace
