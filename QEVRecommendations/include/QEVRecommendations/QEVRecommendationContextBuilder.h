// Gathers, at the start of a generation, what the engines may know of the
// user: the four analyses and two short summaries of the memory snapshot,
// all asked for at once, all optional, all redacted. Not part of the host's
// API: the generator is its only caller.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendationSources.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct QEVR_API QEVRecommendationContext {
  std::optional<QEVBehaviorSummary> behaviorSummary;          // redacted copy
  std::optional<QEVIntentAnalysis> intentAnalysis;            // redacted copy
  std::optional<QEVFrustrationAnalysis> frustrationAnalysis;  // redacted copy
  std::optional<QEVSkillAnalysis> skillAnalysis;              // redacted copy
  std::string userGraphSummary;      // at most 2000 characters; empty without a snapshot
  std::string recentSessionSummary;  // at most 2000 characters; empty without a snapshot
  std::optional<QEVExperienceDomain> domain;
  QEVRDate generatedAt;

  bool operator==(const QEVRecommendationContext&) const = default;

  // Keys in field order; absent analyses and domain left out.
  void encode(qevr::json::Writer& writer) const;
  static QEVRecommendationContext decode(const qevr::json::Decoder& decoder);
};

// Trims, then replaces e-mail addresses and phone numbers by "[redacted]"
// and `word: value` secrets (password, token, secret, auth, authorization,
// cookie) by "<word as found>=[redacted]".
QEVR_API std::string redactRecommendationText(std::string_view text);
// Each element redacted; those that come out empty are dropped.
QEVR_API std::vector<std::string> redactRecommendationTexts(const std::vector<std::string>& texts);
// "<title>: k1: n1, k2: n2, ..." over the five largest counts (count
// descending, then key), keys redacted and dropped when they come out
// empty; empty when nothing is left.
QEVR_API std::string topItemsFragment(std::string_view title,
                                      const std::unordered_map<std::string, std::int64_t>& map);
// The two summaries of a snapshot, redacted and cut to 2000 characters.
QEVR_API std::string userGraphSummaryOf(const QEVMemoryIntelligenceSnapshot& snapshot);
QEVR_API std::string recentSessionSummaryOf(const QEVMemoryIntelligenceSnapshot& snapshot);

// Holds no state of its own beyond its sources; any thread may call build.
class QEVR_API QEVRecommendationContextBuilder {
 public:
  using Clock = std::function<QEVRDate()>;

  // `now` must be callable from any thread; `executor` must outlive the
  // builder and its copies.
  QEVRecommendationContextBuilder(
      std::shared_ptr<const QEVRecommendationIntelligenceProviding> intelligenceProvider,
      std::shared_ptr<const QEVRecommendationMemorySnapshotProviding> memorySnapshotProvider,
      Clock now = [] { return qevr::now(); }, qevr::Executor& executor = qevr::defaultExecutor());

  // Calls the five sources concurrently on child tasks of `stop`, on the
  // builder's executor. A source
  // that fails leaves its field absent (or the summaries empty); only
  // cancellation escapes, as QEVRCancellationError, after every child has
  // finished. With `maximumAnalysisAge`, analyses older than that against
  // the build's clock reading are dropped. Without `includeFrustration`
  // the frustration source is not called.
  QEVRecommendationContext build(const std::optional<QEVExperienceDomain>& domain,
                                 std::optional<double> maximumAnalysisAge, bool includeFrustration,
                                 std::stop_token stop = {}) const;

 private:
  std::shared_ptr<const QEVRecommendationIntelligenceProviding> intelligence;
  std::shared_ptr<const QEVRecommendationMemorySnapshotProviding> memory;
  Clock now;
  qevr::Executor* executor;  // never null
};
