// What the four engines share: counted entries in their fixed order, the
// scorer call, building a recommendation that may fail validation, and the
// final sort. Internal.
#pragma once

#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationConfidenceScorer.h>

#include "RecommendationSupport.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qevr::recommendations {

using Counted = std::pair<std::string, std::int64_t>;
using CountMap = std::unordered_map<std::string, std::int64_t>;

// Count descending, then key ascending (byte order of NFC UTF-8 is the
// system's text order).
inline bool byCountThenKey(const Counted& a, const Counted& b) {
  if (a.second != b.second) return a.second > b.second;
  return a.first < b.first;
}

inline std::vector<Counted> sortedEntries(const CountMap& map) {
  std::vector<Counted> entries(map.begin(), map.end());
  std::sort(entries.begin(), entries.end(), byCountThenKey);
  return entries;
}

inline std::string countLine(std::string_view key, std::int64_t count) {
  return std::string(key) + ": " + std::to_string(count);
}

inline double patternStrengthOf(std::int64_t count) {
  return std::min(static_cast<double>(count) / 10.0, 1.0);
}

inline std::vector<std::string> firstOf(const std::vector<std::string>& items, std::size_t n) {
  return std::vector<std::string>(
      items.begin(), items.begin() + static_cast<std::ptrdiff_t>(std::min(n, items.size())));
}

inline void appendFirst(std::vector<std::string>& out, const std::vector<std::string>& items,
                        std::size_t n) {
  out.insert(out.end(), items.begin(),
             items.begin() + static_cast<std::ptrdiff_t>(std::min(n, items.size())));
}

// Rules pass an evidence age of 0.0: what the system generates is fresh.
inline QEVRecommendationConfidenceScore scoreRule(const QEVRecommendationConfidenceScorer& scorer,
                                                  std::int64_t evidenceCount,
                                                  double evidenceQuality, double analysisConfidence,
                                                  double patternStrength,
                                                  QEVRecommendationRiskLevel risk) {
  return scorer.score(
      {evidenceCount, evidenceQuality, analysisConfidence, 0.0, patternStrength, risk});
}

struct RuleText {
  std::string title;
  std::string summary;
  std::string reason;
};

// A new recommendation, or nothing when validation refuses it: a rule that
// cannot build a valid result contributes nothing.
inline std::optional<QEVRecommendation> buildRecommendation(
    QEVRecommendationType type, RuleText text, const QEVRecommendationConfidenceScore& score,
    std::vector<std::string> evidence, QEVRecommendationAction action, QEVRDate createdAt) {
  try {
    return QEVRecommendation(QEVRUUID::random(), type, std::move(text.title),
                             std::move(text.summary), score.confidence, score.priority,
                             std::move(text.reason), std::move(evidence), std::move(action),
                             createdAt, std::nullopt);
  } catch (const QEVRecommendationValidationError&) {
    return std::nullopt;
  }
}

inline int rankOf(QEVRecommendationPriority priority) {
  return static_cast<int>(priority);
}

// Stable: priority descending, then confidence descending; ties keep the
// order in which the rules ran. `get` maps an element to its recommendation.
template <typename T, typename Get>
void sortByPriorityAndConfidence(std::vector<T>& items, Get get) {
  std::stable_sort(items.begin(), items.end(), [&](const T& a, const T& b) {
    const QEVRecommendation& x = get(a);
    const QEVRecommendation& y = get(b);
    if (x.priority() != y.priority()) return rankOf(x.priority()) > rankOf(y.priority());
    return x.confidence() > y.confidence();
  });
}

}  // namespace qevr::recommendations
