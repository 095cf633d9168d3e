// What a generation costs the host: cold (cache cleared, so the five
// sources run on the pool and every engine runs) and cached (one snapshot
// and a cache lookup), over the snapshot of a store of 100 sessions. The
// sources are fixed values, so the figures are the recommendation module's
// own and not the cost of reading a store.
#include <QEVRecommendations/QEVFixedRecommendationSources.h>
#include <QEVRecommendations/QEVRecommendationsGenerator.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

namespace {

const QEVRDate kNow{800000000.0};

QEVMemoryIntelligenceSnapshot hundredSessionSnapshot() {
  QEVMemoryIntelligenceSnapshot snapshot;
  snapshot.totalSessions = 100;
  snapshot.totalEvents = 12400;
  snapshot.averageSessionDuration = 184.5;
  for (int i = 0; i < 30; ++i)
    snapshot.frequentlyVisitedScreens["Screen " + std::to_string(i)] = 400 - i * 11;
  for (int i = 0; i < 40; ++i)
    snapshot.frequentComponents["button_" + std::to_string(i)] = 300 - i * 7;
  snapshot.frequentComponents["offers_banner"] = 42;
  for (int i = 0; i < 20; ++i)
    snapshot.frequentCustomEvents["event_" + std::to_string(i)] = 90 - i * 4;
  snapshot.frequentCustomEvents["wishlist_add"] = 12;
  for (int i = 0; i < 40; ++i) {
    snapshot.recentNavigationPatterns["Screen " + std::to_string(i % 12) + "->Screen " +
                                      std::to_string((i * 7 + 1) % 12)] = 1 + i % 9;
  }
  for (int s = 0; s < 5; ++s) {
    std::string line = "Screen 0";
    for (int i = 1; i < 25; ++i)
      line += " > Screen " + std::to_string((s + i * 5) % 12);
    snapshot.recentScreenSequences.push_back(line);
  }
  snapshot.timeWindowStart = QEVRDate{kNow.secondsSinceReferenceDate - 86400 * 30};
  snapshot.timeWindowEnd = kNow;
  return snapshot;
}

std::shared_ptr<QEVFixedRecommendationSources> sources() {
  QEVFixedRecommendationSources::Values values;
  values.snapshot = hundredSessionSnapshot();
  values.behaviorSummary = QEVBehaviorSummary("Mostly browses screens.", {"Screen 0", "Screen 1"},
                                              {"button_0"}, {"repeat_usage_patterns"}, 0.6, kNow);
  values.intentAnalysis =
      QEVIntentAnalysis("purchase", {"browse"}, {"button_0: 300", "offers_banner: 42"}, 0.7, kNow);
  values.frustrationAnalysis = QEVFrustrationAnalysis(
      QEVFrustrationLevel::medium, {"repeated taps on button_0"}, {"slow response"}, 0.65, kNow);
  values.skillAnalysis =
      QEVSkillAnalysis(QEVSkillLevel::intermediate, {"steady progress"}, "maintain", 0.6, kNow);
  return std::make_shared<QEVFixedRecommendationSources>(std::move(values));
}

void run(benchmark::State& state, bool cached) {
  auto fixed = sources();
  auto cache = std::make_shared<QEVRecommendationCache>([] { return kNow; });
  const QEVRecommendationsGenerator generator =
      QEVRecommendationsGenerator::withSources(fixed, fixed, cache, [] { return kNow; });
  const QEVExperienceDomain domain = QEVExperienceDomain::ecommerce();
  const QEVRecommendationPolicy policy = QEVRecommendationPolicy::defaultPolicy(domain);
  const std::size_t expected = generator.generate(domain, policy).size();
  if (expected == 0) state.SkipWithError("the snapshot gives no recommendations");
  for (auto _ : state) {
    if (!cached) cache->clear();
    auto result = generator.generate(domain, policy);
    if (result.size() != expected) state.SkipWithError("result changed between runs");
    benchmark::DoNotOptimize(result);
  }
  state.counters["recommendations"] = static_cast<double>(expected);
}

void BM_GenerateCold(benchmark::State& state) {
  run(state, false);
}
BENCHMARK(BM_GenerateCold)->Unit(benchmark::kMicrosecond);

void BM_GenerateCached(benchmark::State& state) {
  run(state, true);
}
BENCHMARK(BM_GenerateCached)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
