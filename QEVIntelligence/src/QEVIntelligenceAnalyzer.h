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
#include <optional>
#include <string>

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

// The pipeline itself. The cache key hashes the plain context and carries
// the domain's label on its own; the provider stage sees the context with the
// domain hint; `rules` computes the result from the plain context.
template <typename Result, typename Rules>
Result runAnalysisPipeline(const QEVIntelligenceAnalyzerFields& fields,
                           QEVIntelligenceAnalysisType analysis, QEVPromptTemplateType prompt,
                           const std::optional<QEVIntelligenceDiagnosticsSummary>& diagnostics,
                           const std::optional<QEVExperienceDomain>& domain,
                           const std::stop_token& stop, Rules&& rules) {
  qevr::checkCancellation(stop);
  const QEVIntelligenceContext context =
      fields.contextBuilder.buildContext(diagnostics, fields.preferredExecutionMode, stop);
  qevr::checkCancellation(stop);

  const QEVIntelligenceCache::Key key{
      analysis, contextHash(context),
      domain ? std::optional<std::string>(experienceDomainLabel(*domain)) : std::nullopt};
  if (auto cached = fields.cache->value<Result>(key)) return std::move(*cached);

  fallThroughProviderStage(
      [&] { runProviderStage(fields, prompt, context.withDomainHint(domain)); });

  Result result = rules(context);
  fields.cache->store(result, key);
  return result;
}
