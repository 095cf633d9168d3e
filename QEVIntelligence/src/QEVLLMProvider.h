// The seam through which a language model would serve an analysis: the
// provider contract, the one provider wired in (which refuses all work), the
// registry that picks a provider, and the parser the analysers carry.
//
// All of it is internal: a host can neither see a registry nor add a
// provider to one. Every registry in the system holds the disabled provider
// alone, and no analysis invokes a provider.
#pragma once

#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include "QEVLLMRequest.h"

#include <memory>
#include <stop_token>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

// Implementations are immutable and callable from any thread.
class QEVLLMProvider {
 public:
  virtual ~QEVLLMProvider() = default;
  virtual std::string name() const = 0;
  virtual std::unordered_set<QEVLLMExecutionMode> supportedExecutionModes() const = 0;
  // Serves `request` and returns the model's raw text. Asynchronous in the
  // usual sense: checks `stop`, may throw.
  virtual std::string generate(const QEVLLMRequest& request, std::stop_token stop) const = 0;
};

// "disabled", for the mode `disabled` only. Refuses every request with
// QEVIntelligenceError::executionDisabled.
class QEVDisabledLLMProvider final : public QEVLLMProvider {
 public:
  std::string name() const override { return "disabled"; }
  std::unordered_set<QEVLLMExecutionMode> supportedExecutionModes() const override {
    return {QEVLLMExecutionMode::disabled};
  }
  std::string generate(const QEVLLMRequest& request, std::stop_token stop) const override;
};

// Made from a complete map of mode to provider and never changed after.
//
// Thread safety: `lock` guards the map; selectProvider holds it only to copy
// the map.
class QEVLLMProviderRegistry {
 public:
  using ProviderMap =
      std::unordered_map<QEVLLMExecutionMode, std::shared_ptr<const QEVLLMProvider>>;

  explicit QEVLLMProviderRegistry(ProviderMap providers);

  // The registry every analyser gets: `disabled` = QEVDisabledLLMProvider.
  static std::shared_ptr<const QEVLLMProviderRegistry> makeDefault();

  // The provider of `preferred`, else of the first mode of `fallbackOrder`
  // that has one, else of `disabled`. No check against the provider's
  // supported modes. Throws QEVIntelligenceError::providerUnavailable(preferred)
  // when none of these has a provider.
  std::shared_ptr<const QEVLLMProvider> selectProvider(
      QEVLLMExecutionMode preferred, const std::vector<QEVLLMExecutionMode>& fallbackOrder) const;

 private:
  mutable qevr::Mutex lock;
  ProviderMap providersByMode QEVR_GUARDED_BY(lock);
};

// Would read model output as JSON; nothing reads it yet. The JSON layer
// keeps its settings in the decoder's date strategy, which is the default.
struct QEVLLMJSONParser {
  qevr::json::DateStrategy decoder = qevr::json::DateStrategy::secondsSinceReferenceDate;
};

// The order the analysers fall back through after their preferred mode.
inline const std::vector<QEVLLMExecutionMode>& analyzerFallbackOrder() {
  static const std::vector<QEVLLMExecutionMode> order = {
      QEVLLMExecutionMode::onDevice, QEVLLMExecutionMode::cloud, QEVLLMExecutionMode::localNetwork};
  return order;
}
