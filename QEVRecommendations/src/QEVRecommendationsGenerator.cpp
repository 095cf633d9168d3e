#include <QEVRecommendations/QEVRecommendationsGenerator.h>

#include <QEVRPlatform/Tasks.h>

#include "EngineSupport.h"

namespace qr = qevr::recommendations;

namespace {

struct CatalogueEntry {
  QEVExperienceDomain::Kind domain;
  const char* featureId;
  const char* featureName;
};

constexpr CatalogueEntry kCatalogue[] = {
    {QEVExperienceDomain::Kind::game, "challenge_mode", "Challenge Mode"},
    {QEVExperienceDomain::Kind::game, "tutorial", "Tutorial"},
    {QEVExperienceDomain::Kind::game, "difficulty", "Difficulty"},
    {QEVExperienceDomain::Kind::ecommerce, "reorder", "Reorder"},
    {QEVExperienceDomain::Kind::ecommerce, "wishlist", "Wishlist"},
    {QEVExperienceDomain::Kind::ecommerce, "offers", "Offers"},
    {QEVExperienceDomain::Kind::telecom, "recharge", "Recharge"},
    {QEVExperienceDomain::Kind::telecom, "data_package", "Data Package"},
    {QEVExperienceDomain::Kind::telecom, "roaming", "Roaming"},
    {QEVExperienceDomain::Kind::telecom, "support", "Support"},
};

std::vector<std::string> sortedKeys(const qr::CountMap& map) {
  std::vector<std::string> keys;
  keys.reserve(map.size());
  for (qr::Counted& entry : qr::sortedEntries(map))
    keys.push_back(std::move(entry.first));
  return keys;
}

std::vector<std::string_view> split(std::string_view text, std::string_view separator) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  for (;;) {
    const std::size_t at = text.find(separator, start);
    if (at == std::string_view::npos) break;
    pieces.push_back(text.substr(start, at - start));
    start = at + separator.size();
  }
  pieces.push_back(text.substr(start));
  return pieces;
}

std::vector<std::string> screenSequenceOf(const QEVMemoryIntelligenceSnapshot& snapshot) {
  std::vector<std::string> screens;
  for (const std::string& line : snapshot.recentScreenSequences) {
    for (std::string_view piece : split(line, ">")) {
      std::string screen = qr::trimmed(piece);
      if (!screen.empty()) screens.push_back(std::move(screen));
    }
  }
  if (screens.empty()) screens = sortedKeys(snapshot.frequentlyVisitedScreens);
  return screens;
}

std::vector<QEVNavigationRecommendationEdge> navigationEdgesOf(
    const QEVMemoryIntelligenceSnapshot& snapshot) {
  // Walked in key order, not map order, so that equal edges reach the
  // engine in the same order on every run.
  std::vector<qr::Counted> patterns(snapshot.recentNavigationPatterns.begin(),
                                    snapshot.recentNavigationPatterns.end());
  std::sort(patterns.begin(), patterns.end());
  std::vector<QEVNavigationRecommendationEdge> edges;
  for (const auto& [key, count] : patterns) {
    const std::vector<std::string_view> pieces = split(key, "->");
    std::string destination = qr::trimmed(pieces.back());
    if (destination.empty()) continue;
    std::optional<std::string> source;
    if (pieces.size() >= 2) {
      std::string first = qr::trimmed(pieces.front());
      if (!first.empty()) source = std::move(first);
    }
    edges.push_back({std::move(source), std::move(destination), count});
  }
  return edges;
}

// The catalogue entries that something in the store mentions.
std::vector<QEVAvailableFeature> mentionedFeatures(
    const std::optional<QEVMemoryIntelligenceSnapshot>& snapshot,
    const std::optional<QEVExperienceDomain>& domain) {
  std::vector<QEVAvailableFeature> catalogue =
      QEVRecommendationsGenerator::featureCatalogue(domain);
  if (!snapshot || catalogue.empty()) return {};
  std::vector<std::string> signals;
  for (const qr::CountMap* map : {&snapshot->frequentComponents, &snapshot->frequentCustomEvents,
                                  &snapshot->frequentlyVisitedScreens}) {
    for (const auto& [key, count] : *map)
      signals.push_back(normalizedRecommendationKey(key));
  }
  std::erase_if(catalogue, [&](const QEVAvailableFeature& feature) {
    const std::string id = normalizedRecommendationKey(feature.featureId);
    return std::none_of(signals.begin(), signals.end(), [&](const std::string& signal) {
      return signal.find(id) != std::string::npos;
    });
  });
  return catalogue;
}

bool isFrustrated(const std::optional<QEVFrustrationAnalysis>& frustration) {
  return frustration && (frustration->level == QEVFrustrationLevel::medium ||
                         frustration->level == QEVFrustrationLevel::high);
}

std::optional<QEVMemoryIntelligenceSnapshot> guardedSnapshot(
    const QEVRecommendationMemorySnapshotProviding& provider, const std::stop_token& stop) {
  try {
    return provider.intelligenceSnapshot(stop);
  } catch (const QEVRCancellationError&) {
    throw;
  } catch (...) {
    return std::nullopt;
  }
}

}  // namespace

QEVRecommendationsGenerator::QEVRecommendationsGenerator(
    QEVRecommendationContextBuilder builder,
    std::shared_ptr<const QEVRecommendationMemorySnapshotProviding> snapshotProvider,
    QEVPersonalizationEngine engine, std::shared_ptr<QEVRecommendationCache> cache)
    : contextBuilder(std::move(builder)),
      memorySnapshotProvider(std::move(snapshotProvider)),
      personalizationEngine(engine),
      resultCache(std::move(cache)) {}

QEVRecommendationsGenerator QEVRecommendationsGenerator::withSources(
    std::shared_ptr<const QEVRecommendationIntelligenceProviding> intelligenceProvider,
    const std::shared_ptr<const QEVRecommendationMemorySnapshotProviding>& memorySnapshotProvider,
    std::shared_ptr<QEVRecommendationCache> cache, QEVRecommendationContextBuilder::Clock now) {
  return QEVRecommendationsGenerator(
      QEVRecommendationContextBuilder(std::move(intelligenceProvider), memorySnapshotProvider,
                                      std::move(now)),
      memorySnapshotProvider, QEVPersonalizationEngine{}, std::move(cache));
}

std::vector<QEVAvailableFeature> QEVRecommendationsGenerator::featureCatalogue(
    const std::optional<QEVExperienceDomain>& domain) {
  std::vector<QEVAvailableFeature> features;
  if (!domain) return features;
  for (const CatalogueEntry& entry : kCatalogue) {
    if (entry.domain == domain->kind()) {
      features.push_back({entry.featureId, entry.featureName, std::nullopt});
    }
  }
  return features;
}

QEVPersonalizationInput QEVRecommendationsGenerator::engineInputs(
    const std::optional<QEVMemoryIntelligenceSnapshot>& snapshot,
    const QEVRecommendationContext& context, const std::optional<QEVExperienceDomain>& domain,
    const QEVRecommendationPolicy& policy) {
  static const QEVMemoryIntelligenceSnapshot kEmpty;
  const QEVMemoryIntelligenceSnapshot& s = snapshot ? *snapshot : kEmpty;
  QEVPersonalizationInput input{
      .uiInput = {},
      .navigationInput = {},
      .featureInput = {},
      .gameplayInput = {},
      .maxRecommendations = policy.maxRecommendations(),
      .policy = policy,
  };

  QEVUIRecommendationInput& ui = input.uiInput;
  ui.frequentComponents = s.frequentComponents;
  ui.screenPatterns = sortedKeys(s.frequentlyVisitedScreens);
  ui.intentAnalysis = context.intentAnalysis;
  ui.frustrationAnalysis = context.frustrationAnalysis;
  if (isFrustrated(context.frustrationAnalysis)) {
    ui.confusingComponentIds = sortedKeys(s.frequentComponents);
  }
  ui.generatedAt = context.generatedAt;

  QEVNavigationRecommendationInput& navigation = input.navigationInput;
  navigation.screenSequence = screenSequenceOf(s);
  navigation.navigationEdges = navigationEdgesOf(s);
  navigation.intentAnalysis = context.intentAnalysis;
  navigation.frustrationAnalysis = context.frustrationAnalysis;
  navigation.generatedAt = context.generatedAt;

  QEVFeatureRecommendationInput& feature = input.featureInput;
  feature.intentAnalysis = context.intentAnalysis;
  feature.frequentCustomEvents = s.frequentCustomEvents;
  feature.componentPatterns = s.frequentComponents;
  feature.domain = domain;
  feature.availableFeatures = mentionedFeatures(snapshot, domain);
  feature.generatedAt = context.generatedAt;

  QEVGameplayRecommendationInput& gameplay = input.gameplayInput;
  gameplay.domain = domain;
  gameplay.skillAnalysis = context.skillAnalysis;
  gameplay.frustrationAnalysis = context.frustrationAnalysis;
  gameplay.customGameEvents = s.frequentCustomEvents;
  gameplay.generatedAt = context.generatedAt;
  return input;
}

std::vector<QEVRecommendation> QEVRecommendationsGenerator::generate(
    const std::optional<QEVExperienceDomain>& domain, const QEVRecommendationPolicy& policy,
    std::stop_token stop) const {
  qevr::checkCancellation(stop);
  const std::optional<QEVMemoryIntelligenceSnapshot> snapshot =
      guardedSnapshot(*memorySnapshotProvider, stop);
  QEVRecommendationCacheKey key =
      QEVRecommendationCacheKey::make(domain, policy, QEVMemorySnapshotSummary::of(snapshot));
  if (auto cached = resultCache->lookup(key)) return std::move(*cached);

  qevr::checkCancellation(stop);
  const QEVRecommendationContext context =
      contextBuilder.build(domain, std::nullopt, /*includeFrustration=*/true, stop);
  qevr::checkCancellation(stop);
  std::vector<QEVRecommendation> result =
      personalizationEngine.recommendations(engineInputs(snapshot, context, domain, policy));
  resultCache->store(result, std::move(key));
  return result;
}
