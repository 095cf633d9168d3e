#include "SnapshotCommand.h"

#include "InspectionSupport.h"

#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Json.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace {

// Map entries by count, largest first, then by name: the order a reader
// expects and the one the analyses use.
std::vector<std::pair<std::string, std::int64_t>> ranked(
    const std::unordered_map<std::string, std::int64_t>& counts) {
  std::vector<std::pair<std::string, std::int64_t>> items(counts.begin(), counts.end());
  std::sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
    return a.second != b.second ? a.second > b.second : a.first < b.first;
  });
  return items;
}

void printCounts(std::ostream& out, std::string_view title,
                 const std::unordered_map<std::string, std::int64_t>& counts) {
  out << title << " (" << counts.size() << ")\n";
  std::size_t shown = 0;
  for (const auto& [name, count] : ranked(counts)) {
    if (++shown > 10) {
      out << "  ...\n";
      break;
    }
    out << "  " << count << "  " << name << "\n";
  }
}

std::string dateText(const std::optional<QEVRDate>& date) {
  if (!date) return "-";
  try {
    return qevr::formatISO8601(*date);
  } catch (const std::exception&) {
    return std::to_string(date->secondsSinceReferenceDate);
  }
}

}  // namespace

void printSnapshotReport(std::ostream& out, const QEVMemoryIntelligenceSnapshot& snapshot) {
  out << "sessions " << snapshot.totalSessions << ", events " << snapshot.totalEvents
      << ", average session ";
  if (snapshot.averageSessionDuration) {
    out << *snapshot.averageSessionDuration << " s";
  } else {
    out << "unknown";
  }
  out << "\nwindow " << dateText(snapshot.timeWindowStart) << " .. "
      << dateText(snapshot.timeWindowEnd) << "\n";
  printCounts(out, "screens", snapshot.frequentlyVisitedScreens);
  printCounts(out, "components", snapshot.frequentComponents);
  printCounts(out, "custom events", snapshot.frequentCustomEvents);
  printCounts(out, "recent navigation", snapshot.recentNavigationPatterns);
  out << "recent screen sequences (" << snapshot.recentScreenSequences.size() << ")\n";
  for (const std::string& line : snapshot.recentScreenSequences)
    out << "  " << line << "\n";
}

int runSnapshotCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  const auto parsed = parseStoreSwitchArguments(args, "--json", "snapshot", err);
  if (!parsed) return 2;
  const bool json = parsed->switchGiven;
  QEVMemoryIntelligenceSnapshot snapshot;
  try {
    snapshot = snapshotOfStore(parsed->dataDir);
  } catch (const std::exception& e) {
    err << "qevr snapshot: " << e.what() << "\n";
    return 2;
  }
  if (json) {
    qevr::json::Writer writer;  // the default date strategy: seconds since 2001
    snapshot.encode(writer);
    out << writer.take() << "\n";
  } else {
    printSnapshotReport(out, snapshot);
  }
  return 0;
}
