#pragma once

#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>

#include <vector>

// Stateless.
class QEVR_API QEVRecommendationPolicyEvaluator {
 public:
  // Empty when the policy allows no results or no personalisation.
  // Otherwise drops, in order, what is below the minimum confidence, of a
  // switched-off type, or touching a protected component or screen
  // (compared in normalizedRecommendationKey form), and returns the first
  // maxRecommendations of the rest in their given order.
  std::vector<QEVRecommendation> apply(const std::vector<QEVRecommendation>& recommendations,
                                       const QEVRecommendationPolicy& policy) const;
};
