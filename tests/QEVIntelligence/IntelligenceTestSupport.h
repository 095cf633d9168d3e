// Shared helpers for the intelligence tests: snapshots made to order, a
// snapshot source that counts its calls, and analysers wired over it with a
// fixed clock.
#pragma once

#include <QEVIntelligence/QEVMemoryIntelligenceSnapshotProviding.h>
#include <QEVRPlatform/Tasks.h>

#include <atomic>
#include <functional>
#include <memory>

#include "QEVIntelligencePatterns.h"
#include "QEVIntelligenceRuntime.h"

// 2026-11-17T10:31:33Z.
inline const QEVRDate kTestNow = QEVRDate::fromUnixSeconds(1794911493);

using Counts = std::unordered_map<std::string, std::int64_t>;
using Strings = std::vector<std::string>;

struct SnapshotShape {
  Counts screens = {};
  Counts components = {};
  Counts customEvents = {};
  Counts navigation = {};
  std::vector<std::string> sequences = {};
};

inline QEVMemoryIntelligenceSnapshot makeSnapshot(const SnapshotShape& shape) {
  QEVMemoryIntelligenceSnapshot snapshot;
  snapshot.totalSessions = 3;
  snapshot.totalEvents = 40;
  snapshot.frequentlyVisitedScreens = shape.screens;
  snapshot.frequentComponents = shape.components;
  snapshot.frequentCustomEvents = shape.customEvents;
  snapshot.recentNavigationPatterns = shape.navigation;
  snapshot.recentScreenSequences = shape.sequences;
  return snapshot;
}

class CountingSnapshotProvider final : public QEVMemoryIntelligenceSnapshotProviding {
 public:
  explicit CountingSnapshotProvider(QEVMemoryIntelligenceSnapshot s) : snapshot(std::move(s)) {}
  QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token) const override {
    calls.fetch_add(1);
    if (onCall) onCall();
    return snapshot;
  }
  const QEVMemoryIntelligenceSnapshot snapshot;
  std::function<void()> onCall;  // set before use
  mutable std::atomic<int> calls{0};
};

// Analysers of one start over a counting source, with kTestNow as clock.
struct AnalyzerRig {
  explicit AnalyzerRig(const SnapshotShape& shape,
                       QEVLLMExecutionMode mode = QEVLLMExecutionMode::disabled)
      : provider(std::make_shared<CountingSnapshotProvider>(makeSnapshot(shape))),
        cache(std::make_shared<QEVIntelligenceCache>([this] { return cacheNow; })),
        analyzers(QEVIntelligenceRuntime::makeAnalyzers(mode, builder(), cache)) {}

  QEVIntelligenceContextBuilder builder() const {
    QEVIntelligenceContextBuilder b;
    b.memorySnapshotProvider = provider;
    b.now = [this] {
      if (onNow) onNow();
      return kTestNow;
    };
    return b;
  }

  QEVIntelligenceContext context() const {
    return builder().buildContext(std::nullopt, analyzers.summarizer.preferredExecutionMode);
  }

  std::shared_ptr<CountingSnapshotProvider> provider;
  QEVRDate cacheNow = kTestNow;
  std::function<void()> onNow;
  std::shared_ptr<QEVIntelligenceCache> cache;
  QEVIntelligenceRuntime::Analyzers analyzers;
};
