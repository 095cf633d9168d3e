#include <QEVRecommendations/QEVRecommendationsFacade.h>

#include <QEVRPlatform/Tasks.h>
#include <QEVRecommendations/QEVRecommendationsModule.h>

#include <memory>

namespace {

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

}  // namespace

namespace QEVR::Recommendations {

std::vector<QEVRecommendation> generate(std::stop_token stop) {
  return QEVRecommendationsRuntime::shared().generate(std::nullopt, std::nullopt, std::move(stop));
}

std::future<std::vector<QEVRecommendation>> generateAsync() {
  return runAsync([](std::stop_token stop) { return generate(std::move(stop)); });
}

std::vector<QEVRecommendation> generate(const QEVExperienceDomain& domain,
                                        const QEVRecommendationPolicy& policy,
                                        std::stop_token stop) {
  return QEVRecommendationsRuntime::shared().generate(domain, policy, std::move(stop));
}

std::future<std::vector<QEVRecommendation>> generateAsync(QEVExperienceDomain domain,
                                                          QEVRecommendationPolicy policy) {
  return runAsync([domain = std::move(domain), policy = std::move(policy)](std::stop_token stop) {
    return generate(domain, policy, std::move(stop));
  });
}

void clearCache() {
  QEVRecommendationsRuntime::shared().cache()->clear();
}

}  // namespace QEVR::Recommendations
