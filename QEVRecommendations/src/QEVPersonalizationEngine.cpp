#include <QEVRecommendations/QEVPersonalizationEngine.h>

#include <algorithm>
#include <type_traits>
#include <unordered_set>

using Action = QEVRecommendationAction;

namespace {

int actionRank(Action::Kind kind) {
  switch (kind) {
    case Action::Kind::showHelp:
      return 8;
    case Action::Kind::suggestShortcut:
      return 7;
    case Action::Kind::suggestFeature:
      return 6;
    case Action::Kind::highlightComponent:
      return 5;
    case Action::Kind::reorderComponent:
      return 4;
    case Action::Kind::adjustDifficulty:
      return 3;
    case Action::Kind::hideComponent:
      return 2;
    case Action::Kind::custom:
      return 1;
  }
  return 0;
}

// The normal form of a present value, or nothing when it is absent or
// normalises to nothing.
std::optional<std::string> presentKey(const std::optional<std::string>& value) {
  if (!value) return std::nullopt;
  std::string key = normalizedRecommendationKey(*value);
  if (key.empty()) return std::nullopt;
  return key;
}

std::string payloadKey(const std::unordered_map<std::string, std::string>& payload,
                       const char* name) {
  auto it = payload.find(name);
  return it == payload.end() ? std::string() : normalizedRecommendationKey(it->second);
}

}  // namespace

std::vector<std::string> QEVPersonalizationEngine::conflictKeys(const Action& action) {
  std::vector<std::string> keys;
  std::visit(
      [&](const auto& a) {
        using T = std::decay_t<decltype(a)>;
        if constexpr (std::is_same_v<T, Action::ReorderComponent> ||
                      std::is_same_v<T, Action::HighlightComponent> ||
                      std::is_same_v<T, Action::HideComponent>) {
          keys.push_back("component:" + normalizedRecommendationKey(a.componentId));
        } else if constexpr (std::is_same_v<T, Action::SuggestFeature>) {
          keys.push_back("feature:" + normalizedRecommendationKey(a.featureId));
        } else if constexpr (std::is_same_v<T, Action::AdjustDifficulty>) {
          keys.push_back("difficulty-adjustment:" +
                         normalizedRecommendationKey(a.targetGameMode.value_or("default")));
        } else if constexpr (std::is_same_v<T, Action::ShowHelp>) {
          if (auto k = presentKey(a.componentId)) keys.push_back("component:" + *k);
          if (auto k = presentKey(a.featureId)) keys.push_back("feature:" + *k);
          if (auto k = presentKey(a.screenName)) keys.push_back("navigation-help:" + *k);
        } else if constexpr (std::is_same_v<T, Action::SuggestShortcut>) {
          const auto destination = presentKey(a.destinationScreen);
          const auto source = presentKey(a.sourceScreen);
          if (auto k = presentKey(a.componentId)) keys.push_back("component:" + *k);
          if (destination) {
            keys.push_back("shortcut-destination:" + *destination);
          } else if (auto k = presentKey(a.screenName)) {
            keys.push_back("shortcut-destination:" + *k);
          }
          if (source && destination)
            keys.push_back("shortcut-edge:" + *source + "->" + *destination);
          if (auto k = presentKey(a.shortcutId)) keys.push_back("shortcut-id:" + *k);
        } else if constexpr (std::is_same_v<T, Action::Custom>) {
          if (a.customPayload.empty()) return;
          const std::string kind = payloadKey(a.customPayload, "kind");
          const std::string destination = payloadKey(a.customPayload, "destinationScreen");
          if (kind == "defaultlandingscreen" && !destination.empty()) {
            keys.push_back("default-landing");
            keys.push_back("shortcut-destination:" + destination);
          } else if (!kind.empty()) {
            keys.push_back("custom:" + kind);
          }
        }
      },
      action.payload());
  return keys;
}

void QEVPersonalizationEngine::rank(std::vector<QEVRecommendation>& recommendations) {
  std::sort(recommendations.begin(), recommendations.end(),
            [](const QEVRecommendation& a, const QEVRecommendation& b) {
              if (a.priority() != b.priority()) {
                return static_cast<int>(a.priority()) > static_cast<int>(b.priority());
              }
              if (a.confidence() != b.confidence()) return a.confidence() > b.confidence();
              if (a.createdAt() != b.createdAt()) return a.createdAt() > b.createdAt();
              const int rankA = actionRank(a.action().kind());
              const int rankB = actionRank(b.action().kind());
              if (rankA != rankB) return rankA > rankB;
              // Upper-case hex with hyphens at fixed places: the byte order
              // is the order of the canonical texts.
              return a.id().bytes < b.id().bytes;
            });
}

std::vector<QEVRecommendation> QEVPersonalizationEngine::removeConflicts(
    std::vector<QEVRecommendation> rankedRecommendations) {
  std::unordered_set<std::string> seen;
  std::vector<QEVRecommendation> kept;
  for (QEVRecommendation& recommendation : rankedRecommendations) {
    const std::vector<std::string> keys = conflictKeys(recommendation.action());
    const bool conflicts = std::any_of(keys.begin(), keys.end(),
                                       [&](const std::string& k) { return seen.contains(k); });
    if (conflicts) continue;
    seen.insert(keys.begin(), keys.end());
    kept.push_back(std::move(recommendation));
  }
  return kept;
}

std::vector<QEVRecommendation> QEVPersonalizationEngine::recommendations(
    const QEVPersonalizationInput& input) const {
  if (input.maxRecommendations < 1 || input.policy.maxRecommendations() < 1) return {};
  std::vector<QEVRecommendation> all = uiEngine.recommendations(input.uiInput);
  auto append = [&all](std::vector<QEVRecommendation> more) {
    all.insert(all.end(), std::make_move_iterator(more.begin()),
               std::make_move_iterator(more.end()));
  };
  append(navigationEngine.recommendations(input.navigationInput));
  append(featureEngine.recommendations(input.featureInput));
  append(gameplayEngine.recommendations(input.gameplayInput));
  rank(all);
  return policyEvaluator.apply(removeConflicts(std::move(all)), input.policy);
}
