#include <QEVRecommendations/QEVRecommendationConfidenceScorer.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

using P = QEVRecommendationPriority;
using R = QEVRecommendationRiskLevel;

TEST(QEVRecommendationConfidenceScorerTest, Examples) {
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const struct {
    const char* name;
    QEVRecommendationConfidenceInput input;
    P priority;
    double confidence;
  } cases[] = {
      {"everything at maximum", {5, 1, 1, 0.0, 1, R::none}, P::critical, 1.0},
      {"one observation", {1, 1, 1, 0.0, 1, R::none}, P::medium, 0.45},
      {"no observation", {0, 1, 1, 0.0, 1, R::none}, P::low, 0.25},
      {"negative count", {-4, 1, 1, 0.0, 1, R::none}, P::low, 0.25},
      {"two observations", {2, 0.5, 1, 0.0, 1, R::none}, P::medium, 0.65},
      {"low quality", {10, 0.29, 1, 0.0, 1, R::none}, P::medium, 0.45},
      {"infinite quality counts as zero", {10, inf, 1, 0.0, 1, R::none}, P::medium, 0.45},
      // 0.6925 is 0.69249999... as a double: it rounds down.
      {"half-way below", {3, 0.55, 0.7, 0.0, 0.6, R::none}, P::medium, 0.692},
      {"penalty beyond the sum", {5, 0, 0, 0.0, 0, R::high}, P::low, 0.0},
      {"absent age", {5, 1, 1, std::nullopt, 1, R::none}, P::critical, 0.95},
      {"age one hour", {5, 1, 1, 3600.0, 1, R::none}, P::critical, 1.0},
      {"age just over an hour", {5, 1, 1, 3600.5, 1, R::none}, P::critical, 0.98},
      {"age one day", {5, 1, 1, 86400.0, 1, R::none}, P::critical, 0.98},
      {"age one week", {5, 1, 1, 604800.0, 1, R::none}, P::critical, 0.945},
      {"older", {5, 1, 1, 604801.0, 1, R::none}, P::critical, 0.92},
      {"negative age", {5, 1, 1, -5.0, 1, R::none}, P::critical, 1.0},
      {"NaN age", {5, 1, 1, nan, 1, R::none}, P::critical, 1.0},
      {"NaN analysis", {5, 1, nan, 0.0, 1, R::none}, P::high, 0.75},
      {"help at medium frustration", {3, 0.75, 0.7, 0.0, 0.65, R::low}, P::medium, 0.648},
      {"reorder with count 3", {3, 0.85, 0.6, 0.0, 0.3, R::low}, P::medium, 0.613},
      // Raw 0.84995: the confidence rounds to 0.85, the priority is taken
      // from the score before rounding.
      {"just under the critical band", {5, 1, 1, 0.0, 0.4995, R::low}, P::high, 0.85},
  };
  const QEVRecommendationConfidenceScorer scorer;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const QEVRecommendationConfidenceScore score = scorer.score(c.input);
    EXPECT_EQ(score.priority, c.priority);
    EXPECT_EQ(score.confidence, c.confidence);
  }
}

}  // namespace
