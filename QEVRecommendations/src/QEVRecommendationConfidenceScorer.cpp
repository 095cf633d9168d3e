#include <QEVRecommendations/QEVRecommendationConfidenceScorer.h>

#include <algorithm>
#include <cmath>

namespace {

double unitValue(double value) {
  if (!std::isfinite(value) || value <= 0.0) return 0.0;
  return std::min(value, 1.0);
}

double recencyTerm(const std::optional<double>& ageSeconds) {
  // Written as the products they are, so the constants carry the rounding
  // of the double multiplication (0.1 * 0.8 is 0.08000000000000002).
  if (!ageSeconds) return 0.1 * 0.5;
  const double age = *ageSeconds;
  if (std::isnan(age) || age < 0.0 || age <= 3600.0) return 0.1 * 1.0;
  if (age <= 86400.0) return 0.1 * 0.8;
  if (age <= 604800.0) return 0.1 * 0.45;
  return 0.1 * 0.2;
}

double riskPenalty(QEVRecommendationRiskLevel risk) {
  switch (risk) {
    case QEVRecommendationRiskLevel::none:
      return 0.0;
    case QEVRecommendationRiskLevel::low:
      return 0.1;
    case QEVRecommendationRiskLevel::medium:
      return 0.25;
    case QEVRecommendationRiskLevel::high:
      return 0.4;
  }
  return 0.0;
}

}  // namespace

QEVRecommendationConfidenceScore QEVRecommendationConfidenceScorer::score(
    const QEVRecommendationConfidenceInput& input) const {
  const double quality = unitValue(input.evidenceQuality);
  const double analysis = unitValue(input.analysisConfidence);
  const double pattern = unitValue(input.patternStrength);
  const double countScore =
      std::min(static_cast<double>(std::max<std::int64_t>(input.evidenceCount, 0)) / 5.0, 1.0);

  // One operation per statement: the order of the additions is part of the
  // result, and -ffp-contract=off keeps each product rounded on its own.
  double raw = 0.2 * countScore;
  raw = raw + 0.1;
  raw = raw + 0.25 * quality;
  raw = raw + 0.25 * analysis;
  raw = raw + recencyTerm(input.evidenceAge);
  raw = raw + 0.1 * pattern;
  raw = raw - riskPenalty(input.riskLevel);

  double capped = (!std::isfinite(raw) || raw <= 0.0) ? 0.0 : std::min(raw, 1.0);
  if (input.evidenceCount <= 0) {
    capped = std::min(capped, 0.25);
  } else if (input.evidenceCount == 1 || quality < 0.3) {
    capped = std::min(capped, 0.45);
  } else if (input.evidenceCount == 2) {
    capped = std::min(capped, 0.65);
  }

  QEVRecommendationPriority priority = QEVRecommendationPriority::low;
  if (capped >= 0.85) {
    priority = QEVRecommendationPriority::critical;
  } else if (capped >= 0.7) {
    priority = QEVRecommendationPriority::high;
  } else if (capped >= 0.45) {
    priority = QEVRecommendationPriority::medium;
  }
  // std::round rounds halves away from zero, on the exact product.
  return {priority, std::round(capped * 1000.0) / 1000.0};
}
