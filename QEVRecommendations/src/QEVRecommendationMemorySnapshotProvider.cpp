#include <QEVMemory/QEVMemoryModule.h>
#include <QEVRecommendations/QEVRecommendationMemorySnapshotProvider.h>
#include <QEVRecommendations/QEVRecommendationSources.h>

QEVMemoryIntelligenceSnapshot QEVRecommendationMemorySnapshotProvider::intelligenceSnapshot(
    std::stop_token stop) const {
  return QEVR::Memory::intelligenceSnapshot(std::move(stop));
}
