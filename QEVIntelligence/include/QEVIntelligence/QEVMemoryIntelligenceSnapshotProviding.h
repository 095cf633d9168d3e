// Where the analysers get what memory knows: a source of
// QEVMemoryIntelligenceSnapshot values.
#pragma once

#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>
#include <QEVRPlatform/Export.h>

#include <stop_token>

// A source of snapshots. Implementations are called from any thread, several
// at once, and keep no state that one call leaves for the next.
class QEVR_API QEVMemoryIntelligenceSnapshotProviding {
 public:
  virtual ~QEVMemoryIntelligenceSnapshotProviding() = default;

  // Throws QEVRCancellationError once `stop` is requested, and whatever the
  // source throws.
  virtual QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop) const = 0;
};

// The source in a running system: QEVR::Memory::intelligenceSnapshot(), a
// fresh read of the store on each call.
class QEVR_API QEVMemoryIntelligenceSnapshotProvider final
    : public QEVMemoryIntelligenceSnapshotProviding {
 public:
  QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop) const override;
};

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
