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

}  // namespace QEVR::Recommendations
