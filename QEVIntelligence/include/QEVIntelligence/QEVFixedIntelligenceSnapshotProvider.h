#pragma once

#include <QEVIntelligence/QEVMemoryIntelligenceSnapshotProviding.h>
#include <QEVRPlatform/Export.h>

#include <stop_token>
#include <utility>

// Always the same snapshot, for tools that read a store once and analyse it
// several times, and for benchmarks and tests.
class QEVR_API QEVFixedIntelligenceSnapshotProvider final
    : public QEVMemoryIntelligenceSnapshotProviding {
 public:
  explicit QEVFixedIntelligenceSnapshotProvider(QEVMemoryIntelligenceSnapshot snapshot)
      : fixed(std::move(snapshot)) {}

  // A copy of the snapshot; throws QEVRCancellationError once `stop` is
  // requested.
  QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop) const override;

 private:
  const QEVMemoryIntelligenceSnapshot fixed;
};
