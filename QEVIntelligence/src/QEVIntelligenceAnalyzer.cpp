#include "QEVIntelligenceAnalyzer.h"

void runProviderStage(const QEVIntelligenceAnalyzerFields& fields, QEVPromptTemplateType type,
                      const QEVIntelligenceContext& context) {
  // The request and the provider are dropped unused: the seam stays wired
  // end to end, so a real provider would only have to replace this refusal.
  const QEVLLMRequest request = fields.promptEngine->makeRequest(type, context);
  const std::shared_ptr<const QEVLLMProvider> provider = fields.providerRegistry->selectProvider(
      fields.preferredExecutionMode, analyzerFallbackOrder());
  (void)request;
  (void)provider;
  throw QEVIntelligenceError::disabled();
}
