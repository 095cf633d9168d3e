// QEVR::Intelligence: the four analyses of what memory knows about the user.
//
// Every analysis works whether or not the module has started: before the
// start and after a shutdown it runs on default analysers (execution mode
// `disabled`, a private cache). Each takes a fresh memory snapshot, so it
// blocks the calling thread on disk reads; the ...Async forms run the same
// work on the task pool. All four are deterministic rules over the snapshot;
// results are cached for 300 seconds per context, kind and domain.
//
// Throws QEVRCancellationError when `stop` is requested, and whatever the
// memory snapshot throws (a damaged store file, no application-support
// directory). Any thread may call any of these, concurrently.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Export.h>

#include <future>
#include <optional>
#include <stop_token>

namespace QEVR::Intelligence {

QEVR_API QEVBehaviorSummary summarizeBehavior(std::stop_token stop = {});
QEVR_API std::future<QEVBehaviorSummary> summarizeBehaviorAsync();

QEVR_API QEVIntentAnalysis analyzeIntent(const std::optional<QEVExperienceDomain>& domain,
                                         std::stop_token stop = {});
QEVR_API std::future<QEVIntentAnalysis> analyzeIntentAsync(
    std::optional<QEVExperienceDomain> domain);

QEVR_API QEVFrustrationAnalysis detectFrustration(std::stop_token stop = {});
QEVR_API std::future<QEVFrustrationAnalysis> detectFrustrationAsync();

QEVR_API QEVSkillAnalysis analyzeSkill(const std::optional<QEVExperienceDomain>& domain,
                                       std::stop_token stop = {});
QEVR_API std::future<QEVSkillAnalysis> analyzeSkillAsync(std::optional<QEVExperienceDomain> domain);

// Empties the shared cache of the started module's analysers. The private
// caches of the default analysers are not reached.
QEVR_API void clearCache();

}  // namespace QEVR::Intelligence
