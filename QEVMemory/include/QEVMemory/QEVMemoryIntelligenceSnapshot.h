// The compact, aggregate, redacted view of memory that the layers above
// read: no events, no identifiers.
#pragma once

#include <QEVMemory/QEVMemoryStore.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Export.h>

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct QEVR_API QEVMemoryIntelligenceSnapshot {
  std::int64_t totalSessions = 0;
  std::int64_t totalEvents = 0;
  std::unordered_map<std::string, std::int64_t> frequentlyVisitedScreens;
  std::unordered_map<std::string, std::int64_t> frequentComponents;
  std::unordered_map<std::string, std::int64_t> frequentCustomEvents;
  std::optional<double> averageSessionDuration;
  // "source->target" over the five most recent sessions' edges.
  std::unordered_map<std::string, std::int64_t> recentNavigationPatterns;
  // One "A > B > C" line per recent session, most recent first.
  std::vector<std::string> recentScreenSequences;
  std::optional<QEVRDate> timeWindowStart;
  std::optional<QEVRDate> timeWindowEnd;

  bool operator==(const QEVMemoryIntelligenceSnapshot&) const = default;

  // Keys are the field names; dates by the writer's or decoder's strategy.
  void encode(qevr::json::Writer& writer) const;
  static QEVMemoryIntelligenceSnapshot decode(const qevr::json::Decoder& decoder);
};

// Reads the session graphs and the user graph (concurrently, on child tasks
// of `executor`) and builds the snapshot. Throws what the loads throw; a
// damaged file fails the whole call.
QEVR_API QEVMemoryIntelligenceSnapshot intelligenceSnapshot(qevr::Executor& executor,
                                                            QEVMemoryStore& store,
                                                            std::stop_token stop = {});
// The same on the default executor.
QEVR_API QEVMemoryIntelligenceSnapshot intelligenceSnapshot(QEVMemoryStore& store,
                                                            std::stop_token stop = {});

// Trims, then replaces e-mail addresses and phone numbers by "[redacted]".
QEVR_API std::string redactedSnapshotText(std::string_view text);
