// One session folded into screens, edges, component and custom event counts.
#pragma once

#include <QEVMemory/QEVMemoryEvent.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <map>

struct QEVR_API QEVNavigationEdge {
  std::optional<std::string> from;
  std::string to;
  std::int64_t count = 0;
  bool operator==(const QEVNavigationEdge&) const = default;
};

struct QEVR_API QEVComponentInteractionSummary {
  std::string componentId;
  std::optional<std::string> screenName;
  std::int64_t tapCount = 0;
  std::int64_t gestureCount = 0;
  bool operator==(const QEVComponentInteractionSummary&) const = default;
};

struct QEVR_API QEVSessionGraph {
  std::optional<QEVRUUID> sessionId;
  std::optional<QEVRDate> startedAt;
  std::optional<QEVRDate> endedAt;
  std::optional<double> duration;  // endedAt - startedAt, not clamped
  std::int64_t eventCount = 0;
  std::vector<std::string> screenSequence;
  std::vector<QEVNavigationEdge> navigationEdges;                     // by (from, to)
  std::vector<QEVComponentInteractionSummary> componentInteractions;  // by (screen, id)
  std::unordered_map<std::string, std::int64_t> customEventCounts;

  bool operator==(const QEVSessionGraph&) const = default;

  void encode(qevr::json::Writer& writer) const;
  static QEVSessionGraph decode(const qevr::json::Decoder& decoder);
  // The on-disk JSON (see QEVMemoryEventChunk::toJSON).
  std::string toJSON() const;
  static QEVSessionGraph fromJSON(std::string_view json);
};

// Folds the events of one session. Thread-safe: every call takes `lock`.
class QEVR_API QEVSessionGraphBuilder {
 public:
  void ingest(const QEVMemoryEvent& event);
  // The graph so far; the builder is left as it is.
  QEVSessionGraph build() const;
  // build(), with a missing startedAt taken from the first event's timestamp
  // and a missing endedAt from the last one's (duration to match): for a
  // session whose own start or end never reached memory, which would
  // otherwise have no date and be the first the pruner removes. Unchanged
  // when no event was ingested.
  QEVSessionGraph buildDatedByEvents() const;

 private:
  using EdgeKey = std::pair<std::optional<std::string>, std::string>;       // (from, to)
  using ComponentKey = std::pair<std::optional<std::string>, std::string>;  // (screen, id)
  struct ComponentCounts {
    std::int64_t tapCount = 0;
    std::int64_t gestureCount = 0;
  };

  mutable qevr::Mutex lock;
  std::optional<QEVRUUID> sessionId QEVR_GUARDED_BY(lock);
  std::optional<QEVRDate> startedAt QEVR_GUARDED_BY(lock);
  std::optional<QEVRDate> endedAt QEVR_GUARDED_BY(lock);
  // Timestamps of the first and the latest ingested event.
  std::optional<QEVRDate> firstEventAt QEVR_GUARDED_BY(lock);
  std::optional<QEVRDate> lastEventAt QEVR_GUARDED_BY(lock);
  std::int64_t eventCount QEVR_GUARDED_BY(lock) = 0;
  std::vector<std::string> screenSequence QEVR_GUARDED_BY(lock);
  std::unordered_map<std::string, std::int64_t> customEventCounts QEVR_GUARDED_BY(lock);
  // Ordered maps whose order is the graph's sort order: an absent text sorts
  // as the empty text and before it, and UTF-8 byte order is code point order.
  std::map<EdgeKey, std::int64_t> navigationEdgeCounts QEVR_GUARDED_BY(lock);
  std::map<ComponentKey, ComponentCounts> componentInteractionCounts QEVR_GUARDED_BY(lock);
};
