// Feeds arbitrary bytes to the session graph decoder, the reader of
// sessions/<UUID>.json, and merges whatever decodes into a user graph.
//
// Beyond "no crash, no leak, no undefined behaviour":
// - the decoder throws nothing but DecodingError;
// - a decoded graph writes out and reads back as the same graph;
// - merging hostile counts (huge, negative) into a user graph stays defined,
//   and the merged graph either writes out or refuses with EncodingError
//   (a sum of durations can overflow to infinity).
#include <QEVMemory/QEVSessionGraph.h>
#include <QEVMemory/QEVUserGraph.h>
#include <QEVRPlatform/Json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  QEVSessionGraph graph;
  try {
    graph = QEVSessionGraph::fromJSON(input);
  } catch (const qevr::json::DecodingError&) {
    return 0;
  }

  try {
    check(QEVSessionGraph::fromJSON(graph.toJSON()) == graph);
  } catch (const qevr::json::EncodingError&) {
    // Only a date outside the years 0000-9999 after a zone offset.
  }

  QEVUserGraphBuilder builder(QEVRUUID{}, QEVRDate{});
  builder.merge(graph);
  builder.merge(graph);
  const QEVUserGraph user = builder.build();
  check(user.totalSessions == 2);
  check(user.updatedAt >= user.createdAt);
  try {
    check(QEVUserGraph::fromJSON(user.toJSON()).totalEvents == user.totalEvents);
  } catch (const qevr::json::EncodingError&) {
  }
  return 0;
}
