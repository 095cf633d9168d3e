// The cost of each analysis over a snapshot of 100 sessions: cold (the rules
// run, the cache is emptied before each call) and cached (a hit within the
// time to live). Both read the snapshot and build the context each time; the
// snapshot comes from memory, so disk stays out of the figures.
#include <QEVIntelligence/QEVFixedIntelligenceSnapshotProvider.h>
#include <QEVIntelligence/QEVIntelligenceAnalyzers.h>

#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVMemory/QEVSessionGraph.h>
#include <QEVMemory/QEVUserGraph.h>
#include <QEVRPlatform/FileSystem.h>
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>
#include <memory>

#include <string>

namespace {

// What a store of 100 sessions of a shopping game looks like to the
// analysers: dozens of screens, components and custom events, and five
// recent sessions of a dozen screens each.
QEVMemoryIntelligenceSnapshot snapshotOf100Sessions() {
  QEVMemoryIntelligenceSnapshot snapshot;
  snapshot.totalSessions = 100;
  snapshot.totalEvents = 18400;
  snapshot.averageSessionDuration = 412.7;
  const char* screens[] = {"Home", "Shop",     "Cart",    "Checkout",    "Level",
                           "Map",  "Settings", "Profile", "Leaderboard", "Inventory"};
  for (int i = 0; i < 60; ++i) {
    snapshot.frequentlyVisitedScreens[std::string(screens[i % 10]) + "_" + std::to_string(i)] =
        1000 - i * 13;
  }
  for (int i = 0; i < 120; ++i) {
    snapshot.frequentComponents["button_" + std::to_string(i) + (i % 7 == 0 ? "_shortcut" : "")] =
        700 - i * 5;
  }
  const char* events[] = {"level_completed", "level_failed", "purchase_completed", "retry",
                          "coins_collected"};
  for (int i = 0; i < 40; ++i) {
    snapshot.frequentCustomEvents[std::string(events[i % 5]) + "_" + std::to_string(i)] = 300 - i;
  }
  for (int i = 0; i < 30; ++i) {
    snapshot.recentNavigationPatterns[std::string(screens[i % 10]) + "->" + screens[(i + 3) % 10]] =
        i + 1;
  }
  for (int s = 0; s < 5; ++s) {
    std::string line;
    for (int i = 0; i < 12; ++i) {
      if (i > 0) line += " > ";
      line += screens[(s + i) % 10];
    }
    snapshot.recentScreenSequences.push_back(line);
  }
  snapshot.timeWindowStart = QEVRDate{790000000};
  snapshot.timeWindowEnd = QEVRDate{800000000};
  return snapshot;
}

QEVIntelligenceAnalyzers makeAnalyzers() {
  // A fixed clock keeps the context, and so the cache key, the same from one
  // iteration to the next.
  return QEVIntelligenceAnalyzers(
      std::make_shared<QEVFixedIntelligenceSnapshotProvider>(snapshotOf100Sessions()),
      {QEVLLMExecutionMode::disabled, [] { return QEVRDate{800000123}; }});
}

template <typename Analyse>
void runCold(benchmark::State& state, Analyse analyse) {
  const QEVIntelligenceAnalyzers analyzers = makeAnalyzers();
  for (auto _ : state) {
    analyzers.clearCache();
    benchmark::DoNotOptimize(analyse(analyzers));
  }
}

template <typename Analyse>
void runCached(benchmark::State& state, Analyse analyse) {
  const QEVIntelligenceAnalyzers analyzers = makeAnalyzers();
  const auto first = analyse(analyzers);
  for (auto _ : state) {
    auto result = analyse(analyzers);
    if (!(result == first)) state.SkipWithError("cached result differs");
    benchmark::DoNotOptimize(result);
  }
  if (analyzers.cachedResultCount() != 1) state.SkipWithError("expected exactly one entry");
}

const auto summarize = [](const QEVIntelligenceAnalyzers& a) { return a.summarizeBehavior(); };
const auto intent = [](const QEVIntelligenceAnalyzers& a) {
  return a.analyzeIntent(QEVExperienceDomain::game());
};
const auto frustration = [](const QEVIntelligenceAnalyzers& a) { return a.detectFrustration(); };
const auto skill = [](const QEVIntelligenceAnalyzers& a) {
  return a.analyzeSkill(QEVExperienceDomain::game());
};

void BM_SummarizeBehaviorCold(benchmark::State& state) {
  runCold(state, summarize);
}
void BM_SummarizeBehaviorCached(benchmark::State& state) {
  runCached(state, summarize);
}
void BM_AnalyzeIntentCold(benchmark::State& state) {
  runCold(state, intent);
}
void BM_AnalyzeIntentCached(benchmark::State& state) {
  runCached(state, intent);
}
void BM_DetectFrustrationCold(benchmark::State& state) {
  runCold(state, frustration);
}
void BM_DetectFrustrationCached(benchmark::State& state) {
  runCached(state, frustration);
}
void BM_AnalyzeSkillCold(benchmark::State& state) {
  runCold(state, skill);
}
void BM_AnalyzeSkillCached(benchmark::State& state) {
  runCached(state, skill);
}

// What `qevr analyze --data-dir` does after it starts: read the store's
// session graphs and user graph into a snapshot, then run the four analyses
// cold. A store at the default limits holds 100 session graphs; its chunk
// files are never read for a snapshot, so they are left out of the setup.
void BM_AnalyzeStoreEndToEnd(benchmark::State& state) {
  std::string pattern = (std::filesystem::temp_directory_path() / "qevr-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    state.SkipWithError("no temporary directory");
    return;
  }
  const std::filesystem::path root = std::filesystem::path(pattern) / "QEVR" / "Memory";
  QEVFileMemoryStore store(root, qevr::FileSystem::defaultFileSystem(),
                           std::make_shared<QEVLZFSECompressionEngine>());
  const QEVMemoryIntelligenceSnapshot model = snapshotOf100Sessions();
  QEVUserGraphBuilder user(QEVRUUID::random(), QEVRDate{800000000});
  for (int i = 0; i < 100; ++i) {
    QEVSessionGraph graph;
    graph.sessionId = QEVRUUID::random();
    graph.startedAt = QEVRDate{800000000.0 + 3600.0 * i};
    graph.endedAt = graph.startedAt->addingSeconds(900);
    graph.duration = 900;
    graph.eventCount = 500;
    graph.customEventCounts = model.frequentCustomEvents;
    for (const auto& [name, count] : model.frequentlyVisitedScreens) {
      if (graph.screenSequence.size() < 12) graph.screenSequence.push_back(name);
    }
    for (std::size_t k = 1; k < graph.screenSequence.size(); ++k) {
      graph.navigationEdges.push_back({graph.screenSequence[k - 1], graph.screenSequence[k], 2});
    }
    for (const auto& [id, count] : model.frequentComponents) {
      graph.componentInteractions.push_back({id, std::nullopt, count, 0});
    }
    user.merge(graph);
    store.saveSessionGraph(graph);
  }
  store.saveUserGraph(user.build());

  for (auto _ : state) {
    const QEVIntelligenceAnalyzers analyzers(
        std::make_shared<QEVFixedIntelligenceSnapshotProvider>(intelligenceSnapshot(store)));
    const auto game = QEVExperienceDomain::game();
    benchmark::DoNotOptimize(analyzers.summarizeBehavior());
    benchmark::DoNotOptimize(analyzers.analyzeIntent(game));
    benchmark::DoNotOptimize(analyzers.detectFrustration());
    benchmark::DoNotOptimize(analyzers.analyzeSkill(game));
  }
  std::filesystem::remove_all(pattern);
}

BENCHMARK(BM_AnalyzeStoreEndToEnd)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SummarizeBehaviorCold);
BENCHMARK(BM_SummarizeBehaviorCached);
BENCHMARK(BM_AnalyzeIntentCold);
BENCHMARK(BM_AnalyzeIntentCached);
BENCHMARK(BM_DetectFrustrationCold);
BENCHMARK(BM_DetectFrustrationCached);
BENCHMARK(BM_AnalyzeSkillCold);
BENCHMARK(BM_AnalyzeSkillCached);

}  // namespace

BENCHMARK_MAIN();
