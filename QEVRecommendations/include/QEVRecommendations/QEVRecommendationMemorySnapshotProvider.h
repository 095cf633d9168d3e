#pragma once

#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendationSources.h>

#include <optional>
#include <stop_token>

// Forwards to QEVR::Memory::intelligenceSnapshot.
class QEVR_API QEVRecommendationMemorySnapshotProvider final
    : public QEVRecommendationMemorySnapshotProviding {
 public:
  QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop) const override;
};
