// The sessions of one module start added together.
#pragma once

#include <QEVMemory/QEVSessionGraph.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

struct QEVR_API QEVUserGraph {
  QEVRUUID userId;
  QEVRDate createdAt;
  QEVRDate updatedAt;
  std::int64_t totalSessions = 0;
  std::int64_t totalEvents = 0;
  std::unordered_map<std::string, std::int64_t> frequentlyVisitedScreens;
  std::unordered_map<std::string, std::int64_t> frequentComponents;
  std::unordered_map<std::string, std::int64_t> frequentCustomEvents;
  std::optional<double> averageSessionDuration;
  std::optional<QEVRDate> lastSeenAt;

  bool operator==(const QEVUserGraph&) const = default;

  void encode(qevr::json::Writer& writer) const;
  static QEVUserGraph decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVUserGraph fromJSON(std::string_view json);
};

// Thread-safe: every call takes `lock`.
class QEVR_API QEVUserGraphBuilder {
 public:
  QEVUserGraphBuilder(QEVRUUID userId, QEVRDate createdAt);
  // Carries on from a graph built earlier (by an earlier start): its userId,
  // createdAt, dates, totals and maps. The graph keeps only the average
  // duration, so every earlier session is taken to have had one; negative
  // totals count as 0.
  explicit QEVUserGraphBuilder(const QEVUserGraph& earlier);
  void merge(const QEVSessionGraph& session);
  QEVUserGraph build() const;

 private:
  mutable qevr::Mutex lock;
  const QEVRUUID userId;
  const QEVRDate createdAt;
  QEVRDate updatedAt QEVR_GUARDED_BY(lock);
  std::int64_t totalSessions QEVR_GUARDED_BY(lock) = 0;
  std::int64_t totalEvents QEVR_GUARDED_BY(lock) = 0;
  std::unordered_map<std::string, std::int64_t> frequentlyVisitedScreens QEVR_GUARDED_BY(lock);
  std::unordered_map<std::string, std::int64_t> frequentComponents QEVR_GUARDED_BY(lock);
  std::unordered_map<std::string, std::int64_t> frequentCustomEvents QEVR_GUARDED_BY(lock);
  double totalSessionDuration QEVR_GUARDED_BY(lock) = 0;
  std::int64_t sessionsWithDuration QEVR_GUARDED_BY(lock) = 0;
  std::optional<QEVRDate> lastSeenAt QEVR_GUARDED_BY(lock);
};
