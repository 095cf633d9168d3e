// Navigation improvements from where the user moves between screens: loop
// help, shortcut to a frequent destination, default landing screen, fewer
// steps along the strongest move.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationConfidenceScorer.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct QEVR_API QEVNavigationRecommendationEdge {
  std::optional<std::string> sourceScreen;
  std::string destinationScreen;
  std::int64_t count = 0;
  bool operator==(const QEVNavigationRecommendationEdge&) const = default;
};

struct QEVR_API QEVNavigationRecommendationInput {
  std::vector<std::string> screenSequence;  // visited screens
  std::vector<QEVNavigationRecommendationEdge> navigationEdges;
  std::optional<QEVIntentAnalysis> intentAnalysis;
  std::optional<QEVFrustrationAnalysis> frustrationAnalysis;
  QEVRDate generatedAt;  // each result's createdAt
};

struct QEVR_API QEVNavigationRecommendationCandidate {
  std::optional<std::string> shortcutDestination;
  QEVRecommendation recommendation;
};

// Pure and stateless; never fails.
struct QEVR_API QEVNavigationRecommendationEngine {
  QEVRecommendationConfidenceScorer confidenceScorer;
  double minimumConfidence = 0.5;

  // At most four recommendations of type `navigation`, best first, one
  // shortcut per destination.
  std::vector<QEVRecommendation> recommendations(
      const QEVNavigationRecommendationInput& input) const;

  // "shortcut_" and the lower-cased text with every character that is not a
  // letter or a number replaced by "_": "Home Page" -> "shortcut_home_page".
  static std::string shortcutIdentifier(std::string_view text);
};
