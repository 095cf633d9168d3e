#include "QEVMemorySessionRecovery.h"

#include "QEVMemoryOpenSession.h"

#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/Text.h>

#include <algorithm>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace {

// A fold record is a few dozen bytes; anything longer is not one.
constexpr std::uint64_t kMaxMarkerBytes = 4096;

QEVSessionGraph graphOf(std::vector<QEVMemoryEvent>& events) {
  std::sort(events.begin(), events.end(), [](const QEVMemoryEvent& a, const QEVMemoryEvent& b) {
    return a.sequenceNumber < b.sequenceNumber;
  });
  QEVSessionGraphBuilder builder;
  for (const QEVMemoryEvent& event : events)
    builder.ingest(event);
  return builder.buildDatedByEvents();
}

}  // namespace

QEVMemoryRecovery::Result QEVMemoryRecovery::run(
    QEVMemoryStore& store, const std::optional<QEVUserGraph>& userGraphAtStart, const Fold& fold,
    const Settle& settle, const std::function<bool(const QEVRUUID&)>& foldedHere,
    std::stop_token stop) {
  Result result;
  // A marker that its run still holds (another live process, or an earlier
  // start of this one still saving) is not ours to touch.
  std::map<QEVRUUID, std::unique_ptr<qevr::LockedFile>> abandoned;
  for (const QEVRUUID& id : store.sessionMarkers()) {
    if (auto marker = store.lockSessionMarker(id, /*create=*/false); marker && !foldedHere(id)) {
      abandoned.emplace(id, std::move(marker));
    }
  }
  if (abandoned.empty()) return result;

  // A record that the user graph this run starts from does not count is
  // from a fold that never landed, in a sequence of folds that is gone.
  // Its count could match one of this run's folds by chance, so it is
  // cleared before this run folds anything; if that fails, nothing is
  // folded now and the next start tries again.
  std::map<QEVRUUID, std::optional<QEVMemoryFoldRecord>> records;
  try {
    for (auto& [id, marker] : abandoned) {
      const std::vector<std::uint8_t> bytes = marker->read(kMaxMarkerBytes);
      auto record = QEVMemoryFoldRecord::parse(qevr::text::asText(bytes));
      if (record && !(userGraphAtStart && record->isCountedIn(*userGraphAtStart))) {
        marker->overwrite({});
        record.reset();
      }
      records[id] = record;
    }
  } catch (const std::exception&) {
    return result;
  }

  std::map<QEVRUUID, std::vector<QEVMemoryEvent>> events;
  store.forEachEventChunk([&](QEVMemoryEventChunk&& chunk) {
    for (QEVMemoryEvent& event : chunk.events) {
      if (event.sessionId && abandoned.contains(*event.sessionId)) {
        events[*event.sessionId].push_back(std::move(event));
      }
    }
  });

  for (auto& [id, marker] : abandoned) {
    qevr::checkCancellation(stop);
    try {
      std::vector<QEVMemoryEvent>& own = events[id];
      if (records[id]) {
        // Counted before the crash; only its graph may be missing.
        if (!own.empty() && !store.hasSessionGraph(id)) store.saveSessionGraph(graphOf(own));
        marker->remove();
        ++result.alreadyCounted;
        continue;
      }
      if (own.empty()) {
        marker->remove();
        ++result.empty;
        continue;
      }
      const QEVSessionGraph graph = graphOf(own);
      auto [userGraph, generation] = fold(graph);
      const std::string text =
          QEVMemoryFoldRecord{userGraph.userId, userGraph.totalSessions}.toJSON();
      try {
        marker->overwrite(
            std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
      } catch (...) {
        settle(generation, std::nullopt, nullptr);
        throw;
      }
      ++result.recovered;
      bool graphSaved = false;
      try {
        store.saveSessionGraph(graph);
        graphSaved = true;
      } catch (...) {
      }
      // The marker goes once a user graph counting the session is on disk,
      // which may be a later fold's, written by another job.
      std::function<void()> tidy;
      if (graphSaved) {
        tidy = [held = std::shared_ptr<qevr::LockedFile>(std::move(marker))] {
          try {
            held->remove();
          } catch (...) {
            // Its record shows the session as counted: the next start
            // only tidies it up.
          }
        };
      }
      settle(generation, std::move(userGraph), std::move(tidy));
    } catch (const QEVRCancellationError&) {
      throw;
    } catch (const std::exception&) {
      // Kept for the next start, with whatever record it got.
    }
  }
  events.clear();
  if (result.recovered > 0) {
    qevr::platformLog("QEVMemory", "Continuity", qevr::LogType::info,
                      "Recovered " + std::to_string(result.recovered) +
                          " interrupted session(s) into the user graph");
  }
  return result;
}
