// The host's cost of QEVR::Observer calls, on one thread, against a baseline
// run in the same binary: appending the same event value to a std::vector
// under a std::mutex. "allocs" counts heap allocations per call.
#include <QEVObserver/QEVObserverFacade.h>
#include <QEVObserver/QEVObserverModule.h>
#include <QEVRCore/QEVRFacade.h>
#include <QEVRCore/QEVRModuleRegistry.h>
#include <QEVRPlatform/Log.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

namespace {
std::atomic<std::uint64_t> allocations{0};
}  // namespace

// The replaced global operators below pair malloc with free by design; g++
// cannot see that and warns at every inlined delete.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace {

const std::string kAsciiName = "level_completed1";  // 16 characters
const std::string kNonAsciiName = "Écran d’accueil ✨";
const QEVObserverMetadata kMetadata{{"score", 1200}, {"accuracy", 0.875}, {"mode", "arcade"}};

// Refused calls log a line; a host's log pipeline is not what is measured.
class SilentSink final : public qevr::LogSink {
 public:
  bool isEnabled(std::string_view, std::string_view, qevr::LogType) const override { return false; }
  void write(std::string_view, std::string_view, qevr::LogType, std::string_view) override {}
};

class CountingSink final : public QEVObserverEventSink {
 public:
  void receive(const QEVObserverEvent&) override { count.fetch_add(1, std::memory_order_relaxed); }
  std::atomic<std::uint64_t> count{0};
};

enum class Mode { refusedBeforeStart, acceptedNoSink, acceptedCountingSink };

class ObserverSetup {
 public:
  explicit ObserverSetup(Mode mode) : silent(std::make_shared<SilentSink>()) {
    auto& registry = QEVRModuleRegistry::shared();
    registry.removeAll();
    if (mode == Mode::refusedBeforeStart) return;
    registry.registerModule(QEVObserverIntegration::makeModule());
    QEVRConfiguration c;
    c.appId = "bench";
    c.logLevel = QEVRLogLevel::off;
    QEVR::start(c);
    if (mode == Mode::acceptedCountingSink) {
      QEVObserverIntegration::registerEventSink(sink);
    }
  }
  ~ObserverSetup() {
    QEVR::shutdown();
    QEVRModuleRegistry::shared().removeAll();
  }
  std::shared_ptr<CountingSink> sink = std::make_shared<CountingSink>();

 private:
  qevr::ScopedLogSink silent;
};

template <typename Call>
void runCalls(benchmark::State& state, Mode mode, Call call) {
  ObserverSetup setup(mode);
  const std::uint64_t before = allocations.load();
  for (auto _ : state)
    benchmark::DoNotOptimize(call());
  state.counters["allocs"] = benchmark::Counter(static_cast<double>(allocations.load() - before) /
                                                static_cast<double>(state.iterations()));
}

void BM_Track(benchmark::State& state) {
  runCalls(state, static_cast<Mode>(state.range(0)),
           [] { return QEVR::Observer::track(kAsciiName, kMetadata); });
}
BENCHMARK(BM_Track)->ArgName("mode")->Arg(0)->Arg(1)->Arg(2);

void BM_ScreenViewNonAscii(benchmark::State& state) {
  runCalls(state, static_cast<Mode>(state.range(0)),
           [] { return QEVR::Observer::screenView(kNonAsciiName, kMetadata); });
}
BENCHMARK(BM_ScreenViewNonAscii)->ArgName("mode")->Arg(0)->Arg(1)->Arg(2);

void BM_BaselineVectorAppendUnderMutex(benchmark::State& state) {
  auto event = QEVObserverEvent::custom(kAsciiName, QEVRUUID::random(), QEVRDate{}, std::nullopt,
                                        std::nullopt, std::nullopt, kMetadata);
  std::mutex mutex;
  std::vector<QEVObserverEvent> events;
  events.reserve(1 << 16);
  const std::uint64_t before = allocations.load();
  for (auto _ : state) {
    std::lock_guard guard(mutex);
    if (events.size() == events.capacity()) events.clear();  // keep memory flat
    events.push_back(event);
  }
  state.counters["allocs"] = benchmark::Counter(static_cast<double>(allocations.load() - before) /
                                                static_cast<double>(state.iterations()));
}
BENCHMARK(BM_BaselineVectorAppendUnderMutex);

}  // namespace

BENCHMARK_MAIN();
