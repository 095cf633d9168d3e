// What the four analysers share: their fields and the provider stage of
// their pipeline.
//
// Every analysis runs the same pipeline: check for cancellation, build the
// context, check again, look the cache up, try the provider stage, compute
// the result by the deterministic rules, store it. The provider stage
// prepares a request and selects a provider but invokes none, so it always
// fails, and the rules answer.
#pragma once

#include <QEVRPlatform/Tasks.h>

#include "QEVIntelligenceCache.h"
#include "QEVIntelligenceContextBuilder.h"
#include "QEVLLMProvider.h"
#include "QEVPromptEngine.h"

#include <memory>

// A value; copies share the engine, the registry, the snapshot source and
// the cache. Default-made fields are those of a default analyser: the
// memory facade as source, execution mode `disabled`, a private cache.
struct QEVIntelligenceAnalyzerFields {
  QEVIntelligenceContextBuilder contextBuilder;
  std::shared_ptr<const QEVPromptEngine> promptEngine = std::make_shared<const QEVPromptEngine>();
  std::shared_ptr<const QEVLLMProviderRegistry> providerRegistry =
      QEVLLMProviderRegistry::makeDefault();
  QEVLLMJSONParser parser;
  QEVLLMExecutionMode preferredExecutionMode = QEVLLMExecutionMode::disabled;
  std::shared_ptr<QEVIntelligenceCache> cache = std::make_shared<QEVIntelligenceCache>();
};

// Prepares the request for `type` and selects a provider, then refuses with
// QEVIntelligenceError::disabled: no provider operation is ever invoked.
// Also fails with what makeRequest or selectProvider throw.
[[noreturn]] void runProviderStage(const QEVIntelligenceAnalyzerFields& fields,
                                   QEVPromptTemplateType type,
                                   const QEVIntelligenceContext& context);

// Runs a provider stage that ends in an error. A cancellation passes on as a
// new QEVRCancellationError; every other error is dropped, and the caller
// goes on to its rules.
template <typename Stage>
void fallThroughProviderStage(Stage&& stage) {
  try {
    stage();
  } catch (const QEVRCancellationError&) {
    throw QEVRCancellationError();
  } catch (...) {
    // The deterministic rules answer instead.
  }
}
