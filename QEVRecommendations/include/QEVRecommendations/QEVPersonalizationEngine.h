// The merge point: runs the four engines, ranks everything in one total
// order, removes what contradicts a better recommendation, and lets the
// policy make the final cut.
#pragma once

#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVFeatureRecommendationEngine.h>
#include <QEVRecommendations/QEVGameplayRecommendationEngine.h>
#include <QEVRecommendations/QEVNavigationRecommendationEngine.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>
#include <QEVRecommendations/QEVRecommendationPolicyEvaluator.h>
#include <QEVRecommendations/QEVUIRecommendationEngine.h>

#include <cstdint>
#include <string>
#include <vector>

struct QEVR_API QEVPersonalizationInput {
  QEVUIRecommendationInput uiInput;
  QEVNavigationRecommendationInput navigationInput;
  QEVFeatureRecommendationInput featureInput;
  QEVGameplayRecommendationInput gameplayInput;
  // Below 1, nothing runs; otherwise no effect (the policy makes the cut).
  std::int64_t maxRecommendations = 10;
  QEVRecommendationPolicy policy = QEVRecommendationPolicy();
};

// Pure apart from the new UUIDs; holds no state.
struct QEVR_API QEVPersonalizationEngine {
  QEVUIRecommendationEngine uiEngine;
  QEVNavigationRecommendationEngine navigationEngine;
  QEVFeatureRecommendationEngine featureEngine;
  QEVGameplayRecommendationEngine gameplayEngine;
  QEVRecommendationPolicyEvaluator policyEvaluator;

  // The final list the host receives. Conflicts are removed before the
  // policy runs: a winner that the policy then drops does not bring its
  // losers back.
  std::vector<QEVRecommendation> recommendations(const QEVPersonalizationInput& input) const;

  // Sorts by the ranking: priority, confidence, createdAt (later first),
  // action rank (showHelp 8 ... custom 1), then the UUID text ascending. A
  // total order, so the result does not depend on the input order.
  static void rank(std::vector<QEVRecommendation>& recommendations);

  // Keeps a recommendation only when none of its conflict keys was seen in
  // a recommendation kept before it.
  static std::vector<QEVRecommendation> removeConflicts(
      std::vector<QEVRecommendation> rankedRecommendations);

  // What an action touches: "component:<key>", "feature:<key>",
  // "difficulty-adjustment:<mode>", "navigation-help:<screen>",
  // "shortcut-destination:<screen>", "shortcut-edge:<a>-><b>",
  // "shortcut-id:<id>", "default-landing", "custom:<kind>"; each <key> in
  // normalizedRecommendationKey form.
  static std::vector<std::string> conflictKeys(const QEVRecommendationAction& action);
};
