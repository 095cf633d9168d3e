#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"

namespace {

using Key = QEVIntelligenceCache::Key;
using Type = QEVIntelligenceAnalysisType;

const QEVIntentAnalysis kIntent("purchase", {}, {"cart: 2"}, 0.52, kTestNow);

TEST(QEVIntelligenceCacheTest, HashIsFnv1a64InSixteenHexDigits) {
  EXPECT_EQ(fnv1a64Hex("a"), "af63dc4c8601ec8c");
  EXPECT_EQ(fnv1a64Hex(""), "cbf29ce484222325");
}

TEST(QEVIntelligenceCacheTest, ContextHashCoversTextModeAndMetadataButNotItsOrder) {
  const QEVIntelligenceContext context{.userSummary = "total sessions: 1",
                                       .generatedAt = kTestNow,
                                       .metadata = {{"source", "QEVMemory"}, {"b", "2"}}};
  const std::string expected =
      fnv1a64Hex(context.compactText() + "\ndisabled\nb=2&source=QEVMemory");
  EXPECT_EQ(contextHash(context), expected);
  // The hash of `context` after `change`.
  const auto hashAfter = [&](const std::function<void(QEVIntelligenceContext&)>& change) {
    QEVIntelligenceContext changed = context;
    change(changed);
    return contextHash(changed);
  };
  EXPECT_EQ(hashAfter([](auto& c) {
              c.metadata = {{"b", "2"}, {"source", "QEVMemory"}};
            }),
            expected);
  EXPECT_NE(hashAfter([](auto& c) { c.executionMode = QEVLLMExecutionMode::cloud; }), expected);
  EXPECT_NE(hashAfter([](auto& c) { c.generatedAt = kTestNow.addingSeconds(1); }), expected);
  EXPECT_EQ(hashAfter([](auto& c) { c.metadata.clear(); }),
            fnv1a64Hex(context.compactText() + "\ndisabled\n"));
}

TEST(QEVIntelligenceCacheTest, EntriesExpireExactlyAtExpiresAt) {
  QEVRDate now = kTestNow;
  QEVIntelligenceCache cache([&now] { return now; });
  const Key key{Type::intentAnalysis, "h", "game"};
  cache.store(kIntent, key);
  now = kTestNow.addingSeconds(299.999);
  EXPECT_EQ(cache.value<QEVIntentAnalysis>(key), kIntent);
  now = kTestNow.addingSeconds(300);
  EXPECT_EQ(cache.value<QEVIntentAnalysis>(key), std::nullopt);
  EXPECT_EQ(cache.count(), 0u);  // the lookup removed it
}

TEST(QEVIntelligenceCacheTest, KeysDifferByTypeAndDomainAndAValueOfAnotherTypeStays) {
  QEVIntelligenceCache cache([] { return kTestNow; });
  cache.store(kIntent, Key{Type::intentAnalysis, "h", "game"});
  EXPECT_EQ(cache.value<QEVIntentAnalysis>(Key{Type::intentAnalysis, "h", std::nullopt}),
            std::nullopt);
  EXPECT_EQ(cache.value<QEVIntentAnalysis>(Key{Type::skillAnalysis, "h", "game"}), std::nullopt);
  EXPECT_EQ(cache.value<QEVSkillAnalysis>(Key{Type::intentAnalysis, "h", "game"}), std::nullopt);
  EXPECT_EQ(cache.value<QEVIntentAnalysis>(Key{Type::intentAnalysis, "h", "game"}), kIntent);
  cache.clear();
  EXPECT_EQ(cache.value<QEVIntentAnalysis>(Key{Type::intentAnalysis, "h", "game"}), std::nullopt);
}

TEST(QEVIntelligenceCacheTest, AStoreSweepsOutExpiredEntriesOfOtherKeys) {
  QEVRDate now = kTestNow;
  QEVIntelligenceCache cache([&now] { return now; });
  cache.store(kIntent, Key{Type::intentAnalysis, "old", std::nullopt});
  now = kTestNow.addingSeconds(100);
  cache.store(kIntent, Key{Type::intentAnalysis, "newer", std::nullopt});
  now = kTestNow.addingSeconds(300);
  cache.store(kIntent, Key{Type::intentAnalysis, "newest", std::nullopt});
  EXPECT_EQ(cache.count(), 2u);
  EXPECT_TRUE(cache.value<QEVIntentAnalysis>(Key{Type::intentAnalysis, "newer", std::nullopt}));
}

}  // namespace
