// Turns the evidence behind a rule into a recommendation's confidence and
// priority. The one place where that happens, so all engines agree.
#pragma once

#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendation.h>

#include <cstdint>
#include <optional>

// How intrusive a proposed change is; each level costs a fixed penalty
// (0.0, 0.1, 0.25, 0.4).
enum class QEVRecommendationRiskLevel { none, low, medium, high };

struct QEVR_API QEVRecommendationConfidenceInput {
  std::int64_t evidenceCount = 0;
  double evidenceQuality = 0;         // normally 0.0 to 1.0
  double analysisConfidence = 0;      // normally 0.0 to 1.0
  std::optional<double> evidenceAge;  // seconds; absent when unknown
  double patternStrength = 0;         // normally 0.0 to 1.0
  QEVRecommendationRiskLevel riskLevel = QEVRecommendationRiskLevel::none;
};

struct QEVR_API QEVRecommendationConfidenceScore {
  QEVRecommendationPriority priority = QEVRecommendationPriority::low;
  double confidence = 0;
  bool operator==(const QEVRecommendationConfidenceScore&) const = default;
};

// Stateless and pure; allocates nothing.
class QEVR_API QEVRecommendationConfidenceScorer {
 public:
  // The weighted sum of count, quality, analysis confidence, recency and
  // pattern strength, less the risk penalty, limited to 0..1 and capped by
  // how much evidence there is (one observation never exceeds 0.45). The
  // priority comes from the capped score; the confidence is that score
  // rounded to three decimals, halves away from zero. The sum is formed in
  // a fixed order so that every platform rounds it the same way.
  QEVRecommendationConfidenceScore score(const QEVRecommendationConfidenceInput& input) const;
};
