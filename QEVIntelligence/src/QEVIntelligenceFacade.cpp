#include <QEVIntelligence/QEVIntelligenceFacade.h>
#include <QEVRPlatform/Tasks.h>

#include "QEVIntelligenceRuntime.h"

namespace {

// Runs `body` as a detached task of the pool and hands its result or error
// to the future.
template <typename F>
auto runAsync(F body) {
  using R = decltype(body(std::stop_token{}));
  auto promise = std::make_shared<std::promise<R>>();
  auto future = promise->get_future();
  qevr::detachTask(qevr::TaskPriority::utility,
                   [promise, body = std::move(body)](std::stop_token stop) {
                     try {
                       promise->set_value(body(stop));
                     } catch (...) {
                       promise->set_exception(std::current_exception());
                     }
                   });
  return future;
}

QEVIntelligenceRuntime& runtime() {
  return QEVIntelligenceRuntime::shared();
}

}  // namespace

namespace QEVR::Intelligence {

QEVBehaviorSummary summarizeBehavior(std::stop_token stop) {
  return runtime().summarizer().summarize(std::move(stop));
}

std::future<QEVBehaviorSummary> summarizeBehaviorAsync() {
  return runAsync([](std::stop_token stop) { return summarizeBehavior(std::move(stop)); });
}

QEVIntentAnalysis analyzeIntent(const std::optional<QEVExperienceDomain>& domain,
                                std::stop_token stop) {
  return runtime().intentAnalyzer().analyze(domain, std::move(stop));
}

std::future<QEVIntentAnalysis> analyzeIntentAsync(std::optional<QEVExperienceDomain> domain) {
  return runAsync([domain = std::move(domain)](std::stop_token stop) {
    return analyzeIntent(domain, std::move(stop));
  });
}

QEVFrustrationAnalysis detectFrustration(std::stop_token stop) {
  return runtime().frustrationDetector().detect(std::move(stop));
}

std::future<QEVFrustrationAnalysis> detectFrustrationAsync() {
  return runAsync([](std::stop_token stop) { return detectFrustration(std::move(stop)); });
}

QEVSkillAnalysis analyzeSkill(const std::optional<QEVExperienceDomain>& domain,
                              std::stop_token stop) {
  return runtime().skillAnalyzer().analyze(domain, std::move(stop));
}

std::future<QEVSkillAnalysis> analyzeSkillAsync(std::optional<QEVExperienceDomain> domain) {
  return runAsync([domain = std::move(domain)](std::stop_token stop) {
    return analyzeSkill(domain, std::move(stop));
  });
}

void clearCache() {
  runtime().clearCache();
}

}  // namespace QEVR::Intelligence
