// Recovers the sessions of runs that died while their sessions were open:
// their chunks are on disk, their graphs are not (see QEVMemoryOpenSession).
#pragma once

#include <QEVMemory/QEVMemoryStore.h>
#include <QEVMemory/QEVSessionGraph.h>
#include <QEVMemory/QEVUserGraph.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <utility>

struct QEVMemoryRecovery {
  // Adds a recovered session to the user graph this run carries on, and
  // returns that graph right after it with its place in the order of saves.
  using Fold = std::function<std::pair<QEVUserGraph, std::uint64_t>(const QEVSessionGraph&)>;
  // Writes such a user graph, unless a later one is already written.
  // Throws when the write fails.
  using SaveUserGraph = std::function<void(const QEVUserGraph&, std::uint64_t)>;

  struct Result {
    int recovered = 0;       // rebuilt from their chunks and counted now
    int alreadyCounted = 0;  // counted before the crash; only tidied up
    int empty = 0;           // no chunk of theirs left on disk
    bool operator==(const Result&) const = default;
  };

  // Looks at every marker nobody holds. With none, reads no chunk at all.
  // `userGraphAtStart` is the stored user graph this run started from: a
  // session whose marker shows it counted there is not counted again. A
  // session whose recovery fails keeps its marker for the next start.
  // `foldedHere` names the sessions this run has counted itself: one of
  // those whose saves failed leaves its marker unheld, and is left alone.
  static Result run(QEVMemoryStore& store, const std::optional<QEVUserGraph>& userGraphAtStart,
                    const Fold& fold, const SaveUserGraph& saveUserGraph,
                    const std::function<bool(const QEVRUUID&)>& foldedHere, std::stop_token stop);
};
