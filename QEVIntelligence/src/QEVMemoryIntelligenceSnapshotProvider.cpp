#include <QEVIntelligence/QEVFixedIntelligenceSnapshotProvider.h>
#include <QEVIntelligence/QEVMemoryIntelligenceSnapshotProvider.h>
#include <QEVIntelligence/QEVMemoryIntelligenceSnapshotProviding.h>
#include <QEVMemory/QEVMemoryModule.h>
#include <QEVRPlatform/Tasks.h>

QEVMemoryIntelligenceSnapshot QEVMemoryIntelligenceSnapshotProvider::intelligenceSnapshot(
    std::stop_token stop) const {
  return QEVR::Memory::intelligenceSnapshot(std::move(stop));
}

QEVMemoryIntelligenceSnapshot QEVFixedIntelligenceSnapshotProvider::intelligenceSnapshot(
    std::stop_token stop) const {
  qevr::checkCancellation(stop);
  return fixed;
}
