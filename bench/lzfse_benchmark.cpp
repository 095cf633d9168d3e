// LZFSE encode and decode speed and ratio on event-chunk JSON, with zlib at
// level 6 on the same inputs in the same run as the baseline.
//
// Counters: "MB/s" is 10^6 bytes of plain input per second in both
// directions; "ratio" is plain size over compressed size. Every decoder's
// output is compared with the input before its loop runs; a mismatch turns
// the benchmark into an error instead of a figure.
//
// On a shared machine single runs move by tens of per cent; compare medians:
//   lzfse_benchmark --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <QEVRLZFSE/Lzfse.h>

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes readInput(const std::string& name) {
  std::ifstream in(std::filesystem::path(QEVR_BENCH_DATA_DIR) / "lzfse" / (name + ".bin"),
                   std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A labelled set of inputs, each encoded or decoded as its own buffer.
struct Corpus {
  std::string label;
  std::vector<Bytes> inputs;

  std::size_t plainBytes() const {
    std::size_t n = 0;
    for (const Bytes& b : inputs)
      n += b.size();
    return n;
  }
};

const char* const kChunkVectors[] = {
    "chunk-100-ascii",        "chunk-100-custom-heavy",  "chunk-100-game",
    "chunk-100-long-strings", "chunk-100-screens-light", "chunk-100-taps-gestures",
    "chunk-100-two-sessions", "chunk-100-unicode",       "chunk-partial-single",
    "chunk-partial-small",    "chunk-partial-tiny"};

void setCounters(benchmark::State& state, std::size_t plain, std::size_t compressed) {
  const double perIteration = static_cast<double>(plain);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(plain));
  state.counters["MB/s"] =
      benchmark::Counter(perIteration / 1e6, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["ratio"] = static_cast<double>(plain) / static_cast<double>(compressed);
  state.counters["compressed"] = static_cast<double>(compressed);
}

// A codec under test: one-shot encode and decode of whole buffers, with
// whatever state it keeps between calls set up outside the timed loop.
class Codec {
 public:
  virtual ~Codec() = default;
  virtual Bytes encode(const Bytes& plain) = 0;
  virtual std::size_t encodeInto(const Bytes& plain, Bytes& out) = 0;
  // Returns the decoded size, or SIZE_MAX on failure.
  virtual std::size_t decodeInto(const Bytes& stream, Bytes& out) = 0;
};

class LzfseCodec : public Codec {
 public:
  Bytes encode(const Bytes& plain) override { return encoder.encode(plain); }
  std::size_t encodeInto(const Bytes& plain, Bytes& out) override {
    return encoder.encodeBuffer(plain, out);
  }
  std::size_t decodeInto(const Bytes& stream, Bytes& out) override {
    const qevr::lzfse::DecodeResult r = decoder.decodeBuffer(stream, out);
    return r.status == qevr::lzfse::DecodeStatus::ok ? r.bytesWritten : SIZE_MAX;
  }

 private:
  qevr::lzfse::Encoder encoder;
  qevr::lzfse::Decoder decoder;
};

class ZlibCodec : public Codec {
 public:
  Bytes encode(const Bytes& plain) override {
    Bytes out(compressBound(plain.size()));
    out.resize(encodeInto(plain, out));
    return out;
  }
  std::size_t encodeInto(const Bytes& plain, Bytes& out) override {
    uLongf size = out.size();
    if (compress2(out.data(), &size, plain.data(), plain.size(), 6) != Z_OK) return 0;
    return size;
  }
  std::size_t decodeInto(const Bytes& stream, Bytes& out) override {
    uLongf size = out.size();
    if (uncompress(out.data(), &size, stream.data(), stream.size()) != Z_OK) return SIZE_MAX;
    return size;
  }
};

template <typename C>
void encodeBenchmark(benchmark::State& state, const Corpus* corpus) {
  C codec;
  std::vector<Bytes> outputs;
  std::size_t compressed = 0;
  for (const Bytes& in : corpus->inputs) {
    outputs.emplace_back(qevr::lzfse::maxEncodedSize(in.size()) + compressBound(in.size()) + 4096);
    compressed += codec.encode(in).size();
  }
  for (auto _ : state) {
    for (std::size_t i = 0; i < corpus->inputs.size(); ++i) {
      const std::size_t n = codec.encodeInto(corpus->inputs[i], outputs[i]);
      if (n == 0) {
        state.SkipWithError("encode failed");
        return;
      }
      benchmark::DoNotOptimize(n);
    }
    benchmark::ClobberMemory();
  }
  setCounters(state, corpus->plainBytes(), compressed);
}

template <typename C>
void decodeBenchmark(benchmark::State& state, const Corpus* corpus) {
  C codec;
  std::vector<Bytes> streams;
  std::vector<Bytes> outputs;
  std::size_t compressed = 0;
  for (const Bytes& in : corpus->inputs) {
    streams.push_back(codec.encode(in));
    compressed += streams.back().size();
    outputs.emplace_back(in.size());
    // Only a decoder that reproduces its input gets a figure.
    if (codec.decodeInto(streams.back(), outputs.back()) != in.size() || outputs.back() != in) {
      state.SkipWithError("decoded output differs from the input");
      return;
    }
  }
  for (auto _ : state) {
    for (std::size_t i = 0; i < streams.size(); ++i) {
      const std::size_t n = codec.decodeInto(streams[i], outputs[i]);
      if (n != corpus->inputs[i].size()) {
        state.SkipWithError("decode failed");
        return;
      }
      benchmark::DoNotOptimize(outputs[i].data());
    }
    benchmark::ClobberMemory();
  }
  setCounters(state, corpus->plainBytes(), compressed);
}

std::vector<Corpus>& corpora() {
  static std::vector<Corpus> all = [] {
    std::vector<Corpus> list;
    Corpus allChunks{"all-chunk-vectors", {}};
    for (const char* name : kChunkVectors) {
      list.push_back(Corpus{name, {readInput(name)}});
      allChunks.inputs.push_back(list.back().inputs.front());
    }
    list.push_back(std::move(allChunks));
    list.push_back(Corpus{"mixed-1mb", {readInput("mixed-1mb")}});
    return list;
  }();
  return all;
}

int registerAll() {
  for (const Corpus& c : corpora()) {
    if (c.plainBytes() == 0) continue;  // data missing: registered nowhere
    benchmark::RegisterBenchmark(("BM_LzfseEncode/" + c.label).c_str(), encodeBenchmark<LzfseCodec>,
                                 &c);
    benchmark::RegisterBenchmark(("BM_LzfseDecode/" + c.label).c_str(), decodeBenchmark<LzfseCodec>,
                                 &c);
    benchmark::RegisterBenchmark(("BM_ZlibEncode/" + c.label).c_str(), encodeBenchmark<ZlibCodec>,
                                 &c);
    benchmark::RegisterBenchmark(("BM_ZlibDecode/" + c.label).c_str(), decodeBenchmark<ZlibCodec>,
                                 &c);
  }
  return 0;
}

[[maybe_unused]] const int registered = registerAll();

}  // namespace

BENCHMARK_MAIN();
