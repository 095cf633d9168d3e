#include <QEVRecommendations/QEVFeatureRecommendationEngine.h>

#include "EngineSupport.h"

#include <cmath>

namespace qr = qevr::recommendations;
using Engine = QEVFeatureRecommendationEngine;

namespace {

const std::vector<std::string_view>& domainFeatures(
    const std::optional<QEVExperienceDomain>& domain) {
  static const std::vector<std::string_view> kGame = {"challenge_mode", "tutorial", "difficulty"};
  static const std::vector<std::string_view> kEcommerce = {"reorder", "wishlist", "offers"};
  static const std::vector<std::string_view> kTelecom = {"recharge", "data_package", "roaming",
                                                         "support"};
  static const std::vector<std::string_view> kNone;
  if (!domain) return kNone;
  switch (domain->kind()) {
    case QEVExperienceDomain::Kind::game:
      return kGame;
    case QEVExperienceDomain::Kind::ecommerce:
      return kEcommerce;
    case QEVExperienceDomain::Kind::telecom:
      return kTelecom;
    default:
      return kNone;
  }
}

std::string_view reasonText(std::string_view reasonCode) {
  if (reasonCode == "recently_unused_relevant") {
    return "The feature is relevant to current intent but has not appeared recently.";
  }
  if (reasonCode == "intent_match") return "The feature matches the current inferred intent.";
  if (reasonCode == "domain_relevant") {
    return "The feature is relevant for the configured experience domain.";
  }
  return "The feature matches recent behavior patterns.";
}

void addTokens(std::unordered_set<std::string>& tokens, const std::string& normalized) {
  std::size_t start = 0;
  while (start <= normalized.size()) {
    const std::size_t end = std::min(normalized.find('_', start), normalized.size());
    if (end > start) tokens.insert(normalized.substr(start, end - start));
    start = end + 1;
  }
}

// The two strongest entries whose normal form contains the whole normalised
// identifier (not its tokens), with the keys as they stand.
std::vector<std::string> patternEvidence(const qr::CountMap& map, std::string_view featureId) {
  const std::string id = Engine::featureMatchText(featureId);
  std::vector<qr::Counted> matched;
  for (const auto& [key, count] : map) {
    if (Engine::featureMatchText(key).find(id) != std::string::npos)
      matched.emplace_back(key, count);
  }
  std::sort(matched.begin(), matched.end(), qr::byCountThenKey);
  std::vector<std::string> out;
  for (std::size_t i = 0; i < matched.size() && i < 2; ++i) {
    out.push_back(qr::countLine(matched[i].first, matched[i].second));
  }
  return out;
}

}  // namespace

std::string QEVFeatureRecommendationEngine::featureMatchText(std::string_view text) {
  std::string out;
  qr::forEachCharacter(qevr::text::lowercased(qevr::text::trim(text)),
                       [&](std::string_view cluster, char32_t first) {
                         if (qevr::text::isLetterOrNumber(first)) {
                           out.append(cluster);
                         } else if (out.empty() || out.back() != '_') {
                           out.push_back('_');
                         }
                       });
  return out;
}

bool QEVFeatureRecommendationEngine::featureMatches(std::string_view text,
                                                    std::string_view featureId,
                                                    std::string_view featureName) {
  const std::string haystack = featureMatchText(text);
  const std::string id = featureMatchText(featureId);
  const std::string name = featureMatchText(featureName);
  std::unordered_set<std::string> tokens;
  addTokens(tokens, id);
  addTokens(tokens, name);
  for (const std::string& token : tokens) {
    if (haystack.find(token) != std::string::npos) return true;
  }
  // Only reachable when both normal forms have no token at all ("_" or
  // empty); kept for exactly those forms.
  return haystack.find(id) != std::string::npos || haystack.find(name) != std::string::npos;
}

double QEVFeatureRecommendationEngine::patternScore(
    const std::unordered_map<std::string, std::int64_t>& map, std::string_view featureId,
    std::string_view featureName) {
  std::int64_t sum = 0;
  for (const auto& [key, count] : map) {
    if (featureMatches(key, featureId, featureName)) {
      sum = qr::saturatingAdd(sum, std::max<std::int64_t>(count, 0));
    }
  }
  if (sum < 1) return 0.0;
  return std::min(static_cast<double>(sum) / 20.0, 0.2);
}

std::optional<Engine::RankedFeature> QEVFeatureRecommendationEngine::rank(
    const QEVAvailableFeature& feature, const QEVFeatureRecommendationInput& input) {
  const QEVIntentAnalysis& intent = *input.intentAnalysis;
  QEVAvailableFeature trimmedFeature{qr::trimmed(feature.featureId),
                                     qr::trimmed(feature.featureName), std::nullopt};
  if (feature.reasonCode) trimmedFeature.reasonCode = qr::trimmed(*feature.reasonCode);
  const std::string& id = trimmedFeature.featureId;
  const std::string& name = trimmedFeature.featureName;
  if (id.empty() || name.empty()) return std::nullopt;

  const std::vector<std::string_view>& relevant = domainFeatures(input.domain);
  const bool domainRelevant = std::find(relevant.begin(), relevant.end(), id) != relevant.end();
  bool intentMatch = featureMatches(intent.primaryIntent, id, name);
  for (const std::string& secondary : intent.secondaryIntents) {
    intentMatch = intentMatch || featureMatches(secondary, id, name);
  }
  for (const std::string& line : intent.evidence) {
    intentMatch = intentMatch || featureMatches(line, id, name);
  }
  const bool recentlyUnused = input.recentlyUnusedFeatureIds.contains(id);

  double score = domainRelevant ? 0.25 : 0.0;
  score = score + (intentMatch ? 0.35 : 0.0);
  score = score + patternScore(input.frequentCustomEvents, id, name);
  score = score + patternScore(input.componentPatterns, id, name);
  score = score + (recentlyUnused ? 0.1 : 0.0);
  if (!(score > 0.0)) return std::nullopt;

  std::vector<std::string> evidence{"intent: " + intent.primaryIntent};
  qr::appendFirst(evidence, intent.evidence, 2);
  qr::appendFirst(evidence, patternEvidence(input.frequentCustomEvents, id), 2);
  qr::appendFirst(evidence, patternEvidence(input.componentPatterns, id), 2);
  if (evidence.size() > 5) evidence.resize(5);

  RankedFeature ranked;
  ranked.evidenceCount = std::max<std::int64_t>(std::llround(score * 10.0),
                                                static_cast<std::int64_t>(evidence.size()));
  ranked.reasonCode = recentlyUnused   ? "recently_unused_relevant"
                      : intentMatch    ? "intent_match"
                      : domainRelevant ? "domain_relevant"
                                       : "pattern_match";
  ranked.evidenceQuality = std::min(score + 0.45, 0.95);
  ranked.patternStrength = std::min(score, 1.0);
  ranked.score = score;
  ranked.evidence = std::move(evidence);
  ranked.feature = std::move(trimmedFeature);
  return ranked;
}

std::vector<QEVRecommendation> QEVFeatureRecommendationEngine::recommendations(
    const QEVFeatureRecommendationInput& input) const {
  if (!input.intentAnalysis || input.availableFeatures.empty()) return {};
  std::vector<RankedFeature> ranked;
  for (const QEVAvailableFeature& feature : input.availableFeatures) {
    if (auto r = rank(feature, input)) ranked.push_back(std::move(*r));
  }
  std::stable_sort(ranked.begin(), ranked.end(),
                   [](const RankedFeature& a, const RankedFeature& b) {
                     if (a.score != b.score) return a.score > b.score;
                     return a.feature.featureId < b.feature.featureId;
                   });

  std::vector<QEVRecommendation> out;
  for (const RankedFeature& r : ranked) {
    const std::string reasonCode = r.feature.reasonCode.value_or(r.reasonCode);
    const auto score = confidenceScorer.score(
        {r.evidenceCount, r.evidenceQuality, input.intentAnalysis->confidence, 0.0,
         r.patternStrength, QEVRecommendationRiskLevel::none});
    const bool unused = input.recentlyUnusedFeatureIds.contains(r.feature.featureId);
    try {
      QEVRecommendationFeaturePayload payload(r.feature.featureId, r.feature.featureName,
                                              reasonCode);
      std::optional<QEVRecommendation> recommendation = qr::buildRecommendation(
          QEVRecommendationType::feature,
          {unused ? "Suggest recently unused feature" : "Suggest relevant feature",
           "Suggest " + r.feature.featureName + " based on current intent.",
           std::string(reasonText(reasonCode))},
          score, r.evidence,
          QEVRecommendationAction::suggestFeature(r.feature.featureId, std::nullopt,
                                                  std::move(payload)),
          input.generatedAt);
      if (recommendation && recommendation->confidence() >= minimumConfidence) {
        out.push_back(std::move(*recommendation));
      }
    } catch (const QEVRecommendationValidationError&) {
      // A blank reason code: this feature is skipped.
    }
  }
  qr::sortByPriorityAndConfidence(
      out, [](const QEVRecommendation& r) -> const QEVRecommendation& { return r; });
  if (out.size() > 3) out.erase(out.begin() + 3, out.end());
  return out;
}
