// The host's rule set for recommendations, and the evaluator that applies
// it as the last step of every generation.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendation.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

// Immutable. Equality compares all nine fields, the sets as sets.
class QEVR_API QEVRecommendationPolicy {
 public:
  // `minimumConfidence` is clamped to 0.0..1.0 and a negative
  // `maxRecommendations` becomes 0. Without `allowGameplayRecommendations`
  // gameplay is allowed exactly when `domain` is `game`; the domain is not
  // stored.
  explicit QEVRecommendationPolicy(double minimumConfidence = 0.65,
                                   bool allowUIRecommendations = true,
                                   bool allowNavigationRecommendations = true,
                                   bool allowFeatureRecommendations = true,
                                   bool allowPersonalization = true,
                                   std::optional<bool> allowGameplayRecommendations = std::nullopt,
                                   std::int64_t maxRecommendations = 10,
                                   std::unordered_set<std::string> protectedComponentIds = {},
                                   std::unordered_set<std::string> protectedScreenNames = {},
                                   const std::optional<QEVExperienceDomain>& domain = std::nullopt);

  // Every parameter at its default, for `domain`.
  static QEVRecommendationPolicy defaultPolicy(const std::optional<QEVExperienceDomain>& domain);

  double minimumConfidence() const { return minimum; }
  bool allowUIRecommendations() const { return allowUI; }
  bool allowNavigationRecommendations() const { return allowNavigation; }
  bool allowFeatureRecommendations() const { return allowFeature; }
  bool allowPersonalization() const { return allowPersonal; }
  bool allowGameplayRecommendations() const { return allowGameplay; }
  std::int64_t maxRecommendations() const { return maximum; }
  const std::unordered_set<std::string>& protectedComponentIds() const { return components; }
  const std::unordered_set<std::string>& protectedScreenNames() const { return screens; }

  bool operator==(const QEVRecommendationPolicy&) const = default;

  // All nine keys, written in field order and required on decoding; the
  // sets as arrays. Decoding stores what it reads, without the clamps.
  // Throws qevr::json::DecodingError.
  void encode(qevr::json::Writer& writer) const;
  static QEVRecommendationPolicy decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVRecommendationPolicy fromJSON(std::string_view json);

 private:
  struct Unclamped {};
  QEVRecommendationPolicy(Unclamped, double minimumConfidence, bool allowUI, bool allowNavigation,
                          bool allowFeature, bool allowPersonalization, bool allowGameplay,
                          std::int64_t maxRecommendations,
                          std::unordered_set<std::string> protectedComponentIds,
                          std::unordered_set<std::string> protectedScreenNames);

  double minimum;
  bool allowUI;
  bool allowNavigation;
  bool allowFeature;
  bool allowPersonal;
  bool allowGameplay;
  std::int64_t maximum;
  std::unordered_set<std::string> components;
  std::unordered_set<std::string> screens;
};

// The shared normal form of identifiers: trimmed, lower-cased, with only
// the letters and numbers kept. "Home Screen", "home_screen" and
// " HOME-screen " all give "homescreen".
QEVR_API std::string normalizedRecommendationKey(std::string_view text);

// The identifiers of an action that a policy can protect: `featureId`
// counts as a component, `targetGameMode` as a screen, and a `custom`
// action's payload keys "componentId", "featureId" ("screenName",
// "sourceScreen", "destinationScreen") count likewise.
QEVR_API std::vector<std::string> componentIdentifiersOf(const QEVRecommendationAction& action);
QEVR_API std::vector<std::string> screenIdentifiersOf(const QEVRecommendationAction& action);
