// Text and JSON services of the platform layer on the inputs they see most:
// screen and component names of a few dozen characters, and small records;
// and the task pool under a burst of small tasks, as a store does when many
// chunks close at once.
//
// Each text operation runs on four labelled names (ASCII and non-ASCII, 16
// and 40 grapheme clusters). The baselines in the same binary are what the
// services would cost without their shortcuts: a fresh ICU break iterator
// per call for grapheme counting, and simdjson's own parse without building
// our tree for JSON.

#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/Text.h>
#include <QEVRPlatform/UUID.h>

#include <benchmark/benchmark.h>
#include <simdjson.h>
#include <unicode/ubrk.h>
#include <unicode/utext.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>

namespace {

struct Name {
  const char* label;
  std::string text;
  std::size_t clusters;  // checked before the run
};

const std::array<Name, 4> kNames = {{
    {"ascii16", "Settings Screen1", 16},
    {"ascii40", "Checkout > Payment > Confirm your order!", 40},
    {"nonascii16", "R\u00E9glages \U0001F1EB\U0001F1F7 \u00E9cran", 16},
    {"nonascii40",
     "Param\u00E8tres du compte \u203A S\u00E9curit\u00E9 "
     "\U0001F468\u200D\U0001F469\u200D\U0001F467 \u65E5\u672C\u8A9E \u0413\u043B",
     40},
}};

// A name as a host hands it over: the same text with a space on each side.
std::string padded(const Name& name) {
  return "  " + name.text + "\u3000";
}

// The baseline: what counting costs when every call makes its iterator.
std::size_t graphemeCountWithFreshIterator(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  const std::unique_ptr<UBreakIterator, decltype(&ubrk_close)> iterator(
      ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status), &ubrk_close);
  UText utext = UTEXT_INITIALIZER;
  utext_openUTF8(&utext, text.data(), static_cast<int64_t>(text.size()), &status);
  ubrk_setUText(iterator.get(), &utext, &status);
  if (U_FAILURE(status)) {
    utext_close(&utext);
    std::cerr << "break iterator: " << u_errorName(status) << "\n";
    std::abort();
  }
  std::size_t count = 0;
  ubrk_first(iterator.get());
  while (ubrk_next(iterator.get()) != UBRK_DONE)
    ++count;
  utext_close(&utext);
  return count;
}

void BM_GraphemeCount(benchmark::State& state) {
  const Name& name = kNames[static_cast<std::size_t>(state.range(0))];
  for (auto _ : state)
    benchmark::DoNotOptimize(qevr::text::graphemeCount(name.text));
  state.SetLabel(name.label);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * name.text.size()));
}
BENCHMARK(BM_GraphemeCount)->DenseRange(0, 3);

void BM_GraphemeCountFreshIcuIterator(benchmark::State& state) {
  const Name& name = kNames[static_cast<std::size_t>(state.range(0))];
  for (auto _ : state)
    benchmark::DoNotOptimize(graphemeCountWithFreshIterator(name.text));
  state.SetLabel(name.label);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * name.text.size()));
}
BENCHMARK(BM_GraphemeCountFreshIcuIterator)->DenseRange(0, 3);

void BM_Trim(benchmark::State& state) {
  const Name& name = kNames[static_cast<std::size_t>(state.range(0))];
  const std::string input = padded(name);
  for (auto _ : state)
    benchmark::DoNotOptimize(qevr::text::trim(input));
  state.SetLabel(name.label);
}
BENCHMARK(BM_Trim)->DenseRange(0, 3);

void BM_HostText(benchmark::State& state) {
  const Name& name = kNames[static_cast<std::size_t>(state.range(0))];
  for (auto _ : state)
    benchmark::DoNotOptimize(qevr::text::hostText(name.text));
  state.SetLabel(name.label);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * name.text.size()));
}
BENCHMARK(BM_HostText)->DenseRange(0, 3);

// The full validation a facade applies to a name: boundary, trim, limit.
void BM_ValidateName(benchmark::State& state) {
  const Name& name = kNames[static_cast<std::size_t>(state.range(0))];
  const std::string input = padded(name);
  for (auto _ : state) {
    const std::string text = qevr::text::hostText(input);
    const std::string_view trimmed = qevr::text::trim(text);
    benchmark::DoNotOptimize(qevr::text::graphemeCount(trimmed) <= 128);
  }
  state.SetLabel(name.label);
}
BENCHMARK(BM_ValidateName)->DenseRange(0, 3);

// ---- JSON ----

const QEVRUUID kEventId = *QEVRUUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");

std::string writeSmallEvent() {
  qevr::json::Writer writer(qevr::json::DateStrategy::iso8601);
  writer.beginObject();
  writer.key("id");
  writer.uuid(kEventId);
  writer.key("type");
  writer.string("custom");
  writer.key("timestamp");
  writer.date(QEVRDate::fromUnixSeconds(1769850300));
  writer.key("screenName");
  writer.string("Checkout/Payment");
  writer.key("metadata");
  writer.beginObject();
  writer.key("name");
  writer.beginObject();
  writer.key("type");
  writer.string("string");
  writer.key("value");
  writer.string("purchase_completed");
  writer.endObject();
  writer.key("amount");
  writer.beginObject();
  writer.key("type");
  writer.string("double");
  writer.key("value");
  writer.number(42.5);
  writer.endObject();
  writer.endObject();
  writer.endObject();
  return writer.take();
}

void BM_JsonWriteSmallObject(benchmark::State& state) {
  std::size_t bytes = 0;
  for (auto _ : state) {
    const std::string text = writeSmallEvent();
    bytes += text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_JsonWriteSmallObject);

void BM_JsonParseSmallObject(benchmark::State& state) {
  const std::string text = writeSmallEvent();
  for (auto _ : state) {
    const qevr::json::Value value = qevr::json::parse(text);
    const qevr::json::Decoder event(value, qevr::json::DateStrategy::iso8601);
    benchmark::DoNotOptimize(event["id"].asUUID());
    benchmark::DoNotOptimize(event["timestamp"].asDate());
    benchmark::DoNotOptimize(event["metadata"]["amount"]["value"].asDouble());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_JsonParseSmallObject);

// The baseline: simdjson alone, reusing its parser, reading the same fields
// without building a tree.
void BM_JsonParseSmallObjectSimdjsonOnly(benchmark::State& state) {
  const simdjson::padded_string text(writeSmallEvent());
  simdjson::dom::parser parser;
  for (auto _ : state) {
    const simdjson::dom::element event = parser.parse(text).value();
    benchmark::DoNotOptimize(event["id"].get_string().value());
    benchmark::DoNotOptimize(event["timestamp"].get_string().value());
    benchmark::DoNotOptimize(event["metadata"]["amount"]["value"].get_double().value());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_JsonParseSmallObjectSimdjsonOnly);

// ---- Tasks ----

constexpr int kBurstTasks = 10000;

// Queues a burst of tiny tasks from one thread and waits until the pool has
// drained it. "queuedAfterBurst" is how many were still waiting for a thread
// when the last one was queued: the lower, the more the workers kept up
// instead of fighting over the queue's lock. "burstCompleted" checks that
// every task ran before the figure counts.
void BM_TaskBurst(benchmark::State& state) {
  std::atomic<int> ran{0};
  double queuedAfterBurst = 0;
  bool drained = true;
  for (auto _ : state) {
    for (int i = 0; i < kBurstTasks; ++i) {
      qevr::detachTask(qevr::TaskPriority::utility,
                       [&ran](std::stop_token) { ran.fetch_add(1, std::memory_order_relaxed); });
    }
    queuedAfterBurst += static_cast<double>(qevr::taskPoolLoad().queued);
    drained = qevr::waitForBackgroundIdle(std::chrono::minutes(1)) && drained;
  }
  const auto expected = static_cast<double>(state.iterations()) * kBurstTasks;
  state.counters["queuedAfterBurst"] =
      benchmark::Counter(queuedAfterBurst, benchmark::Counter::kAvgIterations);
  state.counters["burstCompleted"] = drained && static_cast<double>(ran.load()) == expected ? 1 : 0;
  state.SetItemsProcessed(state.iterations() * kBurstTasks);
  state.SetLabel("threads=" + std::to_string(qevr::taskPoolSize()));
}
BENCHMARK(BM_TaskBurst)->UseRealTime()->Unit(benchmark::kMillisecond);

// Refuses to run on inputs that do not say what their labels claim.
bool inputsMatchTheirLabels() {
  for (const Name& name : kNames) {
    const std::size_t ours = qevr::text::graphemeCount(name.text);
    if (ours != name.clusters || graphemeCountWithFreshIterator(name.text) != name.clusters) {
      std::cerr << name.label << ": " << ours << " clusters, labelled " << name.clusters << "\n";
      return false;
    }
    if (qevr::text::trim(padded(name)) != name.text) {
      std::cerr << name.label << ": trim does not give the name back\n";
      return false;
    }
  }
  const qevr::json::Value event = qevr::json::parse(writeSmallEvent());
  if (qevr::json::Decoder(event)["screenName"].asString() != "Checkout/Payment") return false;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (!inputsMatchTheirLabels()) return EXIT_FAILURE;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return EXIT_FAILURE;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return EXIT_SUCCESS;
}
