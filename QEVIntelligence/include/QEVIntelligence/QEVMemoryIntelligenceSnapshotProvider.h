#pragma once

#include <QEVIntelligence/QEVMemoryIntelligenceSnapshotProviding.h>
#include <QEVRPlatform/Export.h>

#include <stop_token>

// The source in a running system: QEVR::Memory::intelligenceSnapshot(), a
// fresh read of the store on each call.
class QEVR_API QEVMemoryIntelligenceSnapshotProvider final
    : public QEVMemoryIntelligenceSnapshotProviding {
 public:
  QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop) const override;
};
