#include <QEVRecommendations/QEVRecommendationCache.h>

#include <algorithm>
#include <charconv>

namespace {

std::string sortedJoined(const std::unordered_set<std::string>& set) {
  std::vector<std::string> items(set.begin(), set.end());
  std::sort(items.begin(), items.end());
  std::string out;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out.push_back(',');
    out.append(items[i]);
  }
  return out;
}

// Shortest round-trip digits, with ".0" after a whole number ("1.0").
std::string shortestDecimal(double value) {
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  std::string text(buffer, result.ptr);
  if (text.find_first_of(".eEn") == std::string::npos) text += ".0";
  return text;
}

std::string_view flag(bool value) {
  return value ? "true" : "false";
}

void combine(std::size_t& seed, std::size_t value) {
  seed ^= value + 0x9E3779B97F4A7C15ULL + (seed << 6) + (seed >> 2);
}

// Order-independent, as the maps are unordered.
std::size_t hashCounts(const std::unordered_map<std::string, std::int64_t>& map) {
  std::size_t sum = map.size();
  for (const auto& [key, count] : map) {
    std::size_t entry = std::hash<std::string>{}(key);
    combine(entry, std::hash<std::int64_t>{}(count));
    sum += entry;
  }
  return sum;
}

std::vector<QEVRecommendation> unexpired(const std::vector<QEVRecommendation>& recommendations,
                                         QEVRDate now) {
  std::vector<QEVRecommendation> out;
  out.reserve(recommendations.size());
  for (const QEVRecommendation& r : recommendations) {
    if (!r.isExpired(now)) out.push_back(r);
  }
  return out;
}

}  // namespace

QEVMemorySnapshotSummary QEVMemorySnapshotSummary::of(
    const std::optional<QEVMemoryIntelligenceSnapshot>& snapshot) {
  if (!snapshot) return {};
  return {snapshot->totalSessions,
          snapshot->totalEvents,
          snapshot->frequentlyVisitedScreens,
          snapshot->frequentComponents,
          snapshot->frequentCustomEvents,
          snapshot->recentNavigationPatterns,
          snapshot->recentScreenSequences};
}

std::string QEVRecommendationCacheKey::domainText(
    const std::optional<QEVExperienceDomain>& domain) {
  if (!domain) return "none";
  std::string text = "some:" + std::string(caseNameOf(domain->kind()));
  // The raw text after a separator the case names never contain; the
  // redacted label could make two custom domains equal.
  if (domain->kind() == QEVExperienceDomain::Kind::custom) text += ":" + domain->customText();
  return text;
}

std::string QEVRecommendationCacheKey::policyHashOf(const QEVRecommendationPolicy& policy) {
  std::string out = shortestDecimal(policy.minimumConfidence());
  for (bool value : {policy.allowUIRecommendations(), policy.allowNavigationRecommendations(),
                     policy.allowFeatureRecommendations(), policy.allowPersonalization(),
                     policy.allowGameplayRecommendations()}) {
    out.push_back('|');
    out.append(flag(value));
  }
  out += "|" + std::to_string(policy.maxRecommendations());
  out += "|" + sortedJoined(policy.protectedComponentIds());
  out += "|" + sortedJoined(policy.protectedScreenNames());
  return out;
}

QEVRecommendationCacheKey QEVRecommendationCacheKey::make(
    const std::optional<QEVExperienceDomain>& domain, const QEVRecommendationPolicy& policy,
    QEVMemorySnapshotSummary summary) {
  return {domainText(domain), policyHashOf(policy), std::move(summary)};
}

std::size_t std::hash<QEVRecommendationCacheKey>::operator()(
    const QEVRecommendationCacheKey& key) const noexcept {
  const std::hash<std::string> text;
  const QEVMemorySnapshotSummary& s = key.contextHash;
  std::size_t seed = text(key.domain);
  combine(seed, text(key.policyHash));
  combine(seed, std::hash<std::int64_t>{}(s.totalSessions));
  combine(seed, std::hash<std::int64_t>{}(s.totalEvents));
  combine(seed, hashCounts(s.frequentlyVisitedScreens));
  combine(seed, hashCounts(s.frequentComponents));
  combine(seed, hashCounts(s.frequentCustomEvents));
  combine(seed, hashCounts(s.recentNavigationPatterns));
  combine(seed, s.recentScreenSequences.size());
  for (const std::string& line : s.recentScreenSequences)
    combine(seed, text(line));
  return seed;
}

QEVRecommendationCache::QEVRecommendationCache(Clock clock, double ttlSeconds)
    : now(std::move(clock)), ttl(ttlSeconds) {}

std::optional<std::vector<QEVRecommendation>> QEVRecommendationCache::lookup(
    const std::optional<QEVExperienceDomain>& domain, const QEVRecommendationPolicy& policy,
    const QEVMemorySnapshotSummary& summary) {
  return lookup(QEVRecommendationCacheKey::make(domain, policy, summary));
}

std::optional<std::vector<QEVRecommendation>> QEVRecommendationCache::lookup(
    const QEVRecommendationCacheKey& key) {
  const QEVRDate current = now();
  qevr::MutexLock guard(lock);
  auto it = entries.find(key);
  if (it == entries.end()) return std::nullopt;
  Entry& entry = it->second;
  // A negative age (the clock went back) counts as fresh.
  if (current.secondsSinceReferenceDate - entry.storedAt.secondsSinceReferenceDate > ttl) {
    entries.erase(it);
    return std::nullopt;
  }
  std::vector<QEVRecommendation> kept = unexpired(entry.recommendations, current);
  if (kept.empty()) {
    entries.erase(it);
    return std::nullopt;
  }
  // storedAt stays: filtering must not prolong the entry's life.
  if (kept.size() != entry.recommendations.size()) entry.recommendations = kept;
  return kept;
}

void QEVRecommendationCache::store(const std::vector<QEVRecommendation>& recommendations,
                                   const std::optional<QEVExperienceDomain>& domain,
                                   const QEVRecommendationPolicy& policy,
                                   const QEVMemorySnapshotSummary& summary) {
  store(recommendations, QEVRecommendationCacheKey::make(domain, policy, summary));
}

void QEVRecommendationCache::store(const std::vector<QEVRecommendation>& recommendations,
                                   QEVRecommendationCacheKey key) {
  const QEVRDate current = now();
  std::vector<QEVRecommendation> kept = unexpired(recommendations, current);
  if (kept.empty()) return;
  qevr::MutexLock guard(lock);
  entries.insert_or_assign(std::move(key), Entry{std::move(kept), current});
}

void QEVRecommendationCache::clear() {
  std::unordered_map<QEVRecommendationCacheKey, Entry> old;
  {
    qevr::MutexLock guard(lock);
    old.swap(entries);
  }
  // The entries are destroyed here, outside the lock.
}

std::size_t QEVRecommendationCache::entryCount() const {
  qevr::MutexLock guard(lock);
  return entries.size();
}
