#include <QEVRecommendations/QEVGameplayRecommendationEngine.h>

#include "EngineSupport.h"

namespace qr = qevr::recommendations;

namespace {

bool isAtLeastMedium(const std::optional<QEVFrustrationAnalysis>& frustration) {
  return frustration && (frustration->level == QEVFrustrationLevel::medium ||
                         frustration->level == QEVFrustrationLevel::high);
}

std::vector<std::string> gameplayEvidence(const QEVGameplayRecommendationInput& input) {
  std::vector<std::string> evidence;
  if (input.skillAnalysis) qr::appendFirst(evidence, input.skillAnalysis->evidence, 2);
  if (input.frustrationAnalysis) qr::appendFirst(evidence, input.frustrationAnalysis->signals, 2);
  const std::vector<qr::Counted> events = qr::sortedEntries(input.customGameEvents);
  for (std::size_t i = 0; i < events.size() && i < 2; ++i) {
    evidence.push_back(qr::countLine(events[i].first, events[i].second));
  }
  return evidence;
}

std::int64_t countOf(const std::vector<std::string>& items) {
  return static_cast<std::int64_t>(items.size());
}

}  // namespace

std::int64_t QEVGameplayRecommendationEngine::failureCount(
    const std::unordered_map<std::string, std::int64_t>& events) {
  std::int64_t sum = 0;
  for (const auto& [key, count] : events) {
    const std::string lower = qevr::text::lowercased(key);
    if (lower.find("fail") != std::string::npos || lower.find("death") != std::string::npos ||
        lower.find("retry") != std::string::npos) {
      sum = qr::saturatingAdd(sum, std::max<std::int64_t>(count, 0));
    }
  }
  return sum;
}

std::optional<std::string> QEVGameplayRecommendationEngine::targetGameMode(
    const std::unordered_map<std::string, std::int64_t>& events) {
  // Ascending key order instead of the map's, so the choice among several
  // "mode" keys is the same on every run.
  std::optional<std::string> best;
  for (const auto& [key, count] : events) {
    std::string candidate = qr::trimmed(key);
    if (candidate.empty()) continue;
    if (qevr::text::lowercased(candidate).find("mode") == std::string::npos) continue;
    if (!best || candidate < *best) best = std::move(candidate);
  }
  return best;
}

std::vector<QEVRecommendation> QEVGameplayRecommendationEngine::recommendations(
    const QEVGameplayRecommendationInput& input) const {
  if (!input.domain || input.domain->kind() != QEVExperienceDomain::Kind::game) return {};

  const std::optional<QEVSkillAnalysis>& skill = input.skillAnalysis;
  const std::optional<QEVFrustrationAnalysis>& frustration = input.frustrationAnalysis;
  const bool isBeginner = skill && skill->skillLevel == QEVSkillLevel::beginner;
  const bool frustrated = isAtLeastMedium(frustration);
  const bool highFrustration = frustration && frustration->level == QEVFrustrationLevel::high;
  const std::int64_t failures = failureCount(input.customGameEvents);
  const std::optional<std::string> mode = targetGameMode(input.customGameEvents);
  const std::int64_t skillEvidence = skill ? countOf(skill->evidence) : 0;
  const std::int64_t signals = frustration ? countOf(frustration->signals) : 0;
  const double combinedConfidence =
      std::max(skill ? skill->confidence : 0.55, frustration ? frustration->confidence : 0.55);
  const std::vector<std::string> evidence = gameplayEvidence(input);

  std::vector<QEVRecommendation> out;
  auto add = [&](std::optional<QEVRecommendation> recommendation) {
    if (recommendation) out.push_back(std::move(*recommendation));
  };

  if (isBeginner || frustrated || failures >= 3) {
    const double delta = (failures >= 8 || highFrustration) ? -3.0 : -1.0;
    const auto score = qr::scoreRule(confidenceScorer,
                                     std::max({failures, skillEvidence, signals, std::int64_t{3}}),
                                     frustrated ? 0.85 : 0.75, combinedConfidence,
                                     qr::patternStrengthOf(std::max<std::int64_t>(failures, 3)),
                                     QEVRecommendationRiskLevel::none);
    add(qr::buildRecommendation(
        QEVRecommendationType::gameplay,
        {isBeginner ? "Reduce difficulty for beginner" : "Reduce difficulty after failures",
         "Suggest a lower difficulty setting for the current gameplay flow.",
         "Skill and friction signals suggest the current challenge may be too high."},
        score, evidence,
        QEVRecommendationAction::adjustDifficulty(delta, "repeated_failures_or_beginner_skill",
                                                  mode),
        input.generatedAt));
  }

  const bool expert = skill && skill->skillLevel == QEVSkillLevel::expert;
  const bool advanced = skill && skill->skillLevel == QEVSkillLevel::advanced;
  if ((expert || advanced) && !highFrustration) {
    const auto score = qr::scoreRule(confidenceScorer, std::max<std::int64_t>(skillEvidence, 3),
                                     0.8, skill->confidence, 0.7, QEVRecommendationRiskLevel::low);
    add(qr::buildRecommendation(
        QEVRecommendationType::gameplay,
        {"Increase difficulty for skilled player",
         "Suggest a higher difficulty setting for this player.",
         "Skill signals suggest the player may be ready for a stronger challenge."},
        score, evidence,
        QEVRecommendationAction::adjustDifficulty(expert ? 2.0 : 1.0, "advanced_or_expert_skill",
                                                  mode),
        input.generatedAt));
  }

  if (isBeginner || frustrated) {
    const auto score = qr::scoreRule(
        confidenceScorer, std::max({skillEvidence, signals, std::int64_t{3}}),
        frustrated ? 0.8 : 0.7, combinedConfidence, 0.65, QEVRecommendationRiskLevel::none);
    add(qr::buildRecommendation(QEVRecommendationType::gameplay,
                                {"Show gameplay tutorial",
                                 "Show optional help or tutorial guidance for this gameplay flow.",
                                 "Skill or friction signals suggest tutorial guidance may help."},
                                score, evidence,
                                QEVRecommendationAction::showHelp(std::nullopt, "tutorial", mode),
                                input.generatedAt));
  }

  if (expert && !highFrustration) {
    const auto score =
        qr::scoreRule(confidenceScorer, std::max<std::int64_t>(skillEvidence, 4), 0.85,
                      skill->confidence, 0.85, QEVRecommendationRiskLevel::none);
    add(qr::buildRecommendation(
        QEVRecommendationType::gameplay,
        {"Suggest challenge mode", "Suggest challenge mode for an expert player.",
         "Expert skill signals suggest this player may value an optional challenge."},
        score, evidence,
        QEVRecommendationAction::suggestFeature(
            "challenge_mode", std::nullopt,
            QEVRecommendationFeaturePayload("challenge_mode", "Challenge Mode", "expert_skill")),
        input.generatedAt));
  }

  std::erase_if(out,
                [&](const QEVRecommendation& r) { return r.confidence() < minimumConfidence; });
  qr::sortByPriorityAndConfidence(
      out, [](const QEVRecommendation& r) -> const QEVRecommendation& { return r; });
  return out;
}
