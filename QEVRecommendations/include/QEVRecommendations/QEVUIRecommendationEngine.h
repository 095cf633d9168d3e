// Suggestions about the interface from component usage: contextual help,
// move up, highlight, hide.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationConfidenceScorer.h>

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

struct QEVR_API QEVUIRecommendationInput {
  std::unordered_map<std::string, std::int64_t> frequentComponents;      // id -> use count
  std::unordered_map<std::string, std::int64_t> optionalComponentUsage;  // optional id -> count
  std::unordered_set<std::string> criticalComponentIds;                  // never hidden
  std::vector<std::string> screenPatterns;                               // most relevant first
  std::optional<QEVIntentAnalysis> intentAnalysis;
  std::optional<QEVFrustrationAnalysis> frustrationAnalysis;
  std::vector<std::string> confusingComponentIds;  // most likely first
  QEVRDate generatedAt;                            // each result's createdAt
};

struct QEVR_API QEVUIRecommendationCandidate {
  std::string componentId;
  QEVRecommendation recommendation;
};

// Pure and stateless; never fails.
struct QEVR_API QEVUIRecommendationEngine {
  QEVRecommendationConfidenceScorer confidenceScorer;
  double minimumConfidence = 0.5;

  // At most four recommendations of type `ui`, best first, one per
  // component.
  std::vector<QEVRecommendation> recommendations(const QEVUIRecommendationInput& input) const;
};
