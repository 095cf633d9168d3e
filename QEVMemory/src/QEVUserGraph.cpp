#include <QEVMemory/QEVUserGraph.h>

#include <QEVRPlatform/Json.h>

#include "MemoryJson.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

using qevr::json::Decoder;
using qevr::json::Writer;
using qevr::memory::addSaturating;
using qevr::memory::readCounts;
using qevr::memory::writeCounts;

void QEVUserGraph::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("userId");
  writer.uuid(userId);
  writer.key("createdAt");
  writer.date(createdAt);
  writer.key("updatedAt");
  writer.date(updatedAt);
  writer.key("totalSessions");
  writer.integer(totalSessions);
  writer.key("totalEvents");
  writer.integer(totalEvents);
  writer.key("frequentlyVisitedScreens");
  writeCounts(writer, frequentlyVisitedScreens);
  writer.key("frequentComponents");
  writeCounts(writer, frequentComponents);
  writer.key("frequentCustomEvents");
  writeCounts(writer, frequentCustomEvents);
  if (averageSessionDuration) {
    writer.key("averageSessionDuration");
    writer.number(*averageSessionDuration);
  }
  if (lastSeenAt) {
    writer.key("lastSeenAt");
    writer.date(*lastSeenAt);
  }
  writer.endObject();
}

QEVUserGraph QEVUserGraph::decode(const Decoder& decoder) {
  QEVUserGraph graph;
  graph.userId = decoder["userId"].asUUID();
  graph.createdAt = decoder["createdAt"].asDate();
  graph.updatedAt = decoder["updatedAt"].asDate();
  graph.totalSessions = decoder["totalSessions"].asInt64();
  graph.totalEvents = decoder["totalEvents"].asInt64();
  graph.frequentlyVisitedScreens = readCounts(decoder["frequentlyVisitedScreens"]);
  graph.frequentComponents = readCounts(decoder["frequentComponents"]);
  graph.frequentCustomEvents = readCounts(decoder["frequentCustomEvents"]);
  if (auto d = decoder.optional("averageSessionDuration"))
    graph.averageSessionDuration = d->asDouble();
  if (auto d = decoder.optional("lastSeenAt")) graph.lastSeenAt = d->asDate();
  return graph;
}

std::string QEVUserGraph::toJSON() const {
  Writer writer(qevr::json::DateStrategy::iso8601);
  encode(writer);
  return writer.take();
}

QEVUserGraph QEVUserGraph::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  return decode(Decoder(root, qevr::json::DateStrategy::iso8601));
}

QEVUserGraphBuilder::QEVUserGraphBuilder(QEVRUUID id, QEVRDate created)
    : userId(id), createdAt(created), updatedAt(created) {}

QEVUserGraphBuilder::QEVUserGraphBuilder(const QEVUserGraph& earlier)
    : userId(earlier.userId),
      createdAt(earlier.createdAt),
      updatedAt(earlier.updatedAt),
      totalSessions(std::max<std::int64_t>(earlier.totalSessions, 0)),
      totalEvents(std::max<std::int64_t>(earlier.totalEvents, 0)),
      frequentlyVisitedScreens(earlier.frequentlyVisitedScreens),
      frequentComponents(earlier.frequentComponents),
      frequentCustomEvents(earlier.frequentCustomEvents),
      lastSeenAt(earlier.lastSeenAt) {
  // A file may hold anything; an average that is not finite, or one with no
  // session behind it, would poison every later average.
  if (!earlier.averageSessionDuration || totalSessions == 0) return;
  const double total = *earlier.averageSessionDuration * static_cast<double>(totalSessions);
  if (!std::isfinite(total)) return;
  sessionsWithDuration = totalSessions;
  totalSessionDuration = total;
}

void QEVUserGraphBuilder::merge(const QEVSessionGraph& session) {
  qevr::MutexLock guard(lock);
  // Sums saturate: the session builder's graphs never come near the limit,
  // but merge() takes any graph.
  // Every session counts in full, whatever its dates: a session that
  // finishes late (or carries an old clock) still adds its counts. Only the
  // two dates below look at time, and they only move forward.
  addSaturating(totalSessions, 1);
  addSaturating(totalEvents, session.eventCount);
  for (const std::string& screen : session.screenSequence)
    addSaturating(frequentlyVisitedScreens[screen], 1);
  // A component's screen does not matter across sessions.
  for (const QEVComponentInteractionSummary& summary : session.componentInteractions) {
    std::int64_t& total = frequentComponents[summary.componentId];
    addSaturating(total, summary.tapCount);
    addSaturating(total, summary.gestureCount);
  }
  for (const auto& [name, count] : session.customEventCounts)
    addSaturating(frequentCustomEvents[name], count);
  if (session.duration) {
    totalSessionDuration += *session.duration;
    ++sessionsWithDuration;
  }

  const std::optional<QEVRDate> seen = session.endedAt ? session.endedAt : session.startedAt;
  if (!seen) return;
  if (!lastSeenAt || *seen > *lastSeenAt) lastSeenAt = seen;
  // Taken from the sessions, not the clock, so that a graph says when its
  // newest data is from; a session dated before createdAt leaves it alone.
  if (*seen > updatedAt) updatedAt = *seen;
}

QEVUserGraph QEVUserGraphBuilder::build() const {
  qevr::MutexLock guard(lock);
  QEVUserGraph graph;
  graph.userId = userId;
  graph.createdAt = createdAt;
  graph.updatedAt = updatedAt;
  graph.totalSessions = totalSessions;
  graph.totalEvents = totalEvents;
  graph.frequentlyVisitedScreens = frequentlyVisitedScreens;
  graph.frequentComponents = frequentComponents;
  graph.frequentCustomEvents = frequentCustomEvents;
  if (sessionsWithDuration > 0) {
    graph.averageSessionDuration = totalSessionDuration / static_cast<double>(sessionsWithDuration);
  }
  graph.lastSeenAt = lastSeenAt;
  return graph;
}
