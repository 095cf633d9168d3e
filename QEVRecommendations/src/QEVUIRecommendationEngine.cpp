#include <QEVRecommendations/QEVUIRecommendationEngine.h>

#include "EngineSupport.h"

namespace qr = qevr::recommendations;
using qr::Counted;

namespace {

// Keys trimmed, blank keys dropped, counts kept; count descending, then key.
std::vector<Counted> rankedComponents(const qr::CountMap& map) {
  std::vector<Counted> ranked;
  for (const auto& [key, count] : map) {
    std::string id = qr::trimmed(key);
    if (!id.empty()) ranked.emplace_back(std::move(id), count);
  }
  std::sort(ranked.begin(), ranked.end(), qr::byCountThenKey);
  return ranked;
}

std::optional<std::string> firstScreen(const std::vector<std::string>& patterns) {
  for (const std::string& pattern : patterns) {
    if (!qr::isBlank(pattern)) return qr::trimmed(pattern);
  }
  return std::nullopt;
}

std::vector<std::string> componentEvidence(const QEVUIRecommendationInput& input,
                                           const std::string& id, std::int64_t count) {
  std::vector<std::string> evidence{qr::countLine(id, count)};
  qr::appendFirst(evidence, input.screenPatterns, 2);
  if (input.intentAnalysis) qr::appendFirst(evidence, input.intentAnalysis->evidence, 2);
  return evidence;
}

double intentConfidenceOr(const QEVUIRecommendationInput& input, double fallback) {
  return input.intentAnalysis ? input.intentAnalysis->confidence : fallback;
}

}  // namespace

std::vector<QEVRecommendation> QEVUIRecommendationEngine::recommendations(
    const QEVUIRecommendationInput& input) const {
  std::vector<QEVUIRecommendationCandidate> candidates;
  auto add = [&](std::string componentId, std::optional<QEVRecommendation> recommendation) {
    if (recommendation) candidates.push_back({std::move(componentId), std::move(*recommendation)});
  };
  const std::vector<Counted> ranked = rankedComponents(input.frequentComponents);
  const std::optional<std::string> screen = firstScreen(input.screenPatterns);

  // Contextual help.
  if (const auto& frustration = input.frustrationAnalysis;
      frustration && (frustration->level == QEVFrustrationLevel::medium ||
                      frustration->level == QEVFrustrationLevel::high)) {
    std::optional<std::string> component;
    for (const std::string& id : input.confusingComponentIds) {
      if (!id.empty()) {
        component = id;
        break;
      }
    }
    if (!component && !ranked.empty()) component = ranked.front().first;
    if (component) {
      const bool high = frustration->level == QEVFrustrationLevel::high;
      const auto score = qr::scoreRule(
          confidenceScorer,
          std::max<std::int64_t>(static_cast<std::int64_t>(frustration->signals.size() +
                                                           frustration->likelyCauses.size()),
                                 3),
          high ? 0.9 : 0.75, frustration->confidence, high ? 0.9 : 0.65,
          high ? QEVRecommendationRiskLevel::none : QEVRecommendationRiskLevel::low);
      std::vector<std::string> evidence = frustration->signals;
      evidence.insert(evidence.end(), frustration->likelyCauses.begin(),
                      frustration->likelyCauses.end());
      add(*component,
          qr::buildRecommendation(
              QEVRecommendationType::ui,
              {"Show contextual help", "Show help near " + *component + " to reduce UX friction.",
               "Frustration signals suggest this component may need more guidance."},
              score, qr::firstOf(evidence, 5),
              QEVRecommendationAction::showHelp(*component, std::nullopt, screen),
              input.generatedAt));
    }
  }

  // Reorder the most used component.
  if (!ranked.empty() && ranked[0].second >= 3) {
    const auto& [id, count] = ranked[0];
    const auto score = qr::scoreRule(confidenceScorer, count, 0.85, intentConfidenceOr(input, 0.6),
                                     qr::patternStrengthOf(count), QEVRecommendationRiskLevel::low);
    add(id, qr::buildRecommendation(QEVRecommendationType::ui,
                                    {"Move frequently used component higher",
                                     "Move " + id + " to a more prominent position.",
                                     "The component appears frequently in recent usage patterns."},
                                    score, componentEvidence(input, id, count),
                                    QEVRecommendationAction::reorderComponent(id, screen, 0),
                                    input.generatedAt));
  }

  // Highlight the second most used.
  if (ranked.size() >= 2 && ranked[1].second >= 2) {
    const auto& [id, count] = ranked[1];
    const auto score =
        qr::scoreRule(confidenceScorer, count, 0.75, intentConfidenceOr(input, 0.55),
                      qr::patternStrengthOf(count), QEVRecommendationRiskLevel::none);
    add(id, qr::buildRecommendation(
                QEVRecommendationType::ui,
                {"Highlight commonly used component", "Make " + id + " easier to notice.",
                 "The component is commonly used and may benefit from clearer presentation."},
                score, componentEvidence(input, id, count),
                QEVRecommendationAction::highlightComponent(id, screen), input.generatedAt));
  }

  // Hide the least used optional component, unless it is critical.
  std::vector<Counted> optional = rankedComponents(input.optionalComponentUsage);
  std::sort(optional.begin(), optional.end(), [](const Counted& a, const Counted& b) {
    if (a.second != b.second) return a.second < b.second;
    return a.first < b.first;
  });
  if (!optional.empty() && optional[0].second <= 1 &&
      !input.criticalComponentIds.contains(optional[0].first)) {
    const auto& [id, count] = optional[0];
    const auto score = qr::scoreRule(confidenceScorer, 4, 0.7, intentConfidenceOr(input, 0.6), 0.8,
                                     QEVRecommendationRiskLevel::low);
    add(id, qr::buildRecommendation(QEVRecommendationType::ui,
                                    {"Reduce visibility of rarely used optional component",
                                     "Consider hiding " + id + " when it is optional.",
                                     "The optional component appears rarely in recent usage "
                                     "patterns."},
                                    score, {qr::countLine(id, count)},
                                    QEVRecommendationAction::hideComponent(id, screen),
                                    input.generatedAt));
  }

  std::erase_if(candidates, [&](const QEVUIRecommendationCandidate& c) {
    return c.recommendation.confidence() < minimumConfidence;
  });
  qr::sortByPriorityAndConfidence(
      candidates, [](const QEVUIRecommendationCandidate& c) -> const QEVRecommendation& {
        return c.recommendation;
      });
  std::vector<QEVRecommendation> out;
  std::unordered_set<std::string> seen;
  for (QEVUIRecommendationCandidate& candidate : candidates) {
    if (seen.insert(candidate.componentId).second)
      out.push_back(std::move(candidate.recommendation));
  }
  return out;
}
