#include <QEVRecommendations/QEVRecommendationPolicy.h>
#include <QEVRecommendations/QEVRecommendationPolicyEvaluator.h>

#include "RecommendationSupport.h"

#include <algorithm>
#include <type_traits>

using qevr::json::Decoder;
using qevr::json::Writer;
using Action = QEVRecommendationAction;

namespace {

void writeSet(Writer& writer, std::string_view key, const std::unordered_set<std::string>& set) {
  writer.key(key);
  writer.beginArray();
  for (const std::string& item : set)
    writer.string(item);
  writer.endArray();
}

std::unordered_set<std::string> readSet(const Decoder& decoder) {
  std::vector<std::string> items = decoder.asStrings();
  return std::unordered_set<std::string>(std::make_move_iterator(items.begin()),
                                         std::make_move_iterator(items.end()));
}

bool isGame(const std::optional<QEVExperienceDomain>& domain) {
  return domain && domain->kind() == QEVExperienceDomain::Kind::game;
}

void addIfPresent(std::vector<std::string>& out, const std::optional<std::string>& value) {
  if (value) out.push_back(*value);
}

void addPayloadValue(std::vector<std::string>& out,
                     const std::unordered_map<std::string, std::string>& payload, const char* key) {
  if (auto it = payload.find(key); it != payload.end()) out.push_back(it->second);
}

std::unordered_set<std::string> normalizedSet(const std::unordered_set<std::string>& items) {
  std::unordered_set<std::string> out;
  for (const std::string& item : items) {
    std::string key = normalizedRecommendationKey(item);
    if (!key.empty()) out.insert(std::move(key));
  }
  return out;
}

bool touches(const std::vector<std::string>& identifiers,
             const std::unordered_set<std::string>& protectedKeys) {
  if (protectedKeys.empty()) return false;
  return std::any_of(identifiers.begin(), identifiers.end(), [&](const std::string& id) {
    return protectedKeys.contains(normalizedRecommendationKey(id));
  });
}

bool typeAllowed(QEVRecommendationType type, const QEVRecommendationPolicy& policy) {
  switch (type) {
    case QEVRecommendationType::ui:
      return policy.allowUIRecommendations();
    case QEVRecommendationType::navigation:
      return policy.allowNavigationRecommendations();
    case QEVRecommendationType::feature:
      return policy.allowFeatureRecommendations();
    case QEVRecommendationType::gameplay:
      return policy.allowGameplayRecommendations();
    case QEVRecommendationType::personalization:
    case QEVRecommendationType::diagnostic:
      return true;
  }
  return true;
}

}  // namespace

QEVRecommendationPolicy::QEVRecommendationPolicy(
    double minimumConfidence, bool allowUIRecommendations, bool allowNavigationRecommendations,
    bool allowFeatureRecommendations, bool allowPersonalization,
    std::optional<bool> allowGameplayRecommendations, std::int64_t maxRecommendations,
    std::unordered_set<std::string> protectedComponentIds,
    std::unordered_set<std::string> protectedScreenNames,
    const std::optional<QEVExperienceDomain>& domain)
    : minimum(minimumConfidence <= 0.0  ? 0.0
              : minimumConfidence > 1.0 ? 1.0
                                        : minimumConfidence),
      allowUI(allowUIRecommendations),
      allowNavigation(allowNavigationRecommendations),
      allowFeature(allowFeatureRecommendations),
      allowPersonal(allowPersonalization),
      allowGameplay(allowGameplayRecommendations.value_or(isGame(domain))),
      maximum(std::max<std::int64_t>(maxRecommendations, 0)),
      components(std::move(protectedComponentIds)),
      screens(std::move(protectedScreenNames)) {}

QEVRecommendationPolicy::QEVRecommendationPolicy(
    Unclamped, double minimumConfidence, bool allowUIRecommendations,
    bool allowNavigationRecommendations, bool allowFeatureRecommendations,
    bool allowPersonalization, bool allowGameplayRecommendations, std::int64_t maxRecommendations,
    std::unordered_set<std::string> protectedComponentIds,
    std::unordered_set<std::string> protectedScreenNames)
    : minimum(minimumConfidence),
      allowUI(allowUIRecommendations),
      allowNavigation(allowNavigationRecommendations),
      allowFeature(allowFeatureRecommendations),
      allowPersonal(allowPersonalization),
      allowGameplay(allowGameplayRecommendations),
      maximum(maxRecommendations),
      components(std::move(protectedComponentIds)),
      screens(std::move(protectedScreenNames)) {}

QEVRecommendationPolicy QEVRecommendationPolicy::defaultPolicy(
    const std::optional<QEVExperienceDomain>& domain) {
  return QEVRecommendationPolicy(0.65, true, true, true, true, std::nullopt, 10, {}, {}, domain);
}

void QEVRecommendationPolicy::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("minimumConfidence");
  writer.number(minimum);
  writer.key("allowUIRecommendations");
  writer.boolean(allowUI);
  writer.key("allowNavigationRecommendations");
  writer.boolean(allowNavigation);
  writer.key("allowFeatureRecommendations");
  writer.boolean(allowFeature);
  writer.key("allowPersonalization");
  writer.boolean(allowPersonal);
  writer.key("allowGameplayRecommendations");
  writer.boolean(allowGameplay);
  writer.key("maxRecommendations");
  writer.integer(maximum);
  writeSet(writer, "protectedComponentIds", components);
  writeSet(writer, "protectedScreenNames", screens);
  writer.endObject();
}

QEVRecommendationPolicy QEVRecommendationPolicy::decode(const Decoder& decoder) {
  const double minimumConfidence = decoder["minimumConfidence"].asDouble();
  const bool ui = decoder["allowUIRecommendations"].asBool();
  const bool navigation = decoder["allowNavigationRecommendations"].asBool();
  const bool feature = decoder["allowFeatureRecommendations"].asBool();
  const bool personalization = decoder["allowPersonalization"].asBool();
  const bool gameplay = decoder["allowGameplayRecommendations"].asBool();
  const std::int64_t maxRecommendations = decoder["maxRecommendations"].asInt64();
  std::unordered_set<std::string> protectedComponents = readSet(decoder["protectedComponentIds"]);
  std::unordered_set<std::string> protectedScreens = readSet(decoder["protectedScreenNames"]);
  return QEVRecommendationPolicy(Unclamped{}, minimumConfidence, ui, navigation, feature,
                                 personalization, gameplay, maxRecommendations,
                                 std::move(protectedComponents), std::move(protectedScreens));
}

std::string QEVRecommendationPolicy::toJSON() const {
  Writer writer;
  encode(writer);
  return writer.take();
}

QEVRecommendationPolicy QEVRecommendationPolicy::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  return decode(Decoder(root));
}

std::string normalizedRecommendationKey(std::string_view text) {
  const std::string lower = qevr::text::lowercased(qevr::text::trim(text));
  std::string out;
  out.reserve(lower.size());
  qevr::recommendations::forEachCharacter(lower, [&](std::string_view cluster, char32_t first) {
    if (qevr::text::isLetterOrNumber(first)) out.append(cluster);
  });
  return out;
}

std::vector<std::string> componentIdentifiersOf(const QEVRecommendationAction& action) {
  std::vector<std::string> out;
  std::visit(
      [&](const auto& a) {
        using T = std::decay_t<decltype(a)>;
        if constexpr (std::is_same_v<T, Action::ReorderComponent> ||
                      std::is_same_v<T, Action::HighlightComponent> ||
                      std::is_same_v<T, Action::HideComponent>) {
          out.push_back(a.componentId);
        } else if constexpr (std::is_same_v<T, Action::SuggestShortcut>) {
          addIfPresent(out, a.componentId);
        } else if constexpr (std::is_same_v<T, Action::SuggestFeature>) {
          out.push_back(a.featureId);
        } else if constexpr (std::is_same_v<T, Action::ShowHelp>) {
          addIfPresent(out, a.componentId);
          addIfPresent(out, a.featureId);
        } else if constexpr (std::is_same_v<T, Action::Custom>) {
          addPayloadValue(out, a.customPayload, "componentId");
          addPayloadValue(out, a.customPayload, "featureId");
        }
      },
      action.payload());
  return out;
}

std::vector<std::string> screenIdentifiersOf(const QEVRecommendationAction& action) {
  std::vector<std::string> out;
  std::visit(
      [&](const auto& a) {
        using T = std::decay_t<decltype(a)>;
        if constexpr (std::is_same_v<T, Action::SuggestShortcut>) {
          addIfPresent(out, a.screenName);
          addIfPresent(out, a.sourceScreen);
          addIfPresent(out, a.destinationScreen);
        } else if constexpr (std::is_same_v<T, Action::AdjustDifficulty>) {
          addIfPresent(out, a.targetGameMode);
        } else if constexpr (std::is_same_v<T, Action::Custom>) {
          addPayloadValue(out, a.customPayload, "screenName");
          addPayloadValue(out, a.customPayload, "sourceScreen");
          addPayloadValue(out, a.customPayload, "destinationScreen");
        } else {
          addIfPresent(out, a.screenName);
        }
      },
      action.payload());
  return out;
}

std::vector<QEVRecommendation> QEVRecommendationPolicyEvaluator::apply(
    const std::vector<QEVRecommendation>& recommendations,
    const QEVRecommendationPolicy& policy) const {
  if (policy.maxRecommendations() < 1 || !policy.allowPersonalization()) return {};
  const std::unordered_set<std::string> protectedComponents =
      normalizedSet(policy.protectedComponentIds());
  const std::unordered_set<std::string> protectedScreens =
      normalizedSet(policy.protectedScreenNames());

  std::vector<QEVRecommendation> kept;
  for (const QEVRecommendation& recommendation : recommendations) {
    if (static_cast<std::int64_t>(kept.size()) >= policy.maxRecommendations()) break;
    if (recommendation.confidence() < policy.minimumConfidence()) continue;
    if (!typeAllowed(recommendation.type(), policy)) continue;
    if (touches(componentIdentifiersOf(recommendation.action()), protectedComponents)) continue;
    if (touches(screenIdentifiersOf(recommendation.action()), protectedScreens)) continue;
    kept.push_back(recommendation);
  }
  return kept;
}
