#include "StoreReader.h"

#include "InspectionSupport.h"

#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVRPlatform/JsonFiles.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/Text.h>
#include <QEVRecommendations/QEVRecommendationOutcomes.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

// Forwards reads and refuses every call that would change the disk, so a
// mistake in an inspection command fails loudly instead of touching a
// user's data.
class ReadOnlyFileSystem final : public qevr::FileSystemWrapper {
 public:
  using FileSystemWrapper::FileSystemWrapper;
  void createDirectories(const fs::path& p) override { refuse(p); }
  void writeFileAtomically(const fs::path& p, std::span<const std::uint8_t>) override { refuse(p); }
  void removeItem(const fs::path& p) override { refuse(p); }

 private:
  [[noreturn]] static void refuse(const fs::path& p) {
    throw std::system_error(EROFS, std::generic_category(), p.string());
  }
};

// Same selection and order as the file store: "*.json" by file name.
std::vector<fs::path> storedFilesIn(qevr::FileSystem& files, const fs::path& directory) {
  std::vector<fs::path> paths;
  for (const qevr::DirectoryEntry& entry :
       qevr::jsonFilesIn(files, directory, qevr::ListingOrder::byName)) {
    paths.push_back(directory / entry.name);
  }
  return paths;
}

// Files are read up to `limit` bytes, the most the memory module reads of
// them; a larger one fails as it fails there.
template <typename Decode>
auto readAndDecode(qevr::FileSystem& files, const fs::path& file, Decode decode,
                   std::uint64_t limit = kQEVMemoryMaxFileBytes) {
  const std::vector<std::uint8_t> bytes = files.readFile(file, limit);
  return decode(qevr::text::asText(bytes));
}

template <typename Decode>
auto decodeFile(qevr::FileSystem& files, const fs::path& file, Decode decode,
                std::uint64_t limit = kQEVMemoryMaxFileBytes) {
  try {
    return readAndDecode(files, file, decode, limit);
  } catch (const QEVRCancellationError&) {
    throw;
  } catch (const std::exception& e) {
    throw StoreReadError(file.string() + ": " + oneLine(e.what()));
  }
}

// The text of `error` in one line, without the absolute path that file
// errors carry: the report names each file once, by its relative path.
std::string failureText(const std::exception& error, const fs::path& file) {
  std::string text = oneLine(error.what());
  const std::string path = file.string();
  for (std::size_t at = text.find(path); at != std::string::npos; at = text.find(path)) {
    const std::size_t from = at > 0 && text[at - 1] == ' ' ? at - 1 : at;
    text.erase(from, at + path.size() - from);
  }
  return text;
}

// A session graph's date for the pruner: its end, else its start.
std::optional<QEVRDate> prunerDateOf(const QEVSessionGraph& graph) {
  return graph.endedAt ? graph.endedAt : graph.startedAt;
}

[[noreturn]] void refuseWrite() {
  throw std::logic_error("the inspected store is read-only");
}

}  // namespace

ReadOnlyMemoryStore::ReadOnlyMemoryStore(fs::path rootDirectory)
    : root(std::move(rootDirectory)),
      files(std::make_unique<ReadOnlyFileSystem>(qevr::FileSystem::defaultFileSystem())),
      engine(std::make_shared<QEVLZFSECompressionEngine>()) {}

std::shared_ptr<ReadOnlyMemoryStore> ReadOnlyMemoryStore::open(
    const std::optional<fs::path>& dataDir) {
  std::optional<fs::path> base = dataDir;
  if (!base) base = qevr::FileSystem::defaultFileSystem().applicationSupportDirectory();
  if (!base) throw StoreReadError("no application-support directory on this system");
  const fs::path root = *base / "QEVR" / "Memory";
  if (!qevr::FileSystem::defaultFileSystem().isDirectory(root)) {
    throw StoreReadError(root.string() + ": no memory store in this directory");
  }
  return std::make_shared<ReadOnlyMemoryStore>(root);
}

std::vector<QEVMemoryEventChunk> ReadOnlyMemoryStore::loadEventChunks(std::stop_token stop) {
  std::vector<QEVMemoryEventChunk> chunks;
  for (const fs::path& file : storedFilesIn(*files, root / "events")) {
    qevr::checkCancellation(stop);
    chunks.push_back(decodeFile(*files, file, [this](std::string_view text) {
      return decodeStoredChunkFile(text, *engine);
    }));
  }
  return chunks;
}

std::vector<QEVSessionGraph> ReadOnlyMemoryStore::loadSessionGraphs(std::stop_token stop) {
  std::vector<QEVSessionGraph> graphs;
  for (const fs::path& file : storedFilesIn(*files, root / "sessions")) {
    qevr::checkCancellation(stop);
    graphs.push_back(decodeFile(
        *files, file, [](std::string_view text) { return QEVSessionGraph::fromJSON(text); }));
  }
  return graphs;
}

std::optional<QEVUserGraph> ReadOnlyMemoryStore::loadUserGraph(std::stop_token stop) {
  qevr::checkCancellation(stop);
  const fs::path file = root / "user" / "graph.json";
  if (!files->exists(file)) return std::nullopt;
  return decodeFile(*files, file,
                    [](std::string_view text) { return QEVUserGraph::fromJSON(text); });
}

std::optional<std::string> ReadOnlyMemoryStore::loadOutcomeLog(std::stop_token stop) {
  qevr::checkCancellation(stop);
  const fs::path file = root / QEVFileMemoryStore::kOutcomeLogFile;
  if (!files->exists(file)) return std::nullopt;
  try {
    return std::string(qevr::text::asText(files->readFile(file, kQEVMemoryMaxOutcomeLogBytes)));
  } catch (const std::exception& e) {
    throw StoreReadError(file.string() + ": " + failureText(e, file));
  }
}

std::uint64_t ReadOnlyMemoryStore::estimatedDiskUsageBytes(std::stop_token stop) {
  qevr::checkCancellation(stop);
  std::uint64_t total = 0;
  try {
    for (const fs::path& item : files->walk(root))
      total += files->fileSize(item).value_or(0);
  } catch (const std::exception&) {
    return 0;  // an estimate, as the file store gives it
  }
  return total;
}

std::vector<StoreEntryCheck> ReadOnlyMemoryStore::checkEntries(std::stop_token stop) {
  using Kind = StoreEntryCheck::Kind;
  std::vector<StoreEntryCheck> checks;
  // Decodes one file into its check; the decoder gives the pruner's date.
  auto check = [&](const fs::path& file, Kind kind, auto decode,
                   std::uint64_t limit = kQEVMemoryMaxFileBytes) -> StoreEntryCheck& {
    qevr::checkCancellation(stop);
    StoreEntryCheck entry{file.lexically_relative(root),
                          kind,
                          files->fileSize(file).value_or(0),
                          std::nullopt,
                          std::nullopt,
                          std::nullopt};
    try {
      entry.prunerDate = readAndDecode(*files, file, decode, limit);
    } catch (const QEVRCancellationError&) {
      throw;
    } catch (const std::exception& e) {
      entry.failure = failureText(e, file);
    }
    return checks.emplace_back(std::move(entry));
  };
  // A directory the pruner cannot list stops it as a damaged file does.
  auto filesIn = [&](const char* name) -> std::vector<fs::path> {
    try {
      return storedFilesIn(*files, root / name);
    } catch (const std::exception& e) {
      checks.push_back(
          {name, Kind::directory, 0, failureText(e, root / name), std::nullopt, std::nullopt});
      return {};
    }
  };
  for (const fs::path& file : filesIn("events")) {
    check(file, Kind::eventChunk, [this](std::string_view text) -> std::optional<QEVRDate> {
      const QEVMemoryEventChunk chunk = decodeStoredChunkFile(text, *engine);
      return chunk.closedAt.value_or(chunk.createdAt);
    });
  }
  for (const fs::path& file : filesIn("sessions")) {
    check(file, Kind::sessionGraph,
          [](std::string_view text) { return prunerDateOf(QEVSessionGraph::fromJSON(text)); });
  }
  const fs::path user = root / "user" / "graph.json";
  if (files->exists(user)) {
    check(user, Kind::userGraph, [](std::string_view text) -> std::optional<QEVRDate> {
      QEVUserGraph::fromJSON(text);
      return std::nullopt;
    });
  }
  // Read as the recommendations layer reads it: within its own limit, and
  // decoded as a whole log.
  const fs::path outcomes = root / QEVFileMemoryStore::kOutcomeLogFile;
  if (files->exists(outcomes)) {
    std::size_t histories = 0;
    StoreEntryCheck& entry = check(
        outcomes, Kind::outcomeLog,
        [&histories](std::string_view text) -> std::optional<QEVRDate> {
          histories = QEVRecommendationOutcomeLog::fromJSON(text).histories().size();
          return std::nullopt;
        },
        kQEVMemoryMaxOutcomeLogBytes);
    if (!entry.failure) entry.historyCount = histories;
  }
  return checks;
}

void ReadOnlyMemoryStore::saveEventChunk(const QEVMemoryEventChunk&, std::stop_token) {
  refuseWrite();
}
void ReadOnlyMemoryStore::saveSessionGraph(const QEVSessionGraph&, std::stop_token) {
  refuseWrite();
}
void ReadOnlyMemoryStore::saveUserGraph(const QEVUserGraph&, std::stop_token) {
  refuseWrite();
}
void ReadOnlyMemoryStore::saveOutcomeLog(std::string_view, std::stop_token) {
  refuseWrite();
}
void ReadOnlyMemoryStore::clearAll(std::stop_token) {
  refuseWrite();
}
