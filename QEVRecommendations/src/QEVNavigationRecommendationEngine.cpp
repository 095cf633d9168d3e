#include <QEVRecommendations/QEVNavigationRecommendationEngine.h>

#include "EngineSupport.h"

#include <map>
#include <unordered_set>

namespace qr = qevr::recommendations;
using Edge = QEVNavigationRecommendationEdge;

namespace {

bool isPlaceholder(std::string_view screen) {
  if (screen.empty()) return true;
  const std::string lower = qevr::text::lowercased(screen);
  return lower == "unknown" || lower == "nil" || lower == "null";
}

// Trimmed, with empty counts and placeholder screens removed, in input order.
std::vector<Edge> normalizedEdges(const std::vector<Edge>& edges) {
  std::vector<Edge> out;
  for (const Edge& edge : edges) {
    if (edge.count < 1) continue;
    std::string destination = qr::trimmed(edge.destinationScreen);
    if (isPlaceholder(destination)) continue;
    std::optional<std::string> source;
    if (edge.sourceScreen) {
      source = qr::trimmed(*edge.sourceScreen);
      if (isPlaceholder(*source)) continue;
    }
    out.push_back({std::move(source), std::move(destination), edge.count});
  }
  return out;
}

void sortEdges(std::vector<Edge>& edges) {
  std::stable_sort(edges.begin(), edges.end(), [](const Edge& a, const Edge& b) {
    if (a.count != b.count) return a.count > b.count;
    return a.destinationScreen < b.destinationScreen;
  });
}

std::vector<qr::Counted> rankedDestinations(const std::vector<Edge>& edges) {
  qr::CountMap sums;
  for (const Edge& edge : edges) {
    std::int64_t& sum = sums[edge.destinationScreen];
    sum = qr::saturatingAdd(sum, edge.count);
  }
  return qr::sortedEntries(sums);
}

std::vector<qr::Counted> rankedScreens(const std::vector<std::string>& sequence) {
  qr::CountMap counts;
  for (const std::string& element : sequence) {
    std::string screen = qr::trimmed(element);
    if (!isPlaceholder(screen)) ++counts[screen];
  }
  return qr::sortedEntries(counts);
}

double intentConfidenceOr(const QEVNavigationRecommendationInput& input, double fallback) {
  return input.intentAnalysis ? input.intentAnalysis->confidence : fallback;
}

}  // namespace

std::string QEVNavigationRecommendationEngine::shortcutIdentifier(std::string_view text) {
  std::string out = "shortcut_";
  qr::forEachCharacter(qevr::text::lowercased(text), [&](std::string_view cluster, char32_t first) {
    if (qevr::text::isLetterOrNumber(first)) {
      out.append(cluster);
    } else {
      out.push_back('_');
    }
  });
  return out;
}

std::vector<QEVRecommendation> QEVNavigationRecommendationEngine::recommendations(
    const QEVNavigationRecommendationInput& input) const {
  std::vector<QEVNavigationRecommendationCandidate> candidates;
  auto add = [&](std::optional<std::string> destination,
                 std::optional<QEVRecommendation> recommendation) {
    if (recommendation) candidates.push_back({std::move(destination), std::move(*recommendation)});
  };
  const std::vector<Edge> edges = normalizedEdges(input.navigationEdges);
  std::vector<Edge> sorted = edges;
  sortEdges(sorted);

  // Help around a back-and-forth loop.
  if (const auto& frustration = input.frustrationAnalysis;
      frustration && (frustration->level == QEVFrustrationLevel::medium ||
                      frustration->level == QEVFrustrationLevel::high)) {
    const Edge* loop = nullptr;
    const Edge* partner = nullptr;
    for (const Edge& edge : sorted) {
      if (!edge.sourceScreen) continue;
      for (const Edge& other : edges) {
        if (other.sourceScreen == edge.destinationScreen &&
            other.destinationScreen == *edge.sourceScreen) {
          partner = &other;
          break;
        }
      }
      if (partner) {
        loop = &edge;
        break;
      }
    }
    if (loop) {
      const std::string& first = *loop->sourceScreen;
      const std::string& second = loop->destinationScreen;
      const std::int64_t total = qr::saturatingAdd(loop->count, partner->count);
      const auto score = qr::scoreRule(
          confidenceScorer,
          std::max<std::int64_t>(
              qr::saturatingAdd(total, static_cast<std::int64_t>(frustration->signals.size())), 3),
          frustration->level == QEVFrustrationLevel::high ? 0.9 : 0.75, frustration->confidence,
          qr::patternStrengthOf(total), QEVRecommendationRiskLevel::none);
      std::vector<std::string> evidence{
          first + "->" + second + ": " + std::to_string(loop->count),
          second + "->" + first + ": " + std::to_string(partner->count)};
      evidence.insert(evidence.end(), frustration->signals.begin(), frustration->signals.end());
      evidence.insert(evidence.end(), frustration->likelyCauses.begin(),
                      frustration->likelyCauses.end());
      add(std::nullopt,
          qr::buildRecommendation(
              QEVRecommendationType::navigation,
              {"Show help for navigation loop",
               "Show help around " + first + " to reduce repeated navigation.",
               "Repeated back-and-forth navigation suggests the journey may be unclear."},
              score, qr::firstOf(evidence, 5),
              QEVRecommendationAction::showHelp(std::nullopt, std::nullopt, first),
              input.generatedAt));
    }
  }

  // Shortcut to the most visited destination.
  if (const std::vector<qr::Counted> destinations = rankedDestinations(edges);
      !destinations.empty() && destinations[0].second >= 3) {
    const auto& [destination, sum] = destinations[0];
    std::optional<std::string> source;
    for (const Edge& edge : sorted) {
      if (edge.destinationScreen == destination) {
        source = edge.sourceScreen;
        break;
      }
    }
    const auto score = qr::scoreRule(confidenceScorer, sum, 0.85, intentConfidenceOr(input, 0.6),
                                     qr::patternStrengthOf(sum), QEVRecommendationRiskLevel::none);
    std::vector<std::string> evidence{qr::countLine(destination, sum)};
    if (input.intentAnalysis) qr::appendFirst(evidence, input.intentAnalysis->evidence, 3);
    add(destination,
        qr::buildRecommendation(
            QEVRecommendationType::navigation,
            {"Suggest shortcut to frequent screen", "Offer a shortcut to " + destination + ".",
             "The destination appears frequently in recent navigation."},
            score, std::move(evidence),
            QEVRecommendationAction::suggestShortcut(std::nullopt, std::nullopt, source,
                                                     destination, shortcutIdentifier(destination)),
            input.generatedAt));
  }

  // Default landing screen.
  if (const std::vector<qr::Counted> screens = rankedScreens(input.screenSequence);
      !screens.empty() && screens[0].second >= 4) {
    const auto& [screen, count] = screens[0];
    const auto score = qr::scoreRule(confidenceScorer, count, 0.7, intentConfidenceOr(input, 0.55),
                                     qr::patternStrengthOf(count), QEVRecommendationRiskLevel::low);
    add(std::nullopt,
        qr::buildRecommendation(QEVRecommendationType::navigation,
                                {"Recommend default landing screen",
                                 "Consider making " + screen + " easier to reach at launch.",
                                 "The screen appears frequently in recent journeys."},
                                score, {qr::countLine(screen, count)},
                                QEVRecommendationAction::custom({{"kind", "defaultLandingScreen"},
                                                                 {"destinationScreen", screen}}),
                                input.generatedAt));
  }

  // Fewer steps along the strongest single move.
  for (const Edge& edge : sorted) {
    if (!edge.sourceScreen || edge.count < 3) continue;
    const std::string& source = *edge.sourceScreen;
    const std::string& destination = edge.destinationScreen;
    const auto score =
        qr::scoreRule(confidenceScorer, edge.count, 0.65, intentConfidenceOr(input, 0.55),
                      qr::patternStrengthOf(edge.count), QEVRecommendationRiskLevel::low);
    add(destination, qr::buildRecommendation(
                         QEVRecommendationType::navigation,
                         {"Reduce steps to destination",
                          "Reduce steps from " + source + " to " + destination + ".",
                          "Users frequently navigate between these screens."},
                         score, {source + "->" + destination + ": " + std::to_string(edge.count)},
                         QEVRecommendationAction::suggestShortcut(
                             std::nullopt, std::nullopt, source, destination,
                             shortcutIdentifier(source + "-" + destination)),
                         input.generatedAt));
    break;
  }

  std::erase_if(candidates, [&](const QEVNavigationRecommendationCandidate& c) {
    return c.recommendation.confidence() < minimumConfidence;
  });
  qr::sortByPriorityAndConfidence(
      candidates, [](const QEVNavigationRecommendationCandidate& c) -> const QEVRecommendation& {
        return c.recommendation;
      });
  std::vector<QEVRecommendation> out;
  std::unordered_set<std::string> seen;
  for (QEVNavigationRecommendationCandidate& candidate : candidates) {
    if (candidate.shortcutDestination && !seen.insert(*candidate.shortcutDestination).second) {
      continue;
    }
    out.push_back(std::move(candidate.recommendation));
  }
  return out;
}
