// The store contract: where memory's chunks and graphs are kept, whatever
// the medium. QEVFileMemoryStore keeps them in files.
#pragma once

#include <QEVMemory/QEVCompressionEngine.h>
#include <QEVMemory/QEVMemoryEvent.h>
#include <QEVMemory/QEVSessionGraph.h>
#include <QEVMemory/QEVUserGraph.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/UUID.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

// The store contract. Each operation blocks the caller until its file work,
// done on a utility-priority background task, has finished; failures are
// passed on unchanged (std::system_error for files, qevr::json errors for
// encoding and decoding, QEVCompressionError for damaged blocks), and a stop
// requested on `stop` before the work starts throws QEVRCancellationError.
class QEVR_API QEVMemoryStore {
 public:
  virtual ~QEVMemoryStore() = default;
  virtual void saveEventChunk(const QEVMemoryEventChunk& chunk, std::stop_token stop = {}) = 0;
  // saveEventChunk done on the calling thread, for a caller that must not
  // wait on an executor (a host whose saves are paced, whose pool may be
  // busy with the very saves it waits for). A store without a cheaper road
  // saves as saveEventChunk does.
  virtual void saveEventChunkOnCallingThread(const QEVMemoryEventChunk& chunk) {
    saveEventChunk(chunk);
  }
  // Every "*.json" in events/, by file name; the first bad file fails all.
  virtual std::vector<QEVMemoryEventChunk> loadEventChunks(std::stop_token stop = {}) = 0;
  // Fails with QEVFileMemoryStoreError::sessionGraphMissingIdentifier when
  // the graph has no sessionId.
  virtual void saveSessionGraph(const QEVSessionGraph& graph, std::stop_token stop = {}) = 0;
  virtual std::vector<QEVSessionGraph> loadSessionGraphs(std::stop_token stop = {}) = 0;
  virtual void saveUserGraph(const QEVUserGraph& graph, std::stop_token stop = {}) = 0;
  virtual std::optional<QEVUserGraph> loadUserGraph(std::stop_token stop = {}) = 0;
  // Logical sizes of everything below the root; never fails (0 if absent).
  virtual std::uint64_t estimatedDiskUsageBytes(std::stop_token stop = {}) = 0;
  // Removes the root with everything below it; nothing if it is absent.
  virtual void clearAll(std::stop_token stop = {}) = 0;

  // What memory across app runs needs of a store. These run on the calling
  // thread; a store that keeps no markers has none, and then no session of
  // a run that died is ever recovered from it.
  //
  // The marker of a session whose events are on disk before its graph:
  // created (durably) and locked with `create`, else only locked if it is
  // there and no live holder has it. nullptr when it is held, or absent.
  virtual std::unique_ptr<qevr::LockedFile> lockSessionMarker(const QEVRUUID& sessionId,
                                                              bool create);
  // The sessions that have a marker, held or not.
  virtual std::vector<QEVRUUID> sessionMarkers();
  virtual bool hasSessionGraph(const QEVRUUID& sessionId);
  // Hands each chunk that decodes to `visit`, one at a time, in the order of
  // loadEventChunks; a file that does not decode is skipped. Returns how
  // many were skipped.
  virtual std::size_t forEachEventChunk(const std::function<void(QEVMemoryEventChunk&&)>& visit);

  // The outcome log that the recommendations layer keeps in the store: one
  // small file of bytes that memory stores, counts in the disk budget and
  // clears with the rest, but never reads itself. Absent when there is
  // none. A store without one loads nothing and refuses to save (throws
  // std::logic_error).
  virtual std::optional<std::string> loadOutcomeLog(std::stop_token stop = {});
  virtual void saveOutcomeLog(std::string_view bytes, std::stop_token stop = {});
};

// The largest outcome log a store keeps or loads: a bigger one is refused
// (std::length_error to save, EFBIG to load) rather than written or read.
inline constexpr std::uint64_t kQEVMemoryMaxOutcomeLogBytes = std::uint64_t{1024} * 1024;
