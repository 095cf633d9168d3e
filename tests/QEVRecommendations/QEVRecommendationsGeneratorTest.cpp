#include <QEVRecommendations/QEVFixedRecommendationSources.h>
#include <QEVRecommendations/QEVRecommendationsGenerator.h>

#include <gtest/gtest.h>

#include "RecommendationTestSupport.h"

namespace {

using namespace qevr::testing;
using Edge = QEVNavigationRecommendationEdge;
using Generator = QEVRecommendationsGenerator;

QEVMemoryIntelligenceSnapshot storeSnapshot() {
  return {.totalSessions = 4,
          .totalEvents = 120,
          .frequentlyVisitedScreens = {{"Home", 9}, {"Cart", 4}},
          .frequentComponents = {{"checkout", 8}, {"search", 5}},
          .recentNavigationPatterns = {{"Home->Cart", 4}, {"Cart->Home", 2}},
          .recentScreenSequences = {"Home > Cart > Home", "Home > Cart"}};
}

QEVFixedRecommendationSources::Values storeValues() {
  return {storeSnapshot(), std::nullopt, intent(0.7),
          frustration(QEVFrustrationLevel::high, 0.8, {"rage taps"}), std::nullopt};
}

struct Fixture {
  std::shared_ptr<CountingSources> sources;
  std::shared_ptr<QEVRecommendationCache> cache;
  Generator generator;

  explicit Fixture(QEVFixedRecommendationSources::Values values,
                   std::shared_ptr<QEVRecommendationCache> shared = nullptr)
      : sources(std::make_shared<CountingSources>(std::move(values))),
        cache(shared ? shared
                     : std::make_shared<QEVRecommendationCache>([] { return kGeneratedAt; })),
        generator(Generator::withSources(sources, sources, cache, [] { return kGeneratedAt; })) {}
};

TEST(QEVRecommendationsGeneratorTest, ACacheHitCallsNoAnalysis) {
  Fixture f(storeValues());
  const QEVRecommendationPolicy policy;
  const auto first = f.generator.generate(std::nullopt, policy);
  ASSERT_FALSE(first.empty());
  EXPECT_EQ(f.sources->analysisCalls, 4);  // three answer, one fails
  EXPECT_EQ(f.sources->snapshotCalls, 2);

  const auto second = f.generator.generate(std::nullopt, policy);
  EXPECT_EQ(second, first);
  EXPECT_EQ(f.sources->analysisCalls, 4);
  EXPECT_EQ(f.sources->snapshotCalls, 3);

  // A changed count is a new state of the store: a new generation.
  auto values = storeValues();
  values.snapshot->frequentComponents["checkout"] = 9;
  Fixture changed(values, f.cache);
  const auto third = changed.generator.generate(std::nullopt, policy);
  EXPECT_EQ(changed.sources->analysisCalls, 4);
  ASSERT_FALSE(third.empty());
  EXPECT_NE(third.front().id(), first.front().id());
}

TEST(QEVRecommendationsGeneratorTest, NothingIsCachedForAnEmptyResultOrACancellation) {
  Fixture f(storeValues());
  f.sources->snapshotMode = CountingSources::Mode::fail;
  // No snapshot: the frustration rules find no component and no loop.
  EXPECT_TRUE(f.generator.generate(std::nullopt, QEVRecommendationPolicy()).empty());
  EXPECT_EQ(f.cache->entryCount(), 0u);
  EXPECT_EQ(f.sources->analysisCalls, 4);
  f.generator.generate(std::nullopt, QEVRecommendationPolicy());
  EXPECT_EQ(f.sources->analysisCalls, 8);
}

// A snapshot source that cancels the generation while answering, so the
// stop arrives between the cache miss and the build.
class CancellingSnapshot final : public QEVRecommendationMemorySnapshotProviding {
 public:
  explicit CancellingSnapshot(std::stop_source s) : source(std::move(s)) {}
  QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token) const override {
    source.request_stop();
    return storeSnapshot();
  }

 private:
  mutable std::stop_source source;
};

TEST(QEVRecommendationsGeneratorTest, CancellationAfterTheMissStoresNothing) {
  std::stop_source stop;
  auto sources = std::make_shared<CountingSources>(storeValues());
  auto cache = std::make_shared<QEVRecommendationCache>([] { return kGeneratedAt; });
  const Generator generator = Generator::withSources(
      sources, std::make_shared<CancellingSnapshot>(stop), cache, [] { return kGeneratedAt; });
  EXPECT_THROW(generator.generate(std::nullopt, QEVRecommendationPolicy(), stop.get_token()),
               QEVRCancellationError);
  EXPECT_EQ(sources->analysisCalls, 0);
  EXPECT_EQ(cache->entryCount(), 0u);
}

// The engines' inputs under the default policy.
QEVPersonalizationInput inputsOf(const std::optional<QEVMemoryIntelligenceSnapshot>& snapshot,
                                 const QEVRecommendationContext& context = {},
                                 std::optional<QEVExperienceDomain> domain = std::nullopt) {
  return Generator::engineInputs(snapshot, context, domain, QEVRecommendationPolicy());
}

TEST(QEVRecommendationsGeneratorTest, ScreenSequencesAndEdges) {
  QEVMemoryIntelligenceSnapshot snapshot;
  snapshot.frequentlyVisitedScreens = {{"Home", 5}, {"Cart", 2}};
  snapshot.recentNavigationPatterns = {{"Home->Cart", 4}, {"Cart", 2},    {"->Pay", 1},
                                       {"Home->", 7},     {"A->B->C", 3}, {" X -> Y ", 1}};
  snapshot.recentScreenSequences = {"Home > Cart", "> Checkout", " > "};
  auto input = inputsOf(snapshot);
  EXPECT_EQ(input.navigationInput.screenSequence, (Strings{"Home", "Cart", "Checkout"}));
  EXPECT_EQ(input.navigationInput.navigationEdges, (std::vector<Edge>{{"X", "Y", 1},
                                                                      {std::nullopt, "Pay", 1},
                                                                      {"A", "C", 3},
                                                                      {std::nullopt, "Cart", 2},
                                                                      {"Home", "Cart", 4}}));

  // Without sequences, the frequent screens stand in.
  snapshot.recentScreenSequences = {};
  input = inputsOf(snapshot);
  EXPECT_EQ(input.navigationInput.screenSequence, (Strings{"Home", "Cart"}));
  EXPECT_EQ(input.uiInput.screenPatterns, (Strings{"Home", "Cart"}));

  input = inputsOf(std::nullopt, {}, QEVExperienceDomain::game());
  EXPECT_TRUE(input.navigationInput.screenSequence.empty());
  EXPECT_TRUE(input.featureInput.availableFeatures.empty());
  EXPECT_EQ(input.gameplayInput.domain, QEVExperienceDomain::game());
}

TEST(QEVRecommendationsGeneratorTest, ConfusingComponentsFollowTheFrustrationLevel) {
  const QEVMemoryIntelligenceSnapshot snapshot{
      .frequentComponents = {{"search", 3}, {"checkout", 8}}};
  QEVRecommendationContext context{.frustrationAnalysis = frustration(QEVFrustrationLevel::low)};
  EXPECT_TRUE(inputsOf(snapshot, context).uiInput.confusingComponentIds.empty());
  context.frustrationAnalysis = frustration(QEVFrustrationLevel::high);
  EXPECT_EQ(inputsOf(snapshot, context).uiInput.confusingComponentIds,
            (Strings{"checkout", "search"}));
}

TEST(QEVRecommendationsGeneratorTest, CatalogueFilterKeepsMentionedFeatures) {
  QEVMemoryIntelligenceSnapshot snapshot{.frequentlyVisitedScreens = {{"Data-Package Offers", 1}},
                                         .frequentCustomEvents = {{"SUPPORT_opened", 1}}};
  EXPECT_EQ(inputsOf(snapshot, {}, QEVExperienceDomain::telecom()).featureInput.availableFeatures,
            (std::vector<QEVAvailableFeature>{{"data_package", "Data Package", {}},
                                              {"support", "Support", {}}}));
  snapshot.frequentComponents = {{"home", 1}};
  EXPECT_TRUE(
      inputsOf(snapshot, {}, QEVExperienceDomain::game()).featureInput.availableFeatures.empty());
}

}  // namespace
