#include <QEVRecommendations/QEVRecommendationCache.h>

#include <gtest/gtest.h>

#include "RecommendationTestSupport.h"

namespace {

using Action = QEVRecommendationAction;
using Policy = QEVRecommendationPolicy;
using qevr::testing::kGeneratedAt;

class QEVRecommendationCacheTest : public ::testing::Test {
 protected:
  std::shared_ptr<qevr::ManualClock> clock = std::make_shared<qevr::ManualClock>(kGeneratedAt);
  QEVRecommendationCache cache{[c = clock] { return c->now(); }};
  QEVMemorySnapshotSummary summary{3, 40, {{"Home", 4}}, {{"cart", 2}}, {}, {}, {"Home > Cart"}};
  Policy policy = Policy::defaultPolicy(QEVExperienceDomain::game());

  QEVRecommendation expiringAt(std::optional<QEVRDate> expiresAt) {
    return QEVRecommendation(QEVRUUID::random(), QEVRecommendationType::ui, "t", "s", 0.8,
                             QEVRecommendationPriority::high, "", {},
                             Action::highlightComponent("c", std::nullopt), kGeneratedAt,
                             expiresAt);
  }

  bool hit(const std::optional<QEVExperienceDomain>& domain, const Policy& p,
           const QEVMemorySnapshotSummary& s) {
    return cache.lookup(domain, p, s).has_value();
  }
};

TEST_F(QEVRecommendationCacheTest, EntriesLiveThreeHundredSeconds) {
  const std::vector<QEVRecommendation> list = {expiringAt(std::nullopt)};
  const std::pair<double, bool> cases[] = {
      {299.9, true}, {300.0, true}, {-50.0, true}, {300.1, false}};
  for (const auto& [age, live] : cases) {
    SCOPED_TRACE(age);
    cache.clear();
    clock->set(kGeneratedAt);
    cache.store(list, std::nullopt, policy, summary);
    clock->set(kGeneratedAt.addingSeconds(age));
    EXPECT_EQ(cache.lookup(std::nullopt, policy, summary),
              live ? std::optional(list) : std::nullopt);
    EXPECT_EQ(cache.entryCount(), live ? 1u : 0u);
  }
}

TEST_F(QEVRecommendationCacheTest, ExpiredRecommendationsAreFilteredWithoutProlongingTheEntry) {
  cache.store({}, std::nullopt, policy, summary);
  cache.store({expiringAt(kGeneratedAt)}, std::nullopt, policy, summary);
  EXPECT_EQ(cache.entryCount(), 0u);

  const auto soon = expiringAt(kGeneratedAt.addingSeconds(10));
  const auto a = expiringAt(std::nullopt);
  const auto b = expiringAt(kGeneratedAt.addingSeconds(1000));
  cache.store({a, soon, b}, std::nullopt, policy, summary);
  // An empty list later leaves the entry alone.
  cache.store({}, std::nullopt, policy, summary);
  clock->set(kGeneratedAt.addingSeconds(10));
  EXPECT_EQ(cache.lookup(std::nullopt, policy, summary), (std::vector<QEVRecommendation>{a, b}));
  clock->set(kGeneratedAt.addingSeconds(300.5));
  EXPECT_EQ(cache.lookup(std::nullopt, policy, summary), std::nullopt);

  cache.store({soon}, std::nullopt, policy, summary);
  clock->set(kGeneratedAt.addingSeconds(20));
  EXPECT_EQ(cache.lookup(std::nullopt, policy, summary), std::nullopt);
  EXPECT_EQ(cache.entryCount(), 0u);
}

TEST_F(QEVRecommendationCacheTest, KeyCoversDomainPolicyAndTheWholeSummary) {
  const auto protecting = [](std::unordered_set<std::string> ids, std::int64_t max = 10) {
    return Policy(0.65, true, true, true, true, true, max, std::move(ids));
  };
  const auto a = QEVExperienceDomain::custom("a");
  cache.store({expiringAt(std::nullopt)}, a, protecting({"x", "y", "z"}), summary);
  EXPECT_TRUE(hit(a, protecting({"z", "y", "x"}), summary));
  EXPECT_FALSE(hit(QEVExperienceDomain::custom("b"), protecting({"x", "y", "z"}), summary));
  EXPECT_FALSE(hit(std::nullopt, protecting({"x", "y", "z"}), summary));
  EXPECT_FALSE(hit(a, protecting({"x", "y", "z"}, 11), summary));
  EXPECT_FALSE(hit(a, protecting({"x", "y"}), summary));
  QEVMemorySnapshotSummary changed = summary;
  changed.frequentComponents["cart"] = 3;
  EXPECT_FALSE(hit(a, protecting({"x", "y", "z"}), changed));

  // The average duration is not part of the summary.
  QEVMemoryIntelligenceSnapshot snapshot;
  snapshot.totalSessions = 3;
  const auto withoutDuration = QEVMemorySnapshotSummary::of(snapshot);
  snapshot.averageSessionDuration = 12;
  EXPECT_EQ(QEVMemorySnapshotSummary::of(snapshot), withoutDuration);
  EXPECT_EQ(QEVMemorySnapshotSummary::of(std::nullopt), QEVMemorySnapshotSummary{});

  // Domains that could be confused in the key text stay apart.
  using Key = QEVRecommendationCacheKey;
  EXPECT_NE(Key::domainText(QEVExperienceDomain::custom("x@y.io")),
            Key::domainText(QEVExperienceDomain::custom("z@y.io")));
  EXPECT_NE(Key::domainText(QEVExperienceDomain::custom("")), Key::domainText(std::nullopt));
  EXPECT_NE(Key::domainText(QEVExperienceDomain::custom("game")),
            Key::domainText(QEVExperienceDomain::game()));
}

}  // namespace
