// Remembers, in memory and for 300 seconds, the result of a generation for
// a domain, a policy and a state of the memory store.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

// The part of a snapshot that decides whether a cached result still holds:
// the counts, the four maps and the recent sequences. The average session
// duration and the time window are left out on purpose.
struct QEVR_API QEVMemorySnapshotSummary {
  std::int64_t totalSessions = 0;
  std::int64_t totalEvents = 0;
  std::unordered_map<std::string, std::int64_t> frequentlyVisitedScreens;
  std::unordered_map<std::string, std::int64_t> frequentComponents;
  std::unordered_map<std::string, std::int64_t> frequentCustomEvents;
  std::unordered_map<std::string, std::int64_t> recentNavigationPatterns;
  std::vector<std::string> recentScreenSequences;

  bool operator==(const QEVMemorySnapshotSummary&) const = default;

  // The fields of the same names; zero and empty without a snapshot.
  static QEVMemorySnapshotSummary of(const std::optional<QEVMemoryIntelligenceSnapshot>& snapshot);
};

struct QEVR_API QEVRecommendationCacheKey {
  std::string domain;                    // distinct for every domain and for none
  std::string policyHash;                // the policy as readable text
  QEVMemorySnapshotSummary contextHash;  // compared whole, not digested

  bool operator==(const QEVRecommendationCacheKey&) const = default;

  static QEVRecommendationCacheKey make(const std::optional<QEVExperienceDomain>& domain,
                                        const QEVRecommendationPolicy& policy,
                                        QEVMemorySnapshotSummary summary);
  // A text that differs between any two domains, `custom` payloads
  // included, and from the text for no domain. Never shown.
  static std::string domainText(const std::optional<QEVExperienceDomain>& domain);
  // The nine fields joined by "|", the sets sorted and joined by ",": the
  // default game policy is "0.65|true|true|true|true|true|10||".
  static std::string policyHashOf(const QEVRecommendationPolicy& policy);
};

template <>
struct QEVR_API std::hash<QEVRecommendationCacheKey> {
  std::size_t operator()(const QEVRecommendationCacheKey& key) const noexcept;
};

// Thread safety: `lock` guards `entries` and is held only for the map
// operations and the expiry filter; the clock is read before it is taken.
// Any thread may call any operation.
class QEVR_API QEVRecommendationCache {
 public:
  using Clock = std::function<QEVRDate()>;
  static constexpr double kDefaultTTLSeconds = 300.0;

  // `now` must be callable from any thread.
  explicit QEVRecommendationCache(
      Clock now = [] { return qevr::now(); }, double ttlSeconds = kDefaultTTLSeconds);

  // The stored list without the recommendations that have expired by now;
  // absent when there is none, when it is older than the TTL (an entry
  // exactly that old still counts), or when all of it has expired.
  std::optional<std::vector<QEVRecommendation>> lookup(
      const std::optional<QEVExperienceDomain>& domain, const QEVRecommendationPolicy& policy,
      const QEVMemorySnapshotSummary& summary);
  // Stores the unexpired recommendations with the current time. An empty
  // (or wholly expired) list changes nothing.
  void store(const std::vector<QEVRecommendation>& recommendations,
             const std::optional<QEVExperienceDomain>& domain,
             const QEVRecommendationPolicy& policy, const QEVMemorySnapshotSummary& summary);
  void clear();

  // The same two operations with a key made once by the caller, so that a
  // generation copies its summary once for both.
  std::optional<std::vector<QEVRecommendation>> lookup(const QEVRecommendationCacheKey& key);
  void store(const std::vector<QEVRecommendation>& recommendations, QEVRecommendationCacheKey key);

  // Number of entries, for tests and diagnostics.
  std::size_t entryCount() const;

 private:
  struct Entry {
    std::vector<QEVRecommendation> recommendations;
    QEVRDate storedAt;
  };

  const Clock now;
  const double ttl;
  mutable qevr::Mutex lock;
  std::unordered_map<QEVRecommendationCacheKey, Entry> entries QEVR_GUARDED_BY(lock);
};
