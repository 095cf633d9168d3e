// QEVR::Recommendations: ranked, policy-filtered suggestions for adapting
// the application to its user.
//
// generate returns an empty list while the recommendations module is not
// running, is paused or is unavailable by configuration; it never says why.
// Otherwise it reads the memory snapshot, and on a cache miss (results are
// kept 300 seconds per domain, policy and store state) the four analyses,
// on the calling thread and the task pool. The ...Async forms run the same
// work on the pool. The only error is QEVRCancellationError, when `stop` is
// requested. Any thread may call any of these, concurrently.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationOutcomes.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>

#include <future>
#include <stop_token>
#include <vector>

namespace QEVR::Recommendations {

// No domain and the default policy for no domain: no gameplay, no feature
// catalogue.
QEVR_API std::vector<QEVRecommendation> generate(std::stop_token stop = {});
QEVR_API std::future<std::vector<QEVRecommendation>> generateAsync();

// For a domain with a policy; QEVRecommendationPolicy::defaultPolicy(domain)
// gives the default one for that domain.
QEVR_API std::vector<QEVRecommendation> generate(const QEVExperienceDomain& domain,
                                                 const QEVRecommendationPolicy& policy,
                                                 std::stop_token stop = {});
QEVR_API std::future<std::vector<QEVRecommendation>> generateAsync(QEVExperienceDomain domain,
                                                                   QEVRecommendationPolicy policy);

// Empties the result cache, whether the module runs or not.
QEVR_API void clearCache();

// Outcome learning: what the host did with each recommendation, kept in
// the memory store, and what changed in this user's sessions afterwards
// (see QEVRecommendationOutcomes.h). Off by default, and while it is off
// every generation is exactly as without it. When on, generate leaves out,
// after the policy has filtered and cut, advice that was dismissed twice
// in the last 30 days and advice that was applied unless its effect is
// `worse`. Process-wide, any thread; takes a lock only.
QEVR_API void setOutcomeLearning(bool enabled);
QEVR_API bool outcomeLearning();

// Records what the host did with `recommendation`: shown to the user,
// applied, or dismissed. Returns false, recording nothing, while outcome
// learning is off. Works whether or not the module runs. Blocks for one
// read and one atomic write of a small file (call it off the UI thread);
// throws QEVRCancellationError, and the memory facade's file errors.
QEVR_API bool recordOutcome(const QEVRecommendation& recommendation,
                            QEVRecommendationOutcome outcome, std::stop_token stop = {});

// Every advice with recorded outcomes, in the order first recorded, with
// its effect once applied: an observed change in this user's sessions, not
// a proof that the recommendation caused it. Effects need dated sessions,
// which memory continuity gives (QEVR::Memory::setContinuity). Reads the outcome log and,
// when something was applied, the session graphs. Readable while learning
// is off; empty when the log is absent or does not decode. Throws as
// recordOutcome does.
QEVR_API std::vector<QEVRecommendationOutcomeHistory> outcomes(std::stop_token stop = {});

}  // namespace QEVR::Recommendations
