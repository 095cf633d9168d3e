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
  // Every fold must then be settled.
  using Fold = std::function<std::pair<QEVUserGraph, std::uint64_t>(const QEVSessionGraph&)>;
  // The fold of that place is recorded in its marker, and the graph may be
  // written once every earlier fold is recorded too; `whenWritten` runs
  // once a user graph counting the session is on disk. Without a graph, the
  // record could not be written. Throws when a write fails.
  using Settle = std::function<void(std::uint64_t, std::optional<QEVUserGraph>,
                                    std::function<void()> whenWritten)>;

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
                    const Fold& fold, const Settle& settle,
                    const std::function<bool(const QEVRUUID&)>& foldedHere, std::stop_token stop);
};
