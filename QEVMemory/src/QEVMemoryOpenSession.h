// A session of this run whose events reach the disk before its graph does,
// as memory across app runs keeps it.
//
// Its marker, live/<session>.lock in the store, is made before the first
// chunk of the session is written and stays locked while the session is
// open. A start that finds a marker nobody holds knows that the run that
// wrote it died, and recovers the session from its chunks
// (QEVMemorySessionRecovery). The marker goes once the session graph and a
// user graph that counts the session are both on disk. Before any user
// graph that counts the session is written, the marker records what it
// will count (a QEVMemoryFoldRecord), so that a recovery after a crash in
// between can tell whether the count landed, and no session is ever
// counted twice.
//
// The graphs wait for the session's chunks: the completion handed to
// whenSavesDone runs only after every chunk save queued before it, so a
// user graph never counts an event that no chunk file holds.
//
// Thread safety: `lock` guards the fields below it. It is held across the
// marker's own small file writes, never while a completion runs.
#pragma once

#include <QEVMemory/QEVMemoryStore.h>
#include <QEVMemory/QEVUserGraph.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRPlatform/UUID.h>
#include "QEVMemoryChunkWriter.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// What a user graph counts once a session is folded into it. A user graph
// with the same userId and at least this many sessions has the session.
struct QEVMemoryFoldRecord {
  QEVRUUID userId;
  std::int64_t totalSessions = 0;

  bool operator==(const QEVMemoryFoldRecord&) const = default;
  std::string toJSON() const;
  // Absent for anything else, a cut write included.
  static std::optional<QEVMemoryFoldRecord> parse(std::string_view text);
  bool isCountedIn(const QEVUserGraph& graph) const {
    return graph.userId == userId && graph.totalSessions >= totalSessions;
  }
};

class QEVMemoryOpenSession final : public QEVMemoryChunkWriter::SaveCompanion {
 public:
  QEVMemoryOpenSession(std::shared_ptr<QEVMemoryStore> store, QEVRUUID sessionId);
  // Lets go of the marker, and removes it first when the session completed.
  ~QEVMemoryOpenSession() override;

  const QEVRUUID& sessionId() const { return id; }

  // A chunk save of this session was queued. Call in the order the chunks
  // come out of the pipeline, before whenSavesDone.
  void saveQueued();
  void beforeSave() override;  // makes the marker
  void afterSave() override;   // runs the completion after the last save

  // Runs `completion` once no queued save is left: here and now if none is.
  void whenSavesDone(std::function<void()> completion);

  // Makes the marker if needed and writes `record` into it. Throws when the
  // marker cannot be made or written; the graphs must then not be saved.
  void recordFold(const QEVMemoryFoldRecord& record);
  // The session graph and a user graph counting it are on disk.
  void markComplete();

 private:
  void ensureMarkedLocked() QEVR_REQUIRES(lock);

  // Constant after construction.
  const std::shared_ptr<QEVMemoryStore> store;
  const QEVRUUID id;

  qevr::Mutex lock;
  std::unique_ptr<qevr::LockedFile> marker QEVR_GUARDED_BY(lock);
  int savesInFlight QEVR_GUARDED_BY(lock) = 0;
  std::function<void()> completion QEVR_GUARDED_BY(lock);
  bool isComplete QEVR_GUARDED_BY(lock) = false;
};
