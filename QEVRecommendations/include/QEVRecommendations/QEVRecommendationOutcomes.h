// What the host did with a recommendation, and what changed afterwards.
//
// The same advice comes back from one generation to the next with a new id,
// so outcomes are kept per advice: its key is the recommendation's type,
// its action's kind and the action's target (component, screen, feature or
// direction of a difficulty change) in normalizedRecommendationKey form.
// The outcome log holds one history per key; it lives in the memory store
// as <root>/outcomes.json and is bounded in entries, age and bytes.
//
// An effect compares this user's sessions before an advice was first
// applied with the sessions after it, on the one figure that fits the
// action. It is an observed change, not a proof that the recommendation
// caused it: anything else that changed in between shows up too.
#pragma once

#include <QEVMemory/QEVSessionGraph.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendation.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class QEVRecommendationOutcome { shown, applied, dismissed };

// `tooEarly`: fewer than kQEVEffectMinimumSessions sessions on either side.
enum class QEVRecommendationEffect { improved, unchanged, worse, tooEarly };

// The figure an effect is measured by, one per family of actions:
// - repeatedInteractions: interactions with the component past the first,
//   per session that touched it (help, highlight or reorder on a component);
// - failuresAndRetries: custom events whose name holds "fail", "death" or
//   "retry", per session with custom events (a difficulty change, and help
//   without a component in a game);
// - featureUse: the share of sessions with an event, component or screen
//   whose name holds the feature's id (a feature suggestion);
// - destinationSteps: screens seen before the destination, per session that
//   reached it, with the share of sessions that reached it beside (a
//   navigation shortcut).
// Hiding a component and custom actions have no figure and no effect.
enum class QEVRecommendationSignal {
  repeatedInteractions,
  failuresAndRetries,
  featureUse,
  destinationSteps
};

QEVR_API std::string_view rawValueOf(QEVRecommendationOutcome outcome);
QEVR_API std::string_view rawValueOf(QEVRecommendationEffect effect);
QEVR_API std::string_view rawValueOf(QEVRecommendationSignal signal);
// Absent for any other text.
QEVR_API std::optional<QEVRecommendationOutcome> recommendationOutcomeFromRawValue(
    std::string_view raw);

// "<type>/<kind>/<target>", for example "gameplay/adjustDifficulty/decrease"
// or "ui/showHelp/applycoupon||cart". Never empty.
QEVR_API std::string recommendationOutcomeKey(const QEVRecommendation& recommendation);

inline constexpr std::int64_t kQEVEffectMinimumSessions = 3;
// Each side of a comparison takes at most this many sessions, the latest.
inline constexpr std::size_t kQEVEffectWindowSessions = 10;

struct QEVR_API QEVRecommendationEffectMeasurement {
  QEVRecommendationEffect effect = QEVRecommendationEffect::tooEarly;
  QEVRecommendationSignal signal = QEVRecommendationSignal::repeatedInteractions;
  // The sessions each side counted, and the figure's mean over them.
  std::int64_t sessionsBefore = 0;
  std::int64_t sessionsAfter = 0;
  double before = 0;
  double after = 0;
  // destinationSteps only: the share of sessions that reached it.
  std::optional<double> reachedBefore;
  std::optional<double> reachedAfter;

  bool operator==(const QEVRecommendationEffectMeasurement&) const = default;
  void encode(qevr::json::Writer& writer) const;
};

// Every outcome recorded for one advice.
struct QEVR_API QEVRecommendationOutcomeHistory {
  std::string key;
  // Of the latest recommendation recorded under the key.
  QEVRecommendationType type = QEVRecommendationType::ui;
  std::string title;
  QEVRecommendationAction action = QEVRecommendationAction::custom({});
  std::int64_t shownCount = 0;
  std::int64_t appliedCount = 0;
  std::int64_t dismissedCount = 0;
  QEVRDate firstRecordedAt;
  QEVRDate lastRecordedAt;
  // When it was first applied: the line between before and after.
  std::optional<QEVRDate> firstAppliedAt;
  // The latest dismissals, oldest first (at most kKeptDismissals).
  std::vector<QEVRDate> dismissedAt;

  // Filled in by QEVR::Recommendations::outcomes(), never stored: the
  // effect once applied (absent for actions without a figure) and whether
  // outcome learning holds the advice back now.
  std::optional<QEVRecommendationEffectMeasurement> effect;
  bool isHeldBack = false;

  static constexpr std::size_t kKeptDismissals = 8;

  bool operator==(const QEVRecommendationOutcomeHistory&) const = default;
  // `effect` and `isHeldBack` are written only with `withFindings`.
  void encode(qevr::json::Writer& writer, bool withFindings) const;
  static QEVRecommendationOutcomeHistory decode(const qevr::json::Decoder& decoder);
};

// The outcome log: one history per key, in the order keys were first seen.
class QEVR_API QEVRecommendationOutcomeLog {
 public:
  static constexpr std::size_t kMaxEntries = 256;
  // A history with nothing recorded for this long is forgotten.
  static constexpr double kMaxAgeDays = 365;

  void record(const QEVRecommendation& recommendation, QEVRecommendationOutcome outcome,
              QEVRDate at);
  // Forgets histories past kMaxAgeDays, then the least recently recorded
  // beyond kMaxEntries.
  void trim(QEVRDate now);

  const std::vector<QEVRecommendationOutcomeHistory>& histories() const { return entries; }
  const QEVRecommendationOutcomeHistory* find(std::string_view key) const;

  // {"format":"qevr-outcomes/1","histories":[...]}. fromJSON throws
  // qevr::json::DecodingError for anything else, a duplicate key or more
  // than kMaxEntries histories.
  std::string toJSON() const;
  static QEVRecommendationOutcomeLog fromJSON(std::string_view json);

 private:
  std::vector<QEVRecommendationOutcomeHistory> entries;
};

// The effect of the history's advice on `graphs`; absent until it was
// applied, and for actions without a figure. Sessions are dated by their
// start (else their end), in whole seconds; a session that may have run
// across the moment of application, or has no date, is left out. Only
// memory continuity dates every session (QEVR::Memory::setContinuity):
// without it a session closed by shutdown has no dates, and effects stay
// tooEarly.
QEVR_API std::optional<QEVRecommendationEffectMeasurement> measureRecommendationEffect(
    const QEVRecommendationOutcomeHistory& history, const std::vector<QEVSessionGraph>& graphs);

// Whether outcome learning holds the advice back at `now`: dismissed at
// least twice with the latest dismissal less than 30 days ago, or applied
// with an effect that is not `worse` (still `tooEarly` included: the host
// has just adapted to it). A `worse` effect lets it come back, and shows in
// outcomes() for the host to undo.
QEVR_API bool isHeldBackByOutcomes(const QEVRecommendationOutcomeHistory& history, QEVRDate now);

inline constexpr double kQEVDismissalHoldDays = 30;
