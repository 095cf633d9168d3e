// What the four analysers share: cancellation at both checks, the cache
// lookup before the rules, and the provider stage that always falls through.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"
#include "ThrowsMessage.h"

namespace {

using Analyses = QEVIntelligenceRuntime::Analyzers;
using qevr::testing::throwsWithMessage;

struct Analysis {
  const char* name;
  std::function<void(const Analyses&, std::stop_token)> run;
};

const Analysis kAnalyses[] = {
    {"summary", [](const Analyses& a, std::stop_token s) { a.summarizer.summarize(s); }},
    {"intent", [](const Analyses& a,
                  std::stop_token s) { a.intentAnalyzer.analyze(QEVExperienceDomain::game(), s); }},
    {"frustration", [](const Analyses& a, std::stop_token s) { a.frustrationDetector.detect(s); }},
    {"skill",
     [](const Analyses& a, std::stop_token s) { a.skillAnalyzer.analyze(std::nullopt, s); }},
};

const SnapshotShape kShape{.screens = {{"Home", 4}}, .components = {{"play", 6}}};

// A stop requested before the snapshot is read, while it is read, or after
// the context is built (the clock is read after the builder's last check, so
// only the analyser's own check after the build can see that one).
TEST(QEVIntelligencePipelineTest, CancellationAtEachCheckCachesNothing) {
  enum When { before, duringSnapshot, afterContext };
  for (When when : {before, duringSnapshot, afterContext}) {
    for (const Analysis& analysis : kAnalyses) {
      SCOPED_TRACE(std::string(analysis.name) + " at " + std::to_string(when));
      AnalyzerRig rig(kShape);
      std::stop_source stop;
      const auto requestStop = [&stop] { stop.request_stop(); };
      if (when == before) requestStop();
      if (when == duringSnapshot) rig.provider->onCall = requestStop;
      if (when == afterContext) rig.onNow = requestStop;
      EXPECT_THROW(analysis.run(rig.analyzers, stop.get_token()), QEVRCancellationError);
      EXPECT_EQ(rig.provider->calls.load(), when == before ? 0 : 1);
      EXPECT_EQ(rig.cache->count(), 0u);
    }
  }
}

TEST(QEVIntelligencePipelineTest, EachAnalysisStoresOneEntryAndHitsItWithinTheTimeToLive) {
  for (const Analysis& analysis : kAnalyses) {
    SCOPED_TRACE(analysis.name);
    AnalyzerRig rig(kShape);
    analysis.run(rig.analyzers, {});
    analysis.run(rig.analyzers, {});
    EXPECT_EQ(rig.cache->count(), 1u);
    EXPECT_EQ(rig.provider->calls.load(), 2);  // the snapshot is read every time
  }
}

TEST(QEVIntelligencePipelineTest, ACachedResultIsReturnedUnchanged) {
  AnalyzerRig rig(kShape);
  const QEVIntelligenceContext context = rig.context();
  const QEVBehaviorSummary planted("planted", {}, {}, {}, 1.0, QEVRDate{1});
  rig.cache->store(
      planted, {QEVIntelligenceAnalysisType::behaviorSummary, contextHash(context), std::nullopt});
  EXPECT_EQ(rig.analyzers.summarizer.summarize(), planted);

  const QEVIntentAnalysis intent("planted", {}, {}, 1.0, QEVRDate{1});
  rig.cache->store(intent, {QEVIntelligenceAnalysisType::intentAnalysis, contextHash(context),
                            "custom([redacted])"});
  EXPECT_EQ(rig.analyzers.intentAnalyzer.analyze(QEVExperienceDomain::custom(" abc@x.io ")),
            intent);
  EXPECT_NE(rig.analyzers.intentAnalyzer.analyze(std::nullopt), intent);
  // The skill rules ignore the domain, but it still enters the key.
  EXPECT_EQ(rig.analyzers.skillAnalyzer.analyze(QEVExperienceDomain::game()),
            rig.analyzers.skillAnalyzer.analyze(std::nullopt));
  EXPECT_EQ(rig.cache->count(), 5u);

  // Once expired, the rules answer again.
  rig.cacheNow = kTestNow.addingSeconds(300);
  EXPECT_EQ(rig.analyzers.summarizer.summarize().summary,
            "Behavior summary generated from local memory context.");
}

TEST(QEVIntelligencePipelineTest, TheProviderStageRefusesAndOnlyCancellationPassesOn) {
  AnalyzerRig rig(kShape);
  EXPECT_THAT(
      [&] {
        runProviderStage(rig.analyzers.summarizer, QEVPromptTemplateType::behaviorSummary,
                         rig.context());
      },
      throwsWithMessage<QEVIntelligenceError>(
          "QEVIntelligence is disabled and no deterministic fallback is available."));
  EXPECT_THROW(fallThroughProviderStage([] { throw QEVRCancellationError(); }),
               QEVRCancellationError);
  bool ran = false;
  EXPECT_NO_THROW(fallThroughProviderStage([&ran] {
    ran = true;
    throw QEVIntelligenceError::providerUnavailable(QEVLLMExecutionMode::cloud);
  }));
  EXPECT_TRUE(ran);
}

TEST(QEVIntelligencePipelineTest, ASnapshotFailureReachesTheCaller) {
  AnalyzerRig rig(kShape);
  rig.provider->onCall = [] { throw std::runtime_error("damaged"); };
  for (const Analysis& analysis : kAnalyses) {
    EXPECT_THROW(analysis.run(rig.analyzers, {}), std::runtime_error);
  }
}

}  // namespace
