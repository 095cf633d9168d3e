// The memory store's two busiest paths, on the real file system:
//
// - BM_SaveChunk: one closed chunk of 100 events saved (encoded, compressed,
//   wrapped, written atomically with fsync), over the labelled 100-event
//   chunks of tests/data/lzfse. BM_WriteChunkJSON is its baseline on the same
//   input in the same binary: the chunk's JSON written atomically as it is,
//   so the difference is the price of encoding and compression. Both are
//   dominated by fsync; BM_PackChunk is the in-memory part of a save alone
//   (chunk JSON, compression, envelope JSON), the part that is ours.
// - BM_PruneRunCold / BM_PruneRunWarm: one pruning run over a store filled
//   to just under the default 25 MB limit with those chunks and 100 session
//   graphs, with nothing due to go: by a new pruner, which decodes every
//   file to learn its date, and by one that has run before over the same
//   files. One run follows every saved chunk, so the warm run is the steady
//   cost and the cold run its baseline. The run happens on a pool thread, so
//   CPU is the whole process's: on a shared machine it is the steadier of
//   the two figures.
#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Log.h>
#include "QEVMemoryPruner.h"

#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr std::array<const char*, 8> kChunkLabels = {
    "ascii",        "unicode",       "custom-heavy",  "game",
    "long-strings", "screens-light", "taps-gestures", "two-sessions"};

qevr::FileSystem& files() {
  return qevr::FileSystem::defaultFileSystem();
}

// A directory under /tmp for the life of the process.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    char pattern[] = "/tmp/qevr-bench-store-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) throw std::system_error(errno, std::generic_category());
    path = pattern;
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  fs::path path;
};

const fs::path& scratch() {
  static ScratchDirectory directory;
  return directory.path;
}

const QEVMemoryEventChunk& corpusChunk(std::size_t index) {
  static const std::vector<QEVMemoryEventChunk> chunks = [] {
    std::vector<QEVMemoryEventChunk> loaded;
    for (const char* label : kChunkLabels) {
      const fs::path file =
          fs::path(QEVR_BENCH_DATA_DIR) / "lzfse" / ("chunk-100-" + std::string(label) + ".bin");
      const std::vector<std::uint8_t> bytes = files().readFile(file, 1 << 20);
      loaded.push_back(QEVMemoryEventChunk::fromJSON(
          std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size())));
    }
    return loaded;
  }();
  return chunks.at(index);
}

// Pruning logs a line per run; the host's log pipeline is not measured.
class SilentSink final : public qevr::LogSink {
 public:
  bool isEnabled(std::string_view, std::string_view, qevr::LogType) const override { return false; }
  void write(std::string_view, std::string_view, qevr::LogType, std::string_view) override {}
};

void BM_SaveChunk(benchmark::State& state) {
  const QEVMemoryEventChunk& chunk = corpusChunk(static_cast<std::size_t>(state.range(0)));
  QEVFileMemoryStore store(scratch() / "save", files(),
                           std::make_shared<QEVLZFSECompressionEngine>());
  const std::size_t rawBytes = chunk.toJSON().size();
  for (auto _ : state)
    store.saveEventChunk(chunk);
  const fs::path file = scratch() / "save" / "events" / (chunk.id.uuidString() + ".json");
  state.SetLabel(kChunkLabels.at(static_cast<std::size_t>(state.range(0))));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * rawBytes));
  state.counters["jsonBytes"] = static_cast<double>(rawBytes);
  state.counters["fileBytes"] = static_cast<double>(files().fileSize(file).value_or(0));
}
BENCHMARK(BM_SaveChunk)->DenseRange(0, kChunkLabels.size() - 1)->UseRealTime();

void BM_PackChunk(benchmark::State& state) {
  const QEVMemoryEventChunk& chunk = corpusChunk(static_cast<std::size_t>(state.range(0)));
  const QEVLZFSECompressionEngine engine;
  std::size_t rawBytes = 0;
  for (auto _ : state) {
    const std::string json = chunk.toJSON();
    rawBytes = json.size();
    QEVStoredEventChunk envelope{
        engine.compressionType(), static_cast<std::int64_t>(json.size()),
        engine.compress(std::vector<std::uint8_t>(json.begin(), json.end()))};
    std::string file = envelope.toJSON();
    benchmark::DoNotOptimize(file);
  }
  state.SetLabel(kChunkLabels.at(static_cast<std::size_t>(state.range(0))));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * rawBytes));
}
BENCHMARK(BM_PackChunk)->DenseRange(0, kChunkLabels.size() - 1);

void BM_WriteChunkJSON(benchmark::State& state) {
  const QEVMemoryEventChunk& chunk = corpusChunk(static_cast<std::size_t>(state.range(0)));
  const std::string json = chunk.toJSON();
  const fs::path target = scratch() / "baseline" / (chunk.id.uuidString() + ".json");
  files().createDirectories(target.parent_path());
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(json.data()), json.size());
  for (auto _ : state)
    files().writeFileAtomically(target, bytes);
  state.SetLabel(kChunkLabels.at(static_cast<std::size_t>(state.range(0))));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * json.size()));
}
BENCHMARK(BM_WriteChunkJSON)->DenseRange(0, kChunkLabels.size() - 1)->UseRealTime();

// A store at the default limits: 100 session graphs and as many chunk files
// as fit under 25 MB, all dated within the last 30 days of `now`.
struct FullStore {
  fs::path root;
  std::uint64_t chunkFiles = 0;
  std::uint64_t totalBytes = 0;
};

const FullStore& fullStore(const qevr::Clock& clock) {
  static const FullStore store = [&clock] {
    FullStore full{scratch() / "full", 0, 0};
    QEVFileMemoryStore writer(full.root, files(), std::make_shared<QEVLZFSECompressionEngine>());
    const QEVRDate now = clock.now();
    const auto sizeOf = [&](const fs::path& dir, const QEVRUUID& id) {
      return files().fileSize(full.root / dir / (id.uuidString() + ".json")).value_or(0);
    };

    for (int i = 0; i < 100; ++i) {
      QEVSessionGraphBuilder builder;
      for (const QEVMemoryEvent& event : corpusChunk(static_cast<std::size_t>(i) % 8).events) {
        builder.ingest(event);
      }
      QEVSessionGraph graph = builder.build();
      graph.sessionId = QEVRUUID::random();
      graph.startedAt = now.addingSeconds(-86'400.0 * (i % 29) - 900);
      graph.endedAt = now.addingSeconds(-86'400.0 * (i % 29));
      graph.duration = 900;
      writer.saveSessionGraph(graph);
      full.totalBytes += sizeOf("sessions", *graph.sessionId);
    }

    // Stop one largest chunk file short of the limit, so the disk pass has
    // nothing to do either.
    const std::uint64_t limit = 25 * 1'048'576;
    const std::uint64_t margin = 64 * 1024;
    for (std::uint64_t n = 0; full.totalBytes + margin < limit; ++n) {
      QEVMemoryEventChunk chunk = corpusChunk(n % kChunkLabels.size());
      chunk.id = QEVRUUID::random();
      chunk.createdAt = now.addingSeconds(-60.0 * static_cast<double>(n % 40'000) - 600);
      chunk.closedAt = chunk.createdAt.addingSeconds(600);
      writer.saveEventChunk(chunk);
      full.totalBytes += sizeOf("events", chunk.id);
      ++full.chunkFiles;
    }
    return full;
  }();
  return store;
}

// A run over the full store with nothing due to go. Cold: each run with a
// new pruner, which has to read and decode every file to learn its date.
// Warm: the same pruner after one untimed run, with nothing changed on disk
// since; this is the steady cost of the run that follows every saved chunk.
void pruneRuns(benchmark::State& state, bool warm) {
  auto clock =
      std::make_shared<qevr::ManualClock>(qevr::parseISO8601("2026-10-01T12:00:00Z").value());
  qevr::setClock(clock);
  qevr::ScopedLogSink silent(std::make_shared<SilentSink>());
  const FullStore& full = fullStore(*clock);
  const QEVMemoryOptions defaults;
  const QEVMemoryPruner shared(full.root, files());
  if (warm) shared.prune(defaults);

  for (auto _ : state) {
    std::optional<QEVMemoryPruner> fresh;
    if (!warm) fresh.emplace(full.root, files());
    const QEVMemoryPruningSummary summary = (warm ? shared : *fresh).prune(defaults);
    if (!(summary == QEVMemoryPruningSummary{})) {
      state.SkipWithError("the run deleted files; the store is not at rest");
      break;
    }
  }
  qevr::setClock(nullptr);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * (full.chunkFiles + 100)));
  state.counters["chunkFiles"] = static_cast<double>(full.chunkFiles);
  state.counters["storeMB"] = static_cast<double>(full.totalBytes) / 1'048'576;
}

void BM_PruneRunCold(benchmark::State& state) {
  pruneRuns(state, /*warm=*/false);
}
BENCHMARK(BM_PruneRunCold)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(5);

void BM_PruneRunWarm(benchmark::State& state) {
  pruneRuns(state, /*warm=*/true);
}
BENCHMARK(BM_PruneRunWarm)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(50);

}  // namespace

BENCHMARK_MAIN();
