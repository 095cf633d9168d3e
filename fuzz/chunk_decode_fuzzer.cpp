// Feeds arbitrary bytes to the chunk decoder, the way a chunk file's
// payload reaches it, and folds whatever decodes into a session graph.
//
// Beyond "no crash, no leak, no undefined behaviour":
// - the decoder throws nothing but DecodingError;
// - a decoded chunk writes out and reads back as the same chunk (dates are
//   whole seconds after decoding, so nothing is lost the second time);
// - the session graph built from its events keeps the graph's sort order.
#include <QEVMemory/QEVMemoryEvent.h>
#include <QEVMemory/QEVSessionGraph.h>
#include <QEVRPlatform/Json.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

std::string_view orEmpty(const std::optional<std::string>& text) {
  return text ? std::string_view(*text) : std::string_view();
}

// std::string_view compares bytes as unsigned char: code point order.
bool edgeLess(const QEVNavigationEdge& a, const QEVNavigationEdge& b) {
  if (orEmpty(a.from) != orEmpty(b.from)) return orEmpty(a.from) < orEmpty(b.from);
  return a.to < b.to;
}

bool componentLess(const QEVComponentInteractionSummary& a,
                   const QEVComponentInteractionSummary& b) {
  if (orEmpty(a.screenName) != orEmpty(b.screenName)) {
    return orEmpty(a.screenName) < orEmpty(b.screenName);
  }
  return a.componentId < b.componentId;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  QEVMemoryEventChunk chunk;
  try {
    chunk = QEVMemoryEventChunk::fromJSON(input);
  } catch (const qevr::json::DecodingError&) {
    return 0;
  }

  try {
    check(QEVMemoryEventChunk::fromJSON(chunk.toJSON()) == chunk);
  } catch (const qevr::json::EncodingError&) {
    // A date read with a zone offset can land outside the years that four
    // digits can write ("0000-01-01T00:00:00+01:00"); nothing else may fail.
  }

  QEVSessionGraphBuilder builder;
  for (const QEVMemoryEvent& event : chunk.events)
    builder.ingest(event);
  const QEVSessionGraph graph = builder.build();
  check(graph.eventCount == static_cast<std::int64_t>(chunk.events.size()));
  check(std::is_sorted(graph.navigationEdges.begin(), graph.navigationEdges.end(), edgeLess));
  check(std::is_sorted(graph.componentInteractions.begin(), graph.componentInteractions.end(),
                       componentLess));
  return 0;
}
