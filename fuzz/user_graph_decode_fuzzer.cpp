// Feeds arbitrary bytes to the user graph decoder, the reader of
// user/graph.json.
//
// Beyond "no crash, no leak, no undefined behaviour": the decoder throws
// nothing but DecodingError, and a decoded graph writes out and reads back
// as the same graph.
#include <QEVMemory/QEVUserGraph.h>
#include <QEVRPlatform/Json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  QEVUserGraph graph;
  try {
    graph = QEVUserGraph::fromJSON(input);
  } catch (const qevr::json::DecodingError&) {
    return 0;
  }
  try {
    if (!(QEVUserGraph::fromJSON(graph.toJSON()) == graph)) std::abort();
  } catch (const qevr::json::EncodingError&) {
    // Only a date outside the years 0000-9999 after a zone offset.
  }
  return 0;
}
