#include "QEVLLMProvider.h"

std::string QEVDisabledLLMProvider::generate(const QEVLLMRequest&, std::stop_token) const {
  throw QEVIntelligenceError::executionDisabled();
}

QEVLLMProviderRegistry::QEVLLMProviderRegistry(ProviderMap providers)
    : providersByMode(std::move(providers)) {}

std::shared_ptr<const QEVLLMProviderRegistry> QEVLLMProviderRegistry::makeDefault() {
  return std::make_shared<const QEVLLMProviderRegistry>(
      ProviderMap{{QEVLLMExecutionMode::disabled, std::make_shared<QEVDisabledLLMProvider>()}});
}

std::shared_ptr<const QEVLLMProvider> QEVLLMProviderRegistry::selectProvider(
    QEVLLMExecutionMode preferred, const std::vector<QEVLLMExecutionMode>& fallbackOrder) const {
  ProviderMap providers;
  {
    qevr::MutexLock guard(lock);
    providers = providersByMode;
  }
  if (auto found = providers.find(preferred); found != providers.end()) return found->second;
  for (QEVLLMExecutionMode mode : fallbackOrder) {
    if (mode == preferred) continue;
    if (auto found = providers.find(mode); found != providers.end()) return found->second;
  }
  if (auto found = providers.find(QEVLLMExecutionMode::disabled); found != providers.end()) {
    return found->second;
  }
  throw QEVIntelligenceError::providerUnavailable(preferred);
}
