// Matches the features a host offers against intent, observed events,
// component usage and the domain, and proposes the best three.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationConfidenceScorer.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

struct QEVR_API QEVAvailableFeature {
  std::string featureId;
  std::string featureName;
  // Overrides the reason code the engine works out.
  std::optional<std::string> reasonCode;
  bool operator==(const QEVAvailableFeature&) const = default;
};

struct QEVR_API QEVFeatureRecommendationInput {
  std::optional<QEVIntentAnalysis> intentAnalysis;  // required for any result
  std::unordered_map<std::string, std::int64_t> frequentCustomEvents;
  std::unordered_map<std::string, std::int64_t> componentPatterns;
  std::optional<QEVExperienceDomain> domain;
  std::vector<QEVAvailableFeature> availableFeatures;
  std::unordered_set<std::string> recentlyUnusedFeatureIds;
  QEVRDate generatedAt;  // each result's createdAt
};

// Pure and stateless; never fails.
struct QEVR_API QEVFeatureRecommendationEngine {
  // One feature's standing; its texts are trimmed.
  struct RankedFeature {
    QEVAvailableFeature feature;
    double score = 0;
    std::string reasonCode;
    std::vector<std::string> evidence;
    std::int64_t evidenceCount = 0;
    double evidenceQuality = 0;
    double patternStrength = 0;
  };

  QEVRecommendationConfidenceScorer confidenceScorer;
  double minimumConfidence = 0.5;

  // At most three recommendations of type `feature`, best first; empty
  // without an intent analysis or without features.
  std::vector<QEVRecommendation> recommendations(const QEVFeatureRecommendationInput& input) const;

  // Nothing for a feature with a blank id or name, or a score not above 0.
  // REQUIRES: input.intentAnalysis is present.
  static std::optional<RankedFeature> rank(const QEVAvailableFeature& feature,
                                           const QEVFeatureRecommendationInput& input);

  // Trimmed, lower-cased, every character that is not a letter or number
  // replaced by "_", runs of "_" collapsed: "Check-Out now!" ->
  // "check_out_now_".
  static std::string featureMatchText(std::string_view text);
  // Whether `text` mentions the feature: any token of its id or name, or
  // the whole normalised id or name, as a substring.
  static bool featureMatches(std::string_view text, std::string_view featureId,
                             std::string_view featureName);
  // The matched counts summed (negative counts add nothing), / 20, at most
  // 0.2; 0.0 below a sum of 1.
  static double patternScore(const std::unordered_map<std::string, std::int64_t>& map,
                             std::string_view featureId, std::string_view featureName);
};
