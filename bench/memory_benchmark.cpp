// Memory's cost to the host: QEVR::Observer::track into the memory module
// with disk on (per-call latency percentiles, against a mutex-and-vector
// baseline timed the same way in the same run), the snapshot over 100 session
// graphs, and resident memory as the event count grows.
//
// The resident-memory cases track millions of events and take minutes; they
// run only with QEVR_BENCH_LONG=1 in the environment.
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVMemory/QEVMemoryModule.h>
#include <QEVObserver/QEVObserverFacade.h>
#include <QEVObserver/QEVObserverModule.h>
#include <QEVRCore/QEVRFacade.h>
#include <QEVRCore/QEVRModuleRegistry.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>

#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

class SilentSink final : public qevr::LogSink {
 public:
  bool isEnabled(std::string_view, std::string_view, qevr::LogType) const override { return false; }
  void write(std::string_view, std::string_view, qevr::LogType, std::string_view) override {}
};

fs::path temporaryDirectory() {
  std::string pattern = (fs::temp_directory_path() / "qevr-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) return {};
  return pattern;
}

// Without HOME, XDG_DATA_HOME or an override there is no application-support
// directory, and the memory module keeps to memory. Restores both after.
class NoDataDirectory {
 public:
  NoDataDirectory() {
    for (const char* name : {"HOME", "XDG_DATA_HOME"}) {
      const char* value = std::getenv(name);
      saved.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
      ::unsetenv(name);
    }
  }
  ~NoDataDirectory() {
    for (const auto& [name, value] : saved) {
      if (value) ::setenv(name, value->c_str(), 1);
    }
  }

 private:
  std::vector<std::pair<const char*, std::optional<std::string>>> saved;
};

// A started system with observer and memory on a fresh data directory, or
// with none.
class RunningSystem {
 public:
  explicit RunningSystem(bool disk = true)
      : silent(std::make_shared<SilentSink>()), dir(disk ? temporaryDirectory() : fs::path()) {
    if (disk) qevr::setApplicationSupportDirectoryOverride(dir);
    auto& registry = QEVRModuleRegistry::shared();
    registry.removeAll();
    registry.registerModule(QEVObserverIntegration::makeModule());
    registry.registerModule(QEVMemoryIntegration::makeModule());
    QEVRConfiguration c;
    c.appId = "bench";
    c.logLevel = QEVRLogLevel::off;
    c.isBackgroundProcessingEnabled = true;
    QEVR::start(c);
  }
  ~RunningSystem() {
    QEVR::shutdown();
    qevr::waitForBackgroundIdle(std::chrono::minutes(10));
    QEVRModuleRegistry::shared().removeAll();
    qevr::setApplicationSupportDirectoryOverride(std::nullopt);
    std::error_code ignored;
    if (!dir.empty()) fs::remove_all(dir, ignored);
  }

 private:
  qevr::ScopedLogSink silent;
  fs::path dir;
};

const QEVObserverMetadata kMetadata{{"score", 1200}, {"accuracy", 0.875}, {"mode", "arcade"}};

// Times every call on its own and reports the median and the 99th
// percentile as counters, the figures a host feels.
template <typename Call>
void timeEachCall(benchmark::State& state, Call call) {
  std::vector<double> nanos;
  nanos.reserve(1 << 20);
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    call();
    const auto end = std::chrono::steady_clock::now();
    if (nanos.size() < nanos.capacity()) {
      nanos.push_back(std::chrono::duration<double, std::nano>(end - begin).count());
    }
  }
  if (nanos.empty()) return;
  std::sort(nanos.begin(), nanos.end());
  state.counters["median_ns"] = nanos[nanos.size() / 2];
  state.counters["p99_ns"] = nanos[nanos.size() * 99 / 100];
  state.counters["events_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// The baseline of the same run: the least a host could pay to hand an event
// over, a copy appended to a vector under a mutex, timed the same way.
void BM_BaselineVectorAppendUnderMutex(benchmark::State& state) {
  const auto event = QEVObserverEvent::custom("level_completed1", QEVRUUID::random(), QEVRDate{},
                                              std::nullopt, std::nullopt, std::nullopt, kMetadata);
  std::mutex mutex;
  std::vector<QEVObserverEvent> events;
  events.reserve(1 << 16);
  timeEachCall(state, [&] {
    std::lock_guard guard(mutex);
    if (events.size() == events.capacity()) events.clear();  // keep memory flat
    events.push_back(event);
  });
}
BENCHMARK(BM_BaselineVectorAppendUnderMutex)->UseRealTime();

void BM_TrackIntoMemoryWithDisk(benchmark::State& state) {
  RunningSystem system;
  timeEachCall(state, [] {
    benchmark::DoNotOptimize(QEVR::Observer::track("level_completed1", kMetadata));
  });
}
BENCHMARK(BM_TrackIntoMemoryWithDisk)->UseRealTime();

// The same with no data directory: graphs only, no chunk ever saved, so the
// difference to the case above is what disk costs the host.
void BM_TrackIntoMemoryOnly(benchmark::State& state) {
  NoDataDirectory memoryOnly;
  RunningSystem system(/*disk=*/false);
  timeEachCall(state, [] {
    benchmark::DoNotOptimize(QEVR::Observer::track("level_completed1", kMetadata));
  });
}
BENCHMARK(BM_TrackIntoMemoryOnly)->UseRealTime();

void BM_IntelligenceSnapshot100Sessions(benchmark::State& state) {
  const fs::path dir = temporaryDirectory();
  QEVFileMemoryStore store(dir, qevr::FileSystem::defaultFileSystem(),
                           std::make_shared<QEVLZFSECompressionEngine>());
  for (int i = 0; i < 100; ++i) {
    QEVSessionGraph g;
    g.sessionId = QEVRUUID::random();
    g.startedAt = QEVRDate{1000.0 * i};
    g.endedAt = QEVRDate{1000.0 * i + 300};
    g.eventCount = 250;
    for (int s = 0; s < 40; ++s)
      g.screenSequence.push_back("Screen " + std::to_string(s % 12));
    for (int e = 0; e < 12; ++e) {
      g.navigationEdges.push_back(
          {"Screen " + std::to_string(e), "Screen " + std::to_string(e + 1), e + 1});
    }
    for (int c = 0; c < 10; ++c) {
      g.componentInteractions.push_back({"button_" + std::to_string(c), "Screen 1", c, 1});
    }
    g.customEventCounts = {{"level_completed", 3}, {"item_bought", 1}};
    store.saveSessionGraph(g);
  }
  for (auto _ : state)
    benchmark::DoNotOptimize(intelligenceSnapshot(store));
  std::error_code ignored;
  fs::remove_all(dir, ignored);
}
BENCHMARK(BM_IntelligenceSnapshot100Sessions)->Unit(benchmark::kMillisecond)->UseRealTime();

double residentMegabytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}

// Resident memory after 100 thousand events and after range(0) events, with
// the store on disk (range(1) = 1) or in memory-only mode (range(1) = 0,
// no application-support directory), which isolates the pipeline's own
// memory from the disk's pace.
void BM_ResidentMemoryGrowth(benchmark::State& state) {
  const char* enabled = std::getenv("QEVR_BENCH_LONG");
  if (!enabled || std::string(enabled) != "1") {
    state.SkipWithError("set QEVR_BENCH_LONG=1 to run (millions of events)");
    for (auto _ : state) {
    }
    return;
  }
  const std::int64_t total = state.range(0);
  const bool disk = state.range(1) != 0;
  std::optional<NoDataDirectory> memoryOnly;
  if (!disk) memoryOnly.emplace();
  for (auto _ : state) {
    std::optional<RunningSystem> system;
    system.emplace(disk);
    auto track = [](std::int64_t count) {
      for (std::int64_t i = 0; i < count; ++i) {
        QEVR::Observer::track("level_completed1", kMetadata);
      }
    };
    track(100'000);
    qevr::waitForBackgroundIdle(std::chrono::minutes(10));
    const double after100k = residentMegabytes();
    std::fprintf(stderr, "rss after 100k events: %.1f MB\n", after100k);
    for (std::int64_t done = 100'000; done < total; done += 100'000) {
      track(100'000);
      if ((done + 100'000) % 1'000'000 == 0) {
        std::fprintf(stderr, "rss after %lld events: %.1f MB\n",
                     static_cast<long long>(done + 100'000), residentMegabytes());
      }
    }
    qevr::waitForBackgroundIdle(std::chrono::minutes(30));
    const double afterAll = residentMegabytes();
    state.counters["rss_100k_MB"] = after100k;
    state.counters["rss_end_MB"] = afterAll;
    state.counters["growth_MB"] = afterAll - after100k;
  }
}
BENCHMARK(BM_ResidentMemoryGrowth)
    ->Args({10'000'000, 0})
    ->Args({1'000'000, 1})
    ->Args({3'000'000, 1})
    ->Args({10'000'000, 1})
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
