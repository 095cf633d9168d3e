// The core's logger: what a filtered call costs (the common case on hot
// paths), next to one that passes to a sink that drops the record.
#include "QEVRLogger.h"

#include <benchmark/benchmark.h>

namespace {

class DroppingSink final : public QEVRLogSink {
 public:
  void write(const QEVRLogRecord& record) override { benchmark::DoNotOptimize(&record); }
};

void BM_LoggerFilteredCall(benchmark::State& state) {
  QEVRLogger logger("QEVRCore", QEVRLogLevel::warning, std::make_shared<DroppingSink>());
  for (auto _ : state) {
    logger.log(QEVRLogLevel::info, "Lifecycle", "SDK started");
  }
}
BENCHMARK(BM_LoggerFilteredCall);

void BM_LoggerPassingCall(benchmark::State& state) {
  QEVRLogger logger("QEVRCore", QEVRLogLevel::info, std::make_shared<DroppingSink>());
  for (auto _ : state) {
    logger.log(QEVRLogLevel::info, "Lifecycle", "SDK started");
  }
}
BENCHMARK(BM_LoggerPassingCall);

void BM_FormattedLine(benchmark::State& state) {
  QEVRLogRecord record{QEVRDate{791543100}, QEVRLogLevel::info, "QEVRCore", "Lifecycle",
                       "SDK started"};
  for (auto _ : state)
    benchmark::DoNotOptimize(record.formattedLine());
}
BENCHMARK(BM_FormattedLine);

}  // namespace

BENCHMARK_MAIN();
