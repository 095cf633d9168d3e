#include <QEVIntelligence/QEVIntelligenceFacade.h>
#include <QEVRPlatform/FutureTask.h>
#include <QEVRPlatform/Tasks.h>

#include "QEVIntelligenceRuntime.h"

namespace {

QEVIntelligenceRuntime& runtime() {
  return QEVIntelligenceRuntime::shared();
}

}  // namespace

namespace QEVR::Intelligence {

QEVBehaviorSummary summarizeBehavior(std::stop_token stop) {
  return runtime().summarizer().summarize(std::move(stop));
}

std::future<QEVBehaviorSummary> summarizeBehaviorAsync() {
  return qevr::runAsFuture([](std::stop_token stop) { return summarizeBehavior(std::move(stop)); });
}

QEVIntentAnalysis analyzeIntent(const std::optional<QEVExperienceDomain>& domain,
                                std::stop_token stop) {
  return runtime().intentAnalyzer().analyze(domain, std::move(stop));
}

std::future<QEVIntentAnalysis> analyzeIntentAsync(std::optional<QEVExperienceDomain> domain) {
  return qevr::runAsFuture([domain = std::move(domain)](std::stop_token stop) {
    return analyzeIntent(domain, std::move(stop));
  });
}

QEVFrustrationAnalysis detectFrustration(std::stop_token stop) {
  return runtime().frustrationDetector().detect(std::move(stop));
}

std::future<QEVFrustrationAnalysis> detectFrustrationAsync() {
  return qevr::runAsFuture([](std::stop_token stop) { return detectFrustration(std::move(stop)); });
}

QEVSkillAnalysis analyzeSkill(const std::optional<QEVExperienceDomain>& domain,
                              std::stop_token stop) {
  return runtime().skillAnalyzer().analyze(domain, std::move(stop));
}

std::future<QEVSkillAnalysis> analyzeSkillAsync(std::optional<QEVExperienceDomain> domain) {
  return qevr::runAsFuture([domain = std::move(domain)](std::stop_token stop) {
    return analyzeSkill(domain, std::move(stop));
  });
}

void clearCache() {
  runtime().clearCache();
}

}  // namespace QEVR::Intelligence
