#include "QEVMemoryPruner.h"

#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVRPlatform/JsonFiles.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Saturating.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/Text.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Kind = QEVMemoryPruner::PruningCandidate::Kind;

// A candidate as a run keeps it: by name within its kind's directory, so
// that a full store's thousands of candidates cost a few bytes each rather
// than a parsed path each.
struct Candidate {
  std::string name;
  Kind kind;
  QEVRDate date;
  std::uint64_t byteCount = 0;
};

const char* directoryOf(Kind kind) {
  return kind == Kind::event ? "events" : "sessions";
}

constexpr double kSecondsPerDay = 86'400;
constexpr std::uint64_t kBytesPerMB = 1'048'576;
// 0001-01-01T00:00:00Z: the date of a session graph that knows neither its
// start nor its end, so that such a graph is the first to go.
constexpr QEVRDate kDistantPast{-63'114'076'800.0};

std::int64_t atLeastZero(std::int64_t value) {
  return std::max<std::int64_t>(value, 0);
}

bool identityLess(const qevr::FileIdentity& a, const qevr::FileIdentity& b) {
  return std::tie(a.device, a.inode, a.size, a.modifiedNanoseconds, a.isRegularFile) <
         std::tie(b.device, b.inode, b.size, b.modifiedNanoseconds, b.isRegularFile);
}

bool memoLess(const QEVMemoryPruner::RememberedDate& a, const QEVMemoryPruner::RememberedDate& b) {
  return identityLess(a.identity, b.identity);
}

std::optional<QEVRDate> lookUp(const QEVMemoryPruner::DateMemo& memo,
                               const qevr::FileIdentity& identity) {
  const auto found = std::lower_bound(
      memo.begin(), memo.end(), identity,
      [](const QEVMemoryPruner::RememberedDate& entry, const qevr::FileIdentity& wanted) {
        return identityLess(entry.identity, wanted);
      });
  if (found == memo.end() || !(found->identity == identity)) return std::nullopt;
  return found->date;
}

// What a run learns of one file.
struct FileFacts {
  QEVRDate date;
  std::uint64_t byteCount = 0;
};

// Learns the dates of a run's files: from the memo of earlier runs when a
// file's identity is unchanged, else by reading and decoding it. `seen`
// collects what this run knows, for the next.
class DateReader {
 public:
  DateReader(qevr::FileSystem& fileSystem, const QEVMemoryPruner::DateMemo& known)
      : files(fileSystem), memo(known) {}

  template <typename Decode>
  FileFacts factsOf(const fs::path& directory, const qevr::DirectoryEntry& entry, Decode decode) {
    // Only a plain file is remembered: a link's own identity says nothing
    // of what it points to. A remembered file needs neither its path nor
    // another system call, as the listing gave its size too.
    std::optional<qevr::FileIdentity> before = entry.identity;
    if (before && !before->isRegularFile) before.reset();
    if (before) {
      if (const std::optional<QEVRDate> date = lookUp(memo, *before)) {
        keep(*before, *date);
        return {*date, before->size};
      }
    }
    const fs::path file = directory / entry.name;
    // The size is the entry's own, a link's included, as fileSize gives it.
    const std::uint64_t size =
        entry.identity ? entry.identity->size : files.fileSize(file).value_or(0);
    const std::vector<std::uint8_t> bytes = files.readFile(file, kQEVMemoryMaxFileBytes);
    bytesRead += bytes.size();
    const QEVRDate date = decode(qevr::text::asText(bytes));
    // Only bytes known to belong to one identity are remembered: a file
    // replaced while it was read is read again next time.
    if (before && files.fileIdentity(file) == before) keep(*before, date);
    return {date, size};
  }

  void expect(std::size_t fileCount) {
    found.reserve(std::min(fileCount, QEVMemoryPruner::kMaxRememberedDates));
  }
  QEVMemoryPruner::DateMemo& seen() { return found; }
  std::uint64_t readBytes() const { return bytesRead; }

 private:
  void keep(const qevr::FileIdentity& identity, QEVRDate date) {
    if (found.size() < QEVMemoryPruner::kMaxRememberedDates) found.push_back({identity, date});
  }

  qevr::FileSystem& files;
  const QEVMemoryPruner::DateMemo& memo;
  QEVMemoryPruner::DateMemo found;
  std::uint64_t bytesRead = 0;
};

// Trimming the heap costs a system call per free block even when nothing is
// returned, more than the rest of a run that read nothing. So it follows a
// run that read this much, which leaves plenty freed behind, and otherwise
// at most once in this long, so that resident memory still follows what is
// in use while chunks keep coming.
constexpr std::uint64_t kReleaseAfterReadingBytes = 1'048'576;
constexpr std::chrono::seconds kReleaseAtLeastEvery{10};

// Learns every chunk's and session graph's date. Any file that does not
// decode ends the run here, before a single file has been removed.
std::vector<Candidate> listCandidates(qevr::FileSystem& files, const fs::path& root,
                                      DateReader& dates, const std::stop_token& stop) {
  // The block format of a chunk file carries its own length, so any LZFSE
  // engine with the standard limit reads what the store wrote.
  const QEVLZFSECompressionEngine engine;
  const fs::path events = root / "events";
  const fs::path sessions = root / "sessions";
  // Listing order: ties in the passes below keep it.
  std::vector<qevr::DirectoryEntry> chunkFiles =
      qevr::jsonFilesIn(files, events, qevr::ListingOrder::asListed);
  std::vector<qevr::DirectoryEntry> sessionFiles =
      qevr::jsonFilesIn(files, sessions, qevr::ListingOrder::asListed);
  // Sized once: grown by doubling, the largest buffers of a run would be
  // copied and freed between the short-lived ones of the decoding.
  std::vector<Candidate> all;
  all.reserve(chunkFiles.size() + sessionFiles.size());
  dates.expect(all.capacity());
  for (qevr::DirectoryEntry& file : chunkFiles) {
    qevr::checkCancellation(stop);
    const FileFacts facts = dates.factsOf(events, file, [&engine](std::string_view text) {
      const QEVMemoryEventChunk chunk = decodeStoredChunkFile(text, engine);
      return chunk.closedAt.value_or(chunk.createdAt);
    });
    all.push_back({std::move(file.name), Kind::event, facts.date, facts.byteCount});
  }
  for (qevr::DirectoryEntry& file : sessionFiles) {
    qevr::checkCancellation(stop);
    const FileFacts facts = dates.factsOf(sessions, file, [](std::string_view text) {
      const QEVSessionGraph graph = QEVSessionGraph::fromJSON(text);
      return graph.endedAt.value_or(graph.startedAt.value_or(kDistantPast));
    });
    all.push_back({std::move(file.name), Kind::session, facts.date, facts.byteCount});
  }
  return all;
}

// The three passes, each adding to `marked` (parallel to `all`). The sorts
// are stable so that ties keep the order of `all`: chunks before sessions,
// then listing order.
std::vector<bool> markForDeletion(const std::vector<Candidate>& all,
                                  const QEVMemoryOptions& options, QEVRDate now) {
  std::vector<bool> marked(all.size(), false);

  // Age: strictly older than the cutoff. A chunk exactly as old as allowed
  // stays.
  const QEVRDate cutoff = now.addingSeconds(
      -static_cast<double>(atLeastZero(options.maxEventAgeDays)) * kSecondsPerDay);
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (all[i].date < cutoff) marked[i] = true;
  }

  // Count: the newest sessions keep their places, including sessions the
  // age pass has already marked.
  std::vector<std::size_t> sessions;
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (all[i].kind == Kind::session) sessions.push_back(i);
  }
  std::stable_sort(sessions.begin(), sessions.end(),
                   [&](std::size_t a, std::size_t b) { return all[a].date > all[b].date; });
  const auto keep = static_cast<std::uint64_t>(atLeastZero(options.maxSessionCount));
  for (std::size_t rank = 0; rank < sessions.size(); ++rank) {
    if (rank >= keep) marked[sessions[rank]] = true;
  }

  // Disk: oldest first, chunks and sessions competing by date alone, until
  // what is left fits. A budget past 64 bits is no limit at all.
  const std::int64_t megabytes = atLeastZero(options.maxDiskUsageMB);
  if (static_cast<std::uint64_t>(megabytes) >
      std::numeric_limits<std::uint64_t>::max() / kBytesPerMB) {
    return marked;
  }
  const std::uint64_t budget = static_cast<std::uint64_t>(megabytes) * kBytesPerMB;
  std::vector<std::size_t> remaining;
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (marked[i]) continue;
    remaining.push_back(i);
    total = qevr::saturatingAdd(total, all[i].byteCount);
  }
  std::stable_sort(remaining.begin(), remaining.end(),
                   [&](std::size_t a, std::size_t b) { return all[a].date < all[b].date; });
  for (std::size_t index : remaining) {
    if (total <= budget) break;
    marked[index] = true;
    total -= std::min(total, all[index].byteCount);
  }
  return marked;
}

}  // namespace

QEVMemoryPruner::QEVMemoryPruner(fs::path rootDirectory, qevr::FileSystem& fileSystem,
                                 qevr::Executor& runExecutor)
    : root(std::move(rootDirectory)),
      files(fileSystem),
      executor(runExecutor),
      memo(std::make_shared<const DateMemo>()) {}

std::shared_ptr<const QEVMemoryPruner::DateMemo> QEVMemoryPruner::rememberedDates() const {
  qevr::MutexLock guard(memoLock);
  return memo;
}

void QEVMemoryPruner::remember(std::shared_ptr<const DateMemo> next) const {
  std::shared_ptr<const DateMemo> old;
  qevr::MutexLock guard(memoLock);
  old = std::exchange(memo, std::move(next));
  // `old` is freed after the lock is released, as locals go in reverse.
}

std::size_t QEVMemoryPruner::removeAbandonedTemporaries() const {
  std::size_t removed = 0;
  for (const char* directory : {"events", "sessions", "user", "live"}) {
    removed += files.removeAbandonedTemporaries(root / directory);
  }
  return removed;
}

std::size_t QEVMemoryPruner::rememberedDateCount() const {
  return rememberedDates()->size();
}

QEVMemoryPruningSummary QEVMemoryPruner::prune(const QEVMemoryOptions& options,
                                               std::stop_token stop) const {
  if (!options.pruningEnabled) return {};

  std::uint64_t readBytes = 0;
  const QEVMemoryPruningSummary summary =
      qevr::detachTask(executor, qevr::TaskPriority::utility, [&](std::stop_token) {
        qevr::checkCancellation(stop);
        const QEVRDate now = qevr::now();
        const std::shared_ptr<const DateMemo> known = rememberedDates();
        DateReader dates(files, *known);
        std::vector<Candidate> all;
        try {
          all = listCandidates(files, root, dates, stop);
        } catch (...) {
          // The run saw only part of the store: what it learnt joins what
          // was known, and nothing is forgotten yet. A store stuck on a
          // damaged file thus reads only that file on later runs.
          DateMemo merged = std::move(dates.seen());
          merged.insert(merged.end(), known->begin(), known->end());
          std::stable_sort(merged.begin(), merged.end(), memoLess);
          merged.erase(std::unique(merged.begin(), merged.end(),
                                   [](const RememberedDate& a, const RememberedDate& b) {
                                     return a.identity == b.identity;
                                   }),
                       merged.end());
          if (merged.size() > kMaxRememberedDates) merged.resize(kMaxRememberedDates);
          remember(std::make_shared<const DateMemo>(std::move(merged)));
          throw;
        }
        readBytes = dates.readBytes();
        // Files that are gone drop out here: only what this run saw stays.
        DateMemo seen = std::move(dates.seen());
        std::sort(seen.begin(), seen.end(), memoLess);
        remember(std::make_shared<const DateMemo>(std::move(seen)));
        const std::vector<bool> marked = markForDeletion(all, options, now);

        // Runs may overlap, so a marked file can already be gone; that is
        // not an error and not a deletion of ours. A failed removal ends the
        // run with what was removed so far left removed.
        QEVMemoryPruningSummary result;
        for (std::size_t i = 0; i < all.size(); ++i) {
          if (!marked[i]) continue;
          const fs::path file = root / directoryOf(all[i].kind) / all[i].name;
          if (!files.exists(file)) continue;
          const std::uint64_t size = files.fileSize(file).value_or(0);
          files.removeItem(file);
          result.freedBytes = qevr::saturatingAdd(result.freedBytes, size);
          ++(all[i].kind == Kind::event ? result.deletedEventChunks : result.deletedSessionGraphs);
        }
        return result;
      }).value();

  const std::int64_t nowTicks = qevr::monotonicNow().time_since_epoch().count();
  std::int64_t last = lastRelease.load(std::memory_order_relaxed);
  const auto every =
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(kReleaseAtLeastEvery).count();
  if (readBytes >= kReleaseAfterReadingBytes ||
      (nowTicks - last >= every &&
       lastRelease.compare_exchange_strong(last, nowTicks, std::memory_order_relaxed))) {
    lastRelease.store(nowTicks, std::memory_order_relaxed);
    qevr::releaseFreeMemory();
  }
  qevr::platformLog("QEVMemory", "Pruning", qevr::LogType::info,
                    "Pruned " + std::to_string(summary.deletedEventChunks) + " event chunks and " +
                        std::to_string(summary.deletedSessionGraphs) + " session graphs, freed " +
                        std::to_string(summary.freedBytes) + " bytes");
  return summary;
}
