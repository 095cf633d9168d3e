// Adapts a game to its player: lower or raise the difficulty, offer a
// tutorial, offer the challenge mode. Acts only in the `game` domain.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationConfidenceScorer.h>

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

struct QEVR_API QEVGameplayRecommendationInput {
  std::optional<QEVExperienceDomain> domain;  // anything but `game` yields nothing
  std::optional<QEVSkillAnalysis> skillAnalysis;
  std::optional<QEVFrustrationAnalysis> frustrationAnalysis;
  std::unordered_map<std::string, std::int64_t> customGameEvents;  // event name -> count
  QEVRDate generatedAt;                                            // each result's createdAt
};

// Pure and stateless; never fails.
struct QEVR_API QEVGameplayRecommendationEngine {
  QEVRecommendationConfidenceScorer confidenceScorer;
  double minimumConfidence = 0.5;

  // At most four recommendations of type `gameplay`, best first. Lowering
  // and raising may both appear; personalisation keeps one per game mode.
  std::vector<QEVRecommendation> recommendations(const QEVGameplayRecommendationInput& input) const;

  // Sum of the non-negative counts of the keys that mention "fail",
  // "death" or "retry" (case-insensitively), each key once.
  static std::int64_t failureCount(const std::unordered_map<std::string, std::int64_t>& events);
  // The first trimmed key, in ascending text order, that mentions "mode";
  // absent when none does.
  static std::optional<std::string> targetGameMode(
      const std::unordered_map<std::string, std::int64_t>& events);
};
