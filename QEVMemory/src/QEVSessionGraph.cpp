#include <QEVMemory/QEVSessionGraph.h>

#include <QEVRPlatform/Json.h>

#include "MemoryJson.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

using qevr::json::Decoder;
using qevr::json::Writer;
using qevr::memory::arraySize;
using qevr::memory::readCounts;
using qevr::memory::writeCounts;

namespace {

// Graphs sort texts by code point. Texts are UTF-8 in NFC, whose byte order,
// taken as unsigned, is code point order. std::string's operator< gives the
// same through char_traits<char>; the comparison is spelled out so that the
// rule stands here rather than in a library guarantee.
bool textLess(std::string_view a, std::string_view b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return static_cast<unsigned char>(x) < static_cast<unsigned char>(y);
  });
}

// An absent text sorts as the empty text.
std::string_view orEmpty(const std::optional<std::string>& text) {
  return text ? std::string_view(*text) : std::string_view();
}

std::optional<QEVRDate> metadataDate(const QEVMemoryMetadata& metadata, const std::string& key) {
  const auto it = metadata.find(key);
  if (it == metadata.end()) return std::nullopt;
  if (const QEVRDate* date = it->second.dateValue()) return *date;
  return std::nullopt;
}

const std::string* metadataString(const QEVMemoryMetadata& metadata, const std::string& key) {
  const auto it = metadata.find(key);
  return it == metadata.end() ? nullptr : it->second.stringValue();
}

void encodeEdge(Writer& writer, const QEVNavigationEdge& edge) {
  writer.beginObject();
  if (edge.from) {
    writer.key("from");
    writer.string(*edge.from);
  }
  writer.key("to");
  writer.string(edge.to);
  writer.key("count");
  writer.integer(edge.count);
  writer.endObject();
}

QEVNavigationEdge decodeEdge(const Decoder& decoder) {
  QEVNavigationEdge edge;
  if (auto d = decoder.optional("from")) edge.from = d->asString();
  edge.to = decoder["to"].asString();
  edge.count = decoder["count"].asInt64();
  return edge;
}

void encodeComponent(Writer& writer, const QEVComponentInteractionSummary& summary) {
  writer.beginObject();
  writer.key("componentId");
  writer.string(summary.componentId);
  if (summary.screenName) {
    writer.key("screenName");
    writer.string(*summary.screenName);
  }
  writer.key("tapCount");
  writer.integer(summary.tapCount);
  writer.key("gestureCount");
  writer.integer(summary.gestureCount);
  writer.endObject();
}

QEVComponentInteractionSummary decodeComponent(const Decoder& decoder) {
  QEVComponentInteractionSummary summary;
  summary.componentId = decoder["componentId"].asString();
  if (auto d = decoder.optional("screenName")) summary.screenName = d->asString();
  summary.tapCount = decoder["tapCount"].asInt64();
  summary.gestureCount = decoder["gestureCount"].asInt64();
  return summary;
}

}  // namespace

void QEVSessionGraph::encode(Writer& writer) const {
  writer.beginObject();
  if (sessionId) {
    writer.key("sessionId");
    writer.uuid(*sessionId);
  }
  if (startedAt) {
    writer.key("startedAt");
    writer.date(*startedAt);
  }
  if (endedAt) {
    writer.key("endedAt");
    writer.date(*endedAt);
  }
  if (duration) {
    writer.key("duration");
    writer.number(*duration);
  }
  writer.key("eventCount");
  writer.integer(eventCount);
  writer.key("screenSequence");
  writer.beginArray();
  for (const std::string& screen : screenSequence)
    writer.string(screen);
  writer.endArray();
  writer.key("navigationEdges");
  writer.beginArray();
  for (const QEVNavigationEdge& edge : navigationEdges)
    encodeEdge(writer, edge);
  writer.endArray();
  writer.key("componentInteractions");
  writer.beginArray();
  for (const QEVComponentInteractionSummary& summary : componentInteractions) {
    encodeComponent(writer, summary);
  }
  writer.endArray();
  writer.key("customEventCounts");
  writeCounts(writer, customEventCounts);
  writer.endObject();
}

QEVSessionGraph QEVSessionGraph::decode(const Decoder& decoder) {
  // Lists are read as stored: a graph file keeps the order it was built
  // with, and nothing here re-sorts or merges duplicate entries.
  QEVSessionGraph graph;
  if (auto d = decoder.optional("sessionId")) graph.sessionId = d->asUUID();
  if (auto d = decoder.optional("startedAt")) graph.startedAt = d->asDate();
  if (auto d = decoder.optional("endedAt")) graph.endedAt = d->asDate();
  if (auto d = decoder.optional("duration")) graph.duration = d->asDouble();
  graph.eventCount = decoder["eventCount"].asInt64();

  const Decoder screens = decoder["screenSequence"];
  const std::size_t screenCount = arraySize(screens);
  graph.screenSequence.reserve(screenCount);
  for (std::size_t i = 0; i < screenCount; ++i)
    graph.screenSequence.push_back(screens.at(i).asString());

  const Decoder edges = decoder["navigationEdges"];
  const std::size_t edgeCount = arraySize(edges);
  graph.navigationEdges.reserve(edgeCount);
  for (std::size_t i = 0; i < edgeCount; ++i)
    graph.navigationEdges.push_back(decodeEdge(edges.at(i)));

  const Decoder components = decoder["componentInteractions"];
  const std::size_t componentCount = arraySize(components);
  graph.componentInteractions.reserve(componentCount);
  for (std::size_t i = 0; i < componentCount; ++i) {
    graph.componentInteractions.push_back(decodeComponent(components.at(i)));
  }

  graph.customEventCounts = readCounts(decoder["customEventCounts"]);
  return graph;
}

std::string QEVSessionGraph::toJSON() const {
  Writer writer(qevr::json::DateStrategy::iso8601);
  encode(writer);
  return writer.take();
}

QEVSessionGraph QEVSessionGraph::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  return decode(Decoder(root, qevr::json::DateStrategy::iso8601));
}

void QEVSessionGraphBuilder::ingest(const QEVMemoryEvent& event) {
  qevr::MutexLock guard(lock);
  // The first event names the session; later events cannot rename it.
  if (!sessionId) sessionId = event.sessionId;
  ++eventCount;
  if (!firstEventAt) firstEventAt = event.timestamp;
  lastEventAt = event.timestamp;

  switch (event.type) {
    case QEVMemoryEventType::screenView:
      if (event.screenName) screenSequence.push_back(*event.screenName);
      break;
    case QEVMemoryEventType::screenDisappear:
      break;
    case QEVMemoryEventType::navigation: {
      // An edge needs a destination; its origin comes only from metadata,
      // never from the previous screen, so an unknown origin stays absent.
      const std::string* to = metadataString(event.metadata, "to");
      if (!to && !event.screenName) break;
      std::optional<std::string> from;
      if (const std::string* text = metadataString(event.metadata, "from")) from = *text;
      ++navigationEdgeCounts[EdgeKey(std::move(from), to ? *to : *event.screenName)];
      break;
    }
    case QEVMemoryEventType::gesture:
    case QEVMemoryEventType::buttonTap: {
      if (!event.componentId) break;
      ComponentCounts& counts =
          componentInteractionCounts[ComponentKey(event.screenName, *event.componentId)];
      if (event.type == QEVMemoryEventType::gesture) {
        ++counts.gestureCount;
      } else {
        ++counts.tapCount;
      }
      break;
    }
    case QEVMemoryEventType::sessionStart:
      startedAt = metadataDate(event.metadata, "startedAt").value_or(event.timestamp);
      break;
    case QEVMemoryEventType::sessionEnd:
      endedAt = metadataDate(event.metadata, "endedAt").value_or(event.timestamp);
      break;
    case QEVMemoryEventType::custom:
      if (const std::string* name = metadataString(event.metadata, "name")) {
        ++customEventCounts[*name];
      }
      break;
  }
}

QEVSessionGraph QEVSessionGraphBuilder::build() const {
  qevr::MutexLock guard(lock);
  QEVSessionGraph graph;
  graph.sessionId = sessionId;
  graph.startedAt = startedAt;
  graph.endedAt = endedAt;
  if (startedAt && endedAt) {
    graph.duration = endedAt->secondsSinceReferenceDate - startedAt->secondsSinceReferenceDate;
  }
  graph.eventCount = eventCount;
  graph.screenSequence = screenSequence;

  // The maps put an absent text before every present one, empty included,
  // but the graph sorts it as the empty text: (absent, "b") comes after
  // ("", "a"). Hence a real sort. It is stable over the map's order, so
  // where absent and "" tie on everything else, absent stays first and the
  // result does not depend on the sort algorithm.
  graph.navigationEdges.reserve(navigationEdgeCounts.size());
  for (const auto& [key, count] : navigationEdgeCounts) {
    graph.navigationEdges.push_back(QEVNavigationEdge{key.first, key.second, count});
  }
  std::stable_sort(graph.navigationEdges.begin(), graph.navigationEdges.end(),
                   [](const QEVNavigationEdge& a, const QEVNavigationEdge& b) {
                     const std::string_view aFrom = orEmpty(a.from), bFrom = orEmpty(b.from);
                     if (aFrom != bFrom) return textLess(aFrom, bFrom);
                     return textLess(a.to, b.to);
                   });

  graph.componentInteractions.reserve(componentInteractionCounts.size());
  for (const auto& [key, counts] : componentInteractionCounts) {
    graph.componentInteractions.push_back(QEVComponentInteractionSummary{
        key.second, key.first, counts.tapCount, counts.gestureCount});
  }
  std::stable_sort(
      graph.componentInteractions.begin(), graph.componentInteractions.end(),
      [](const QEVComponentInteractionSummary& a, const QEVComponentInteractionSummary& b) {
        const std::string_view aScreen = orEmpty(a.screenName);
        const std::string_view bScreen = orEmpty(b.screenName);
        if (aScreen != bScreen) return textLess(aScreen, bScreen);
        return textLess(a.componentId, b.componentId);
      });

  graph.customEventCounts = customEventCounts;
  return graph;
}

QEVSessionGraph QEVSessionGraphBuilder::buildDatedByEvents() const {
  QEVSessionGraph graph = build();
  qevr::MutexLock guard(lock);
  if (!graph.startedAt) graph.startedAt = firstEventAt;
  if (!graph.endedAt) graph.endedAt = lastEventAt;
  if (graph.startedAt && graph.endedAt) {
    graph.duration =
        graph.endedAt->secondsSinceReferenceDate - graph.startedAt->secondsSinceReferenceDate;
  }
  return graph;
}
