// QEVR::Memory and the records it answers with.
#pragma once

#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>
#include <QEVMemory/QEVMemoryOptions.h>
#include <QEVMemory/QEVSessionGraph.h>
#include <QEVRPlatform/Export.h>

#include <future>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

// The public face of memory. Works whether or not the module runs: each
// disk operation uses the override store or builds one of its own. Each
// asynchronous operation comes blocking (with a stop token) and as ...Async.
//
// Threads and costs: every call may be made from any thread, concurrently.
// options, configure, setContinuity and continuity only take a lock. The
// other calls read (or, clearMemory, remove) the whole store: they block
// the calling thread for as long as that takes (a full 25 MB store is
// about a second of CPU on a desktop core), run part of the work on the
// library's task pool meanwhile, and belong off the UI thread. Their ...Async forms
// run on the pool and return at once.
//
// Errors: the blocking forms throw, and the futures rethrow,
// QEVRCancellationError once `stop` is requested;
// QEVFileMemoryStoreError(applicationSupportUnavailable) when no data
// directory can be found; the error of the first stored file that does
// not decode (qevr::json::DecodingError, QEVCompressionError or
// QEVFileMemoryStoreError); and std::system_error, with errno and the
// path, for a failed file operation.
namespace QEVR::Memory {
QEVR_API QEVMemoryOptions options();
// Takes effect at the next pruning run; starts none.
QEVR_API void configure(const QEVMemoryOptions& options);

// Memory across module starts and app runs, however they end; off by
// default. When on, a start carries on the user graph that user/graph.json
// holds (its userId and createdAt kept, its totals added to), and a session
// whose start or end event never reached memory is dated by its first and
// last events, so that pruning treats it as any other session. A user
// graph that does not decode is left alone and the start begins afresh.
// Each open session is marked in the store while it runs, and a start
// recovers, in the background and exactly once, the sessions of runs that
// died before completing them; their graphs and user graph count are
// visible once that background work is done (qevr::waitForBackgroundIdle).
// The open chunk is copied to disk once its oldest unsaved event is 30 s
// old, so a killed run loses at most its last 30 seconds of events.
// doc/memory_store_format.md gives the details. Read at each start: a
// change while memory runs takes effect at the next start. The records and
// their JSON forms are the same either way. Any thread; takes a lock only.
QEVR_API void setContinuity(bool enabled);
QEVR_API bool continuity();

QEVR_API QEVMemoryStats memoryStats(std::stop_token stop = {});
QEVR_API std::future<QEVMemoryStats> memoryStatsAsync();
// Erases everything on disk (not what a running pipeline holds in memory)
// and logs "Cleared local QEVMemory storage".
QEVR_API void clearMemory(std::stop_token stop = {});
QEVR_API std::future<void> clearMemoryAsync();
QEVR_API QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop = {});
QEVR_API std::future<QEVMemoryIntelligenceSnapshot> intelligenceSnapshotAsync();

// The stored session graphs, in file-name order: what the recommendations
// layer measures the effect of an applied recommendation on.
QEVR_API std::vector<QEVSessionGraph> sessionGraphs(std::stop_token stop = {});

// The recommendations layer's outcome log (QEVMemoryStore::loadOutcomeLog):
// bytes memory keeps for it, counts against maxDiskUsageMB and erases with
// clearMemory. Absent when there is none.
QEVR_API std::optional<std::string> outcomeLog(std::stop_token stop = {});
QEVR_API void saveOutcomeLog(std::string_view bytes, std::stop_token stop = {});
}  // namespace QEVR::Memory
