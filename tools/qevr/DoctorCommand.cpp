#include "DoctorCommand.h"

#include "InspectionSupport.h"
#include "StoreReader.h"

#include <QEVMemory/QEVMemoryOptions.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRecommendations/QEVRecommendationOutcomes.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Kind = StoreEntryCheck::Kind;

constexpr double kSecondsPerDay = 86'400;
constexpr std::uint64_t kBytesPerMB = 1'048'576;
// Quarantined names that are taken get ".1", ".2", ... up to this.
constexpr int kMaxQuarantineSuffix = 9'999;

// What one look at the store found.
struct Findings {
  std::vector<StoreEntryCheck> entries;
  std::uint64_t diskUsage = 0;

  std::vector<const StoreEntryCheck*> damaged() const {
    std::vector<const StoreEntryCheck*> found;
    for (const StoreEntryCheck& entry : entries) {
      if (entry.failure) found.push_back(&entry);
    }
    return found;
  }
  // The pruner reads chunks and session graphs; of the user graph and the
  // outcome log it needs no more than their sizes.
  bool pruningCanRun() const {
    for (const StoreEntryCheck& entry : entries) {
      if (entry.failure && entry.kind != Kind::userGraph && entry.kind != Kind::outcomeLog)
        return false;
    }
    return true;
  }
};

Findings examine(ReadOnlyMemoryStore& store) {
  return {store.checkEntries(), store.estimatedDiskUsageBytes()};
}

std::string dateText(QEVRDate date) {
  try {
    return qevr::formatISO8601(date);
  } catch (const std::exception&) {
    return std::to_string(date.secondsSinceReferenceDate) + " s";
  }
}

void printReport(std::ostream& out, const fs::path& root, const Findings& findings) {
  const QEVMemoryOptions limits;
  const QEVRDate cutoff =
      qevr::now().addingSeconds(-static_cast<double>(limits.maxEventAgeDays) * kSecondsPerDay);
  std::int64_t chunks = 0, chunksDamaged = 0, sessions = 0, sessionsDamaged = 0, undated = 0,
               pastAge = 0;
  std::optional<QEVRDate> oldest;
  const char* userGraph = "absent";
  const StoreEntryCheck* outcomeLog = nullptr;
  for (const StoreEntryCheck& entry : findings.entries) {
    if (entry.kind == Kind::outcomeLog) outcomeLog = &entry;
    const bool isChunk = entry.kind == Kind::eventChunk;
    const bool isSession = entry.kind == Kind::sessionGraph;
    chunks += isChunk;
    sessions += isSession;
    if (entry.kind == Kind::userGraph) userGraph = entry.failure ? "damaged" : "present";
    if (entry.failure) {
      chunksDamaged += isChunk;
      sessionsDamaged += isSession;
      continue;
    }
    if (isSession && !entry.prunerDate) ++undated;
    if (!entry.prunerDate) continue;
    if (*entry.prunerDate < cutoff) ++pastAge;
    if (!oldest || *entry.prunerDate < *oldest) oldest = entry.prunerDate;
  }

  out << "store " << root.string() << "\n";
  out << "event chunks " << chunks;
  if (chunksDamaged > 0) out << " (" << chunksDamaged << " damaged)";
  out << "\nsession graphs " << sessions << " of at most " << limits.maxSessionCount;
  if (sessionsDamaged > 0) out << " (" << sessionsDamaged << " damaged)";
  if (sessions > limits.maxSessionCount) {
    out << " (" << sessions - limits.maxSessionCount << " over: pruning removes the oldest)";
  }
  out << "\n";
  if (undated > 0) {
    out << "undated session graphs " << undated << " (pruning removes them first)\n";
  }
  out << "user graph " << userGraph << "\n";
  out << "outcome log ";
  if (!outcomeLog) {
    out << "absent";
  } else {
    out << (outcomeLog->failure ? "damaged, " : "present, ") << outcomeLog->byteCount
        << " bytes of at most " << kQEVMemoryMaxOutcomeLogBytes;
    if (outcomeLog->historyCount) {
      out << ", " << *outcomeLog->historyCount << " histories of at most "
          << QEVRecommendationOutcomeLog::kMaxEntries;
    }
  }
  out << "\n";
  out << "disk usage " << findings.diskUsage << " bytes of at most "
      << static_cast<std::uint64_t>(limits.maxDiskUsageMB) * kBytesPerMB << " ("
      << limits.maxDiskUsageMB << " MB)\n";
  out << "oldest dated file " << (oldest ? dateText(*oldest) : std::string("-")) << ", age limit "
      << limits.maxEventAgeDays << " days (" << pastAge << " files past it)\n";

  const auto damaged = findings.damaged();
  out << "damaged files " << damaged.size() << "\n";
  for (const StoreEntryCheck* entry : damaged) {
    out << "  " << entry->relativePath.generic_string() << ": " << *entry->failure << "\n";
  }
  out << "pruning can run: "
      << (findings.pruningCanRun() ? "yes" : "no (a damaged file in events/ or sessions/ stops it)")
      << "\n";
}

// Moves one damaged entry below `quarantine`, keeping its relative path.
// Returns where it went.
fs::path quarantineEntry(const fs::path& root, const fs::path& quarantine,
                         const fs::path& relative) {
  const fs::path target = quarantine / relative;
  qevr::FileSystem::defaultFileSystem().createDirectories(target.parent_path());
  for (int suffix = 0; suffix <= kMaxQuarantineSuffix; ++suffix) {
    fs::path candidate = target;
    if (suffix > 0) candidate += "." + std::to_string(suffix);
    try {
      qevr::FileSystem::defaultFileSystem().moveWithoutReplacing(root / relative, candidate);
      return candidate;
    } catch (const std::system_error& e) {
      if (e.code() != std::errc::file_exists) throw;
    }
  }
  throw std::system_error(std::make_error_code(std::errc::file_exists), "no free name");
}

}  // namespace

int runDoctorCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  const auto parsed = parseStoreSwitchArguments(args, "--fix", "doctor", err);
  if (!parsed) return 2;
  const std::optional<fs::path>& dataDir = parsed->dataDir;
  const bool fix = parsed->switchGiven;
  try {
    const auto store = ReadOnlyMemoryStore::open(dataDir);
    const Findings findings = examine(*store);
    printReport(out, store->rootDirectory(), findings);
    const auto damaged = findings.damaged();
    if (damaged.empty()) {
      out << "healthy\n";
      return 0;
    }
    if (!fix) {
      out << "damaged (qevr doctor --fix moves the damaged files aside)\n";
      return 1;
    }

    // The only writes of the command: each damaged entry is renamed into
    // the quarantine, which lies beside the store so that nothing reads it.
    const fs::path& root = store->rootDirectory();
    const fs::path quarantine = root.parent_path() / "Memory-quarantine";
    for (const StoreEntryCheck* entry : damaged) {
      const std::string name = entry->relativePath.generic_string();
      try {
        const fs::path moved = quarantineEntry(root, quarantine, entry->relativePath);
        out << "quarantined " << name << " -> " << moved.string() << "\n";
      } catch (const std::exception& e) {
        out << "cannot quarantine " << name << ": " << e.what() << "\n";
      }
    }
    const Findings after = examine(*store);
    if (after.damaged().empty()) {
      out << "fixed: the store is healthy now\n";
      return 1;
    }
    out << "still damaged: " << after.damaged().size() << " files\n";
    return 3;
  } catch (const std::exception& e) {
    err << "qevr doctor: " << e.what() << "\n";
    return 2;
  }
}
