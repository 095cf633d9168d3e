// A short-lived in-memory store of analysis results, and the hash by which
// a context finds them.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include "QEVIntelligenceContext.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>

enum class QEVIntelligenceAnalysisType {
  behaviorSummary,
  intentAnalysis,
  frustrationAnalysis,
  skillAnalysis
};

// Shared by reference between the analysers of one start.
//
// Thread safety: `lock` guards `entries` for the whole of each operation. No
// other lock is taken under it; where the runtime's lock is held as well,
// that one is taken first.
class QEVIntelligenceCache {
 public:
  static constexpr double kDefaultTtlSeconds = 300.0;

  struct Key {
    QEVIntelligenceAnalysisType analysisType = QEVIntelligenceAnalysisType::behaviorSummary;
    std::string contextHash;
    // The domain's label; always absent for behaviorSummary and
    // frustrationAnalysis.
    std::optional<std::string> domain;
    bool operator==(const Key&) const = default;
  };

  using Value =
      std::variant<QEVBehaviorSummary, QEVIntentAnalysis, QEVFrustrationAnalysis, QEVSkillAnalysis>;

  struct Entry {
    Value value;
    QEVRDate expiresAt;
  };

  explicit QEVIntelligenceCache(
      std::function<QEVRDate()> now = [] { return qevr::now(); },
      double ttlSeconds = kDefaultTtlSeconds);

  // The stored result of type T, if one is there and has not expired. An
  // expired entry (expiresAt at or before now) is removed; an entry of
  // another type stays.
  template <typename T>
  std::optional<T> value(const Key& key) {
    std::optional<Value> found = lookup(key);
    if (!found) return std::nullopt;
    if (T* typed = std::get_if<T>(&*found)) return std::move(*typed);
    return std::nullopt;
  }

  // Stores `value` until now + ttl, replacing any entry of the key. Entries
  // that have expired meanwhile leave the map here, so it stays bounded by
  // what one time to live can gather.
  void store(Value value, const Key& key);

  void clear();

  // Entries held, expired ones included. For tests and diagnostics.
  std::size_t count() const;

  double ttl() const { return ttlSeconds; }

 private:
  struct KeyHash {
    std::size_t operator()(const Key& key) const;
  };

  std::optional<Value> lookup(const Key& key);

  const double ttlSeconds;
  const std::function<QEVRDate()> now;
  mutable qevr::Mutex lock;
  std::unordered_map<Key, Entry, KeyHash> entries QEVR_GUARDED_BY(lock);
};

// 64-bit FNV-1a over the unlimited compact text, the raw execution mode and
// the metadata sorted by key ("k=v" joined by "&"), these three joined by
// newlines; written as 16 lower-case hexadecimal digits.
std::string contextHash(const QEVIntelligenceContext& context);

// The hash step alone, as 16 hexadecimal digits: "a" gives af63dc4c8601ec8c.
std::string fnv1a64Hex(std::string_view bytes);
