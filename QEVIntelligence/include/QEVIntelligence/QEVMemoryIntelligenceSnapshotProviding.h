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
