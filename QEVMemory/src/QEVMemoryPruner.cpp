#include "QEVMemoryPruner.h"

#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVRPlatform/JsonFiles.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Saturating.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/Text.h>

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Kind = QEVMemoryPruner::PruningCandidate::Kind;

// A candidate as a run keeps it: by name within its kind's directory, the
// name held by the index, which a run has to itself.
struct Candidate {
  std::string_view name;
  Kind kind;
  QEVRDate date;
  std::uint64_t byteCount = 0;
};

const char* directoryOf(Kind kind) {
  return kind == Kind::event ? "events" : "sessions";
}

constexpr double kSecondsPerDay = 86'400;
constexpr std::uint64_t kBytesPerMB = 1'048'576;

std::int64_t atLeastZero(std::int64_t value) {
  return std::max<std::int64_t>(value, 0);
}

// One "*.json" file of a directory as runs know it. `date` belongs to
// `identity`: it goes when the identity changes.
struct KnownFile {
  std::string name;
  std::optional<qevr::FileIdentity> identity;
  std::optional<QEVRDate> date;
};

// A directory's files as of the last run, in listing order (files that came
// later at the end), and the watch that keeps that list up to date.
struct KnownDirectory {
  std::unique_ptr<qevr::DirectoryWatch> watch;
  bool listed = false;  // `files` is a whole listing
  std::vector<KnownFile> files;
};

bool isJson(std::string_view name) {
  return fs::path(name).extension() == ".json";
}

// Brings `known` up to date with the directory: through its watch when it
// has one that can tell what changed, else by listing it anew, with the
// watch taken first so that nothing made during the listing goes unseen.
// Dates of files whose identity is unchanged carry over.
void refresh(qevr::FileSystem& files, const fs::path& directory, KnownDirectory& known) {
  if (known.listed && known.watch) {
    if (const std::optional<std::vector<std::string>> changed = known.watch->changes()) {
      // `changed` is sorted; each name is looked at once, with one lstat.
      std::vector<bool> seen(changed->size(), false);
      std::erase_if(known.files, [&](KnownFile& file) {
        const auto at = std::lower_bound(changed->begin(), changed->end(), file.name);
        if (at == changed->end() || *at != file.name) return false;
        seen[static_cast<std::size_t>(at - changed->begin())] = true;
        const std::optional<qevr::FileIdentity> now = files.fileIdentity(directory / file.name);
        if (!now) return true;
        if (now != file.identity) file.date.reset();
        file.identity = now;
        return false;
      });
      for (std::size_t i = 0; i < changed->size(); ++i) {
        const std::string& name = (*changed)[i];
        if (seen[i] || !isJson(name)) continue;
        if (std::optional<qevr::FileIdentity> now = files.fileIdentity(directory / name)) {
          known.files.push_back({name, now, std::nullopt});
        }
      }
      return;
    }
  }
  known.listed = false;
  known.watch.reset();
  std::vector<KnownFile> before = std::move(known.files);
  known.files.clear();
  if (!files.exists(directory)) return;
  known.watch = files.watchDirectory(directory);
  std::vector<qevr::DirectoryEntry> listing =
      qevr::jsonFilesIn(files, directory, qevr::ListingOrder::asListed);
  std::sort(before.begin(), before.end(),
            [](const KnownFile& a, const KnownFile& b) { return a.name < b.name; });
  known.files.reserve(listing.size());
  for (qevr::DirectoryEntry& entry : listing) {
    std::optional<QEVRDate> date;
    const auto at = std::lower_bound(
        before.begin(), before.end(), entry.name,
        [](const KnownFile& file, const std::string& name) { return file.name < name; });
    if (at != before.end() && at->name == entry.name && at->identity == entry.identity) {
      date = at->date;
    }
    known.files.push_back({std::move(entry.name), entry.identity, date});
  }
  known.listed = true;
}

std::size_t rememberedIn(const KnownDirectory& known) {
  return static_cast<std::size_t>(std::count_if(known.files.begin(), known.files.end(),
                                                [](const KnownFile& f) { return f.date; }));
}

// The file's size as the listing or the last look at it found it.
std::uint64_t byteCountOf(qevr::FileSystem& files, const fs::path& directory,
                          const KnownFile& file) {
  return file.identity ? file.identity->size : files.fileSize(directory / file.name).value_or(0);
}

// Learns the dates of a run's files: the remembered one where there is one,
// else by reading and decoding the file, remembering what it gives while
// there is room.
class DateReader {
 public:
  DateReader(qevr::FileSystem& fileSystem, std::size_t alreadyRemembered)
      : files(fileSystem),
        room(QEVMemoryPruner::kMaxRememberedDates -
             std::min(alreadyRemembered, QEVMemoryPruner::kMaxRememberedDates)) {}

  template <typename Decode>
  QEVRDate dateOf(const fs::path& directory, KnownFile& file, Decode decode) {
    if (file.date) return *file.date;
    const fs::path path = directory / file.name;
    const std::vector<std::uint8_t> bytes = files.readFile(path, kQEVMemoryMaxFileBytes);
    bytesRead += bytes.size();
    const QEVRDate date = decode(qevr::text::asText(bytes));
    // Only a plain file is remembered (a link's own identity says nothing
    // of what it points to), and only when the bytes are known to belong
    // to its identity: a file replaced while it was read is read again.
    if (room > 0 && file.identity && file.identity->isRegularFile &&
        files.fileIdentity(path) == file.identity) {
      file.date = date;
      --room;
    }
    return date;
  }

  std::uint64_t readBytes() const { return bytesRead; }

 private:
  qevr::FileSystem& files;
  std::size_t room;
  std::uint64_t bytesRead = 0;
};

// Trimming the heap costs a system call per free block even when nothing is
// returned, more than the rest of a run that read nothing. So it follows a
// run that read this much, which leaves plenty freed behind, and otherwise
// at most once in this long, so that resident memory still follows what is
// in use while chunks keep coming.
constexpr std::uint64_t kReleaseAfterReadingBytes = 1'048'576;
constexpr std::chrono::seconds kReleaseAtLeastEvery{10};

// A file the store wrote, with the identity it had just after and the
// date decoding it would give; see noteWritten.
struct WrittenFile {
  Kind kind;
  std::string name;
  qevr::FileIdentity identity;
  QEVRDate date;
};

}  // namespace

// Held for a whole run: runs take turns over the index, so that what one
// learns serves the next instead of both reading the same files at once.
class QEVMemoryPruner::Index {
 public:
  Index(fs::path rootDirectory, qevr::FileSystem& fileSystem, std::optional<fs::path> keptDatesFile)
      : root(std::move(rootDirectory)), files(fileSystem), datesFile(std::move(keptDatesFile)) {}

  bool isFor(const fs::path& rootDirectory, const qevr::FileSystem& fileSystem) const {
    return &files == &fileSystem && root == rootDirectory;
  }

  const fs::path root;
  qevr::FileSystem& files;
  const std::optional<fs::path> datesFile;
  qevr::Mutex lock;  // guards the two directories and the dates file's state
  KnownDirectory events QEVR_GUARDED_BY(lock);
  KnownDirectory sessions QEVR_GUARDED_BY(lock);
  bool datesFileRead QEVR_GUARDED_BY(lock) = false;
  bool datesFileWritten QEVR_GUARDED_BY(lock) = false;
  std::size_t learntSinceWritten QEVR_GUARDED_BY(lock) = 0;

  // Its own lock, so that a writer never waits for a run.
  qevr::Mutex notesLock;  // guards `notes`
  std::vector<WrittenFile> notes QEVR_GUARDED_BY(notesLock);
};

namespace {

// The dates file: "QEVRPD1\n", a little-endian u32 count, then per date a
// u8 kind (0 chunk, 1 session graph), a u8 name length and the name, the
// identity's device, inode, size and modification time (u64, u64, u64,
// i64) and the date's seconds (an IEEE double's bits, u64).
constexpr std::string_view kDatesMagic = "QEVRPD1\n";
// The most a valid file can hold: every remembered date with a 255-byte name.
constexpr std::uint64_t kMaxDatesFileBytes =
    kDatesMagic.size() + 4 + QEVMemoryPruner::kMaxRememberedDates * (2 + 255 + 40);

void putLittleEndian(std::vector<std::uint8_t>& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i)
    out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

std::vector<std::uint8_t> encodeDates(const KnownDirectory& events,
                                      const KnownDirectory& sessions) {
  std::vector<std::uint8_t> out(kDatesMagic.begin(), kDatesMagic.end());
  putLittleEndian(out, 0, 4);
  std::uint32_t count = 0;
  for (const KnownDirectory* known : {&events, &sessions}) {
    for (const KnownFile& file : known->files) {
      if (!file.date || !file.identity || file.name.size() > 255) continue;
      out.push_back(known == &events ? 0 : 1);
      out.push_back(static_cast<std::uint8_t>(file.name.size()));
      out.insert(out.end(), file.name.begin(), file.name.end());
      putLittleEndian(out, file.identity->device, 8);
      putLittleEndian(out, file.identity->inode, 8);
      putLittleEndian(out, file.identity->size, 8);
      putLittleEndian(out, static_cast<std::uint64_t>(file.identity->modifiedNanoseconds), 8);
      putLittleEndian(out, std::bit_cast<std::uint64_t>(file.date->secondsSinceReferenceDate), 8);
      ++count;
    }
  }
  for (int i = 0; i < 4; ++i) {
    out[kDatesMagic.size() + static_cast<std::size_t>(i)] =
        static_cast<std::uint8_t>(count >> (8 * i));
  }
  return out;
}

struct KeptDate {
  qevr::FileIdentity identity;
  QEVRDate date;
};

// The dates of a file written by encodeDates, by kind and name; nothing
// unless the whole file is well-formed.
std::optional<std::array<std::map<std::string, KeptDate, std::less<>>, 2>> decodeDates(
    std::span<const std::uint8_t> bytes) {
  std::size_t at = 0;
  const auto take = [&](std::size_t n) -> std::optional<std::span<const std::uint8_t>> {
    if (bytes.size() - at < n) return std::nullopt;
    at += n;
    return bytes.subspan(at - n, n);
  };
  const auto number = [&](int n) -> std::optional<std::uint64_t> {
    const auto part = take(static_cast<std::size_t>(n));
    if (!part) return std::nullopt;
    std::uint64_t value = 0;
    for (int i = n - 1; i >= 0; --i)
      value = value << 8 | (*part)[static_cast<std::size_t>(i)];
    return value;
  };
  const auto magic = take(kDatesMagic.size());
  if (!magic || !std::equal(magic->begin(), magic->end(), kDatesMagic.begin())) return std::nullopt;
  const std::optional<std::uint64_t> count = number(4);
  if (!count || *count > QEVMemoryPruner::kMaxRememberedDates) return std::nullopt;
  std::array<std::map<std::string, KeptDate, std::less<>>, 2> kept;
  for (std::uint64_t i = 0; i < *count; ++i) {
    const auto kind = number(1);
    const auto length = number(1);
    if (!kind || *kind > 1 || !length) return std::nullopt;
    const auto name = take(static_cast<std::size_t>(*length));
    const auto device = number(8), inode = number(8), size = number(8), modified = number(8),
               seconds = number(8);
    if (!name || !seconds) return std::nullopt;
    const double date = std::bit_cast<double>(*seconds);
    if (!std::isfinite(date)) return std::nullopt;
    qevr::FileIdentity identity{*device, *inode, *size, static_cast<std::int64_t>(*modified), true};
    kept[*kind].insert_or_assign(std::string(name->begin(), name->end()),
                                 KeptDate{identity, QEVRDate{date}});
  }
  if (at != bytes.size()) return std::nullopt;
  return kept;
}

// Gives the files that have no date yet the one kept for their name and
// identity, up to the limit of remembered dates.
void applyKeptDates(qevr::FileSystem& files, const fs::path& datesFile, KnownDirectory& events,
                    KnownDirectory& sessions) {
  std::optional<std::array<std::map<std::string, KeptDate, std::less<>>, 2>> kept;
  try {
    if (!files.exists(datesFile)) return;
    kept = decodeDates(files.readFile(datesFile, kMaxDatesFileBytes));
  } catch (const std::exception&) {
    return;
  }
  if (!kept) return;
  std::size_t remembered = rememberedIn(events) + rememberedIn(sessions);
  for (KnownDirectory* known : {&events, &sessions}) {
    const auto& byName = (*kept)[known == &events ? 0 : 1];
    for (KnownFile& file : known->files) {
      if (remembered >= QEVMemoryPruner::kMaxRememberedDates) return;
      if (file.date || !file.identity || !file.identity->isRegularFile) continue;
      const auto it = byName.find(file.name);
      if (it == byName.end() || it->second.identity != *file.identity) continue;
      file.date = it->second.date;
      ++remembered;
    }
  }
}

// Gives the files that have no date yet the one noted for their name, when
// their identity is still the noted one, up to the limit of remembered
// dates. Returns how many it gave.
std::size_t applyNotes(std::vector<WrittenFile>& notes, KnownDirectory& events,
                       KnownDirectory& sessions) {
  if (notes.empty()) return 0;
  const auto byName = [](const WrittenFile& a, const WrittenFile& b) {
    return std::tie(a.kind, a.name) < std::tie(b.kind, b.name);
  };
  // Stable, so that the last note of a name is its newest write.
  std::stable_sort(notes.begin(), notes.end(), byName);
  std::size_t remembered = rememberedIn(events) + rememberedIn(sessions);
  std::size_t given = 0;
  for (KnownDirectory* known : {&events, &sessions}) {
    const Kind kind = known == &events ? Kind::event : Kind::session;
    for (KnownFile& file : known->files) {
      if (remembered >= QEVMemoryPruner::kMaxRememberedDates) return given;
      if (file.date || !file.identity) continue;
      const auto after = std::upper_bound(notes.begin(), notes.end(), std::tie(kind, file.name),
                                          [](const auto& key, const WrittenFile& note) {
                                            return key < std::tie(note.kind, note.name);
                                          });
      if (after == notes.begin()) continue;
      const WrittenFile& note = *(after - 1);
      if (note.kind != kind || note.name != file.name || note.identity != *file.identity) continue;
      file.date = note.date;
      ++remembered;
      ++given;
    }
  }
  return given;
}

}  // namespace

namespace {

// Learns every chunk's and session graph's date. Any file that does not
// decode ends the run here, before a single file has been removed.
std::vector<Candidate> listCandidates(qevr::FileSystem& files, const fs::path& root,
                                      KnownDirectory& events, KnownDirectory& sessions,
                                      DateReader& dates, const std::stop_token& stop) {
  // The block format of a chunk file carries its own length, so any LZFSE
  // engine with the standard limit reads what the store wrote.
  const QEVLZFSECompressionEngine engine;
  const fs::path eventsDirectory = root / "events";
  const fs::path sessionsDirectory = root / "sessions";
  std::vector<Candidate> all;
  all.reserve(events.files.size() + sessions.files.size());
  for (KnownFile& file : events.files) {
    qevr::checkCancellation(stop);
    const QEVRDate date = dates.dateOf(eventsDirectory, file, [&engine](std::string_view text) {
      const QEVMemoryEventChunk chunk = decodeStoredChunkFile(text, engine);
      return chunk.closedAt.value_or(chunk.createdAt);
    });
    all.push_back({file.name, Kind::event, date, byteCountOf(files, eventsDirectory, file)});
  }
  for (KnownFile& file : sessions.files) {
    qevr::checkCancellation(stop);
    const QEVRDate date = dates.dateOf(sessionsDirectory, file, [](std::string_view text) {
      const QEVSessionGraph graph = QEVSessionGraph::fromJSON(text);
      return graph.endedAt.value_or(graph.startedAt.value_or(QEVMemoryPruner::kUndatedSessionDate));
    });
    all.push_back({file.name, Kind::session, date, byteCountOf(files, sessionsDirectory, file)});
  }
  return all;
}

// The three passes, each adding to `marked` (parallel to `all`). The sorts
// are stable so that ties keep the order of `all`: chunks before sessions,
// then listing order.
// `fixedBytes` is what the budget holds that pruning never removes.
std::vector<bool> markForDeletion(const std::vector<Candidate>& all,
                                  const QEVMemoryOptions& options, QEVRDate now,
                                  std::uint64_t fixedBytes) {
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
  std::uint64_t total = fixedBytes;
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

std::shared_ptr<QEVMemoryPruner::Index> QEVMemoryPruner::makeIndex(
    fs::path rootDirectory, qevr::FileSystem& fileSystem, std::optional<fs::path> datesFile) {
  return std::make_shared<Index>(std::move(rootDirectory), fileSystem, std::move(datesFile));
}

fs::path QEVMemoryPruner::datesFileFor(const fs::path& rootDirectory) {
  fs::path root = rootDirectory;
  if (!root.has_filename()) root = root.parent_path();
  fs::path dates = root;
  dates += ".dates";
  return dates;
}

namespace {

// Only the last store's index is kept: a process has one store, and tests
// that go through many roots should not keep a watch open on each.
struct SharedIndexSlot {
  qevr::Mutex lock;  // guards `last`
  std::shared_ptr<QEVMemoryPruner::Index> last QEVR_GUARDED_BY(lock);
};

SharedIndexSlot& sharedIndexSlot() {
  static SharedIndexSlot slot;
  return slot;
}

}  // namespace

std::shared_ptr<QEVMemoryPruner::Index> QEVMemoryPruner::sharedIndex(
    const fs::path& rootDirectory, qevr::FileSystem& fileSystem,
    std::optional<fs::path> datesFile) {
  SharedIndexSlot& slot = sharedIndexSlot();
  qevr::MutexLock guard(slot.lock);
  if (!slot.last || !slot.last->isFor(rootDirectory, fileSystem)) {
    slot.last = makeIndex(rootDirectory, fileSystem, std::move(datesFile));
  }
  return slot.last;
}

void QEVMemoryPruner::noteWritten(const fs::path& rootDirectory, qevr::FileSystem& fileSystem,
                                  PruningCandidate::Kind kind, std::string name,
                                  QEVRDate date) noexcept {
  try {
    std::shared_ptr<Index> index;
    {
      SharedIndexSlot& slot = sharedIndexSlot();
      qevr::MutexLock guard(slot.lock);
      index = slot.last;
    }
    if (!index || !index->isFor(rootDirectory, fileSystem)) return;
    // What a run could not read, it must still fail on: a file over the
    // limit is left to be read.
    const std::optional<qevr::FileIdentity> identity =
        fileSystem.fileIdentity(rootDirectory / directoryOf(kind) / name);
    if (!identity || !identity->isRegularFile || identity->size > kQEVMemoryMaxFileBytes) return;
    qevr::MutexLock guard(index->notesLock);
    if (index->notes.size() >= kMaxPendingNotes) return;
    index->notes.push_back({kind, std::move(name), *identity, date});
  } catch (...) {
    // Without the note, the next run reads the file.
  }
}

QEVMemoryPruner::QEVMemoryPruner(fs::path rootDirectory, qevr::FileSystem& fileSystem,
                                 qevr::Executor& runExecutor, std::shared_ptr<Index> givenIndex)
    : root(std::move(rootDirectory)),
      files(fileSystem),
      executor(runExecutor),
      index(givenIndex ? std::move(givenIndex) : makeIndex(root, files)) {}

QEVMemoryPruner::~QEVMemoryPruner() = default;

std::size_t QEVMemoryPruner::removeAbandonedTemporaries() const {
  std::size_t removed = 0;
  for (const char* directory : {"events", "sessions", "user", "live"}) {
    removed += files.removeAbandonedTemporaries(root / directory);
  }
  return removed;
}

std::size_t QEVMemoryPruner::rememberedDateCount() const {
  qevr::MutexLock guard(index->lock);
  return rememberedIn(index->events) + rememberedIn(index->sessions);
}

QEVMemoryPruningSummary QEVMemoryPruner::prune(const QEVMemoryOptions& options,
                                               std::stop_token stop) const {
  if (!options.pruningEnabled) return {};

  std::uint64_t readBytes = 0;
  const QEVMemoryPruningSummary summary =
      qevr::detachTask(executor, qevr::TaskPriority::utility, [&](std::stop_token) {
        qevr::checkCancellation(stop);
        const QEVRDate now = qevr::now();
        qevr::MutexLock guard(index->lock);
        // Taken before the listing: every note names a file that was in
        // place when it was made, so the listing sees it.
        std::vector<WrittenFile> notes;
        {
          qevr::MutexLock notesGuard(index->notesLock);
          notes.swap(index->notes);
        }
        refresh(files, root / "events", index->events);
        refresh(files, root / "sessions", index->sessions);
        if (index->datesFile && !index->datesFileRead) {
          index->datesFileRead = true;
          applyKeptDates(files, *index->datesFile, index->events, index->sessions);
        }
        const std::size_t noted = applyNotes(notes, index->events, index->sessions);
        const std::size_t rememberedBefore =
            rememberedIn(index->events) + rememberedIn(index->sessions);
        DateReader dates(files, rememberedBefore);
        // A failure leaves what the run learnt in the index, so that a store
        // stuck on a damaged file reads only that file on later runs.
        std::vector<Candidate> all =
            listCandidates(files, root, index->events, index->sessions, dates, stop);
        readBytes = dates.readBytes();
        if (index->datesFile && (readBytes > 0 || noted > 0)) {
          index->learntSinceWritten += noted + rememberedIn(index->events) +
                                       rememberedIn(index->sessions) - rememberedBefore;
          if (!index->datesFileWritten || index->learntSinceWritten >= kSaveDatesAfterLearning) {
            try {
              files.writeFileAtomically(*index->datesFile,
                                        encodeDates(index->events, index->sessions));
              index->datesFileWritten = true;
              index->learntSinceWritten = 0;
            } catch (const std::exception&) {
              // A cache that cannot be written costs the next process reads.
            }
          }
        }
        // The outcome log, when there is one, takes its share of the budget.
        const std::uint64_t fixedBytes =
            files.fileSize(root / QEVFileMemoryStore::kOutcomeLogFile).value_or(0);
        const std::vector<bool> marked = markForDeletion(all, options, now, fixedBytes);

        // Runs may overlap with another process's, so a marked file can
        // already be gone; that is not an error and not a deletion of ours.
        // A failed removal ends the run with what was removed so far left
        // removed. Our own removals reach the index through the watch.
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
