#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>

#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Text.h>

#include "MemoryJson.h"

#include <algorithm>
#include <limits>

using qevr::json::Decoder;
using qevr::json::Writer;

namespace {

constexpr size_t kRecentSessions = 5;

using qevr::memory::CountMap;

// Each key redacted; blank results dropped; a collision keeps the value of
// the entry walked last (values are not added).
CountMap redactedKeys(const CountMap& counts) {
  CountMap out;
  for (const auto& [key, value] : counts) {
    std::string redacted = redactedSnapshotText(key);
    if (!redacted.empty()) out.insert_or_assign(std::move(redacted), value);
  }
  return out;
}

double sortKey(const QEVSessionGraph& graph) {
  return graph.startedAt ? graph.startedAt->secondsSinceReferenceDate
                         : -std::numeric_limits<double>::infinity();
}

}  // namespace

std::string redactedSnapshotText(std::string_view text) {
  static const qevr::text::RegexReplacer email = qevr::text::RegexReplacer::compile(
      R"([A-Z0-9._%+-]+@[A-Z0-9.-]+\.[A-Z]{2,})", /*caseInsensitive=*/true);
  static const qevr::text::RegexReplacer phone =
      qevr::text::RegexReplacer::compile(R"(\+?[0-9][0-9 .()\-]{7,}[0-9])");
  std::string out = email.replaceAll(qevr::text::trim(text), "[redacted]");
  return phone.replaceAll(out, "[redacted]");
}

QEVMemoryIntelligenceSnapshot intelligenceSnapshot(QEVMemoryStore& store, std::stop_token stop) {
  return intelligenceSnapshot(qevr::defaultExecutor(), store, std::move(stop));
}

QEVMemoryIntelligenceSnapshot intelligenceSnapshot(qevr::Executor& executor, QEVMemoryStore& store,
                                                   std::stop_token stop) {
  auto sessionsTask =
      qevr::childTask(executor, qevr::TaskPriority::utility, stop,
                      [&store](std::stop_token s) { return store.loadSessionGraphs(s); });
  auto userTask = qevr::childTask(executor, qevr::TaskPriority::utility, stop,
                                  [&store](std::stop_token s) { return store.loadUserGraph(s); });
  // Wait for both before rethrowing, so no child outlives `store`.
  sessionsTask.wait();
  userTask.wait();
  std::vector<QEVSessionGraph> sessions = sessionsTask.value();
  std::optional<QEVUserGraph> user = userTask.value();
  qevr::checkCancellation(stop);

  std::stable_sort(
      sessions.begin(), sessions.end(),
      [](const QEVSessionGraph& a, const QEVSessionGraph& b) { return sortKey(a) > sortKey(b); });
  const size_t recentCount = std::min(sessions.size(), kRecentSessions);

  QEVMemoryIntelligenceSnapshot snapshot;
  CountMap patterns;
  for (size_t i = 0; i < recentCount; ++i) {
    for (const QEVNavigationEdge& edge : sessions[i].navigationEdges) {
      std::string key = redactedSnapshotText(edge.from.value_or("unknown"));
      const std::string target = redactedSnapshotText(edge.to);
      if (target.empty()) continue;
      key.append("->").append(target);
      qevr::memory::addSaturating(patterns[key], edge.count);
    }
  }
  for (size_t i = 0; i < recentCount; ++i) {
    std::string line;
    for (const std::string& screen : sessions[i].screenSequence) {
      std::string redacted = redactedSnapshotText(screen);
      if (redacted.empty()) continue;
      if (!line.empty()) line += " > ";
      line += redacted;
    }
    if (!line.empty()) snapshot.recentScreenSequences.push_back(std::move(line));
  }

  std::optional<QEVRDate> earliestStart, latestEnd;
  for (const QEVSessionGraph& graph : sessions) {
    if (graph.startedAt && (!earliestStart || *graph.startedAt < *earliestStart)) {
      earliestStart = graph.startedAt;
    }
    std::optional<QEVRDate> end = graph.endedAt ? graph.endedAt : graph.startedAt;
    if (end && (!latestEnd || *end > *latestEnd)) latestEnd = end;
  }

  if (user) {
    snapshot.totalSessions = user->totalSessions;
    snapshot.totalEvents = user->totalEvents;
    snapshot.frequentlyVisitedScreens = redactedKeys(user->frequentlyVisitedScreens);
    snapshot.frequentComponents = redactedKeys(user->frequentComponents);
    snapshot.frequentCustomEvents = redactedKeys(user->frequentCustomEvents);
    snapshot.averageSessionDuration = user->averageSessionDuration;
    snapshot.timeWindowStart = user->createdAt;
    snapshot.timeWindowEnd = user->lastSeenAt ? user->lastSeenAt : latestEnd;
  } else {
    snapshot.totalSessions = static_cast<std::int64_t>(sessions.size());
    for (const QEVSessionGraph& graph : sessions)
      qevr::memory::addSaturating(snapshot.totalEvents, graph.eventCount);
    snapshot.timeWindowStart = earliestStart;
    snapshot.timeWindowEnd = latestEnd;
  }
  snapshot.recentNavigationPatterns = redactedKeys(patterns);
  return snapshot;
}

void QEVMemoryIntelligenceSnapshot::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("totalSessions");
  writer.integer(totalSessions);
  writer.key("totalEvents");
  writer.integer(totalEvents);
  writer.key("frequentlyVisitedScreens");
  qevr::memory::writeCounts(writer, frequentlyVisitedScreens);
  writer.key("frequentComponents");
  qevr::memory::writeCounts(writer, frequentComponents);
  writer.key("frequentCustomEvents");
  qevr::memory::writeCounts(writer, frequentCustomEvents);
  if (averageSessionDuration) {
    writer.key("averageSessionDuration");
    writer.number(*averageSessionDuration);
  }
  writer.key("recentNavigationPatterns");
  qevr::memory::writeCounts(writer, recentNavigationPatterns);
  writer.key("recentScreenSequences");
  writer.beginArray();
  for (const auto& line : recentScreenSequences)
    writer.string(line);
  writer.endArray();
  if (timeWindowStart) {
    writer.key("timeWindowStart");
    writer.date(*timeWindowStart);
  }
  if (timeWindowEnd) {
    writer.key("timeWindowEnd");
    writer.date(*timeWindowEnd);
  }
  writer.endObject();
}

QEVMemoryIntelligenceSnapshot QEVMemoryIntelligenceSnapshot::decode(const Decoder& decoder) {
  QEVMemoryIntelligenceSnapshot s;
  s.totalSessions = decoder["totalSessions"].asInt64();
  s.totalEvents = decoder["totalEvents"].asInt64();
  s.frequentlyVisitedScreens = qevr::memory::readCounts(decoder["frequentlyVisitedScreens"]);
  s.frequentComponents = qevr::memory::readCounts(decoder["frequentComponents"]);
  s.frequentCustomEvents = qevr::memory::readCounts(decoder["frequentCustomEvents"]);
  if (auto d = decoder.optional("averageSessionDuration")) s.averageSessionDuration = d->asDouble();
  s.recentNavigationPatterns = qevr::memory::readCounts(decoder["recentNavigationPatterns"]);
  const Decoder lines = decoder["recentScreenSequences"];
  for (size_t i = 0; i < lines.size(); ++i)
    s.recentScreenSequences.push_back(lines.at(i).asString());
  if (auto d = decoder.optional("timeWindowStart")) s.timeWindowStart = d->asDate();
  if (auto d = decoder.optional("timeWindowEnd")) s.timeWindowEnd = d->asDate();
  return s;
}
