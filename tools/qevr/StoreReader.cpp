#include "StoreReader.h"

#include "InspectionSupport.h"

#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVRPlatform/Tasks.h>

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
std::vector<fs::path> jsonFilesIn(qevr::FileSystem& files, const fs::path& directory) {
  if (!files.exists(directory)) return {};
  std::vector<fs::path> found = files.listDirectory(directory);
  std::erase_if(found, [](const fs::path& p) { return p.extension() != ".json"; });
  std::sort(found.begin(), found.end(), [](const fs::path& a, const fs::path& b) {
    return a.filename().native() < b.filename().native();
  });
  return found;
}

template <typename Decode>
auto decodeFile(qevr::FileSystem& files, const fs::path& file, Decode decode) {
  try {
    const std::vector<std::uint8_t> bytes = files.readFile(file, kQEVMemoryMaxFileBytes);
    return decode(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  } catch (const QEVRCancellationError&) {
    throw;
  } catch (const std::exception& e) {
    throw StoreReadError(file.string() + ": " + oneLine(e.what()));
  }
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
  for (const fs::path& file : jsonFilesIn(*files, root / "events")) {
    qevr::checkCancellation(stop);
    chunks.push_back(decodeFile(*files, file, [this](std::string_view text) {
      return decodeStoredChunkFile(text, *engine);
    }));
  }
  return chunks;
}

std::vector<QEVSessionGraph> ReadOnlyMemoryStore::loadSessionGraphs(std::stop_token stop) {
  std::vector<QEVSessionGraph> graphs;
  for (const fs::path& file : jsonFilesIn(*files, root / "sessions")) {
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

void ReadOnlyMemoryStore::saveEventChunk(const QEVMemoryEventChunk&, std::stop_token) {
  refuseWrite();
}
void ReadOnlyMemoryStore::saveSessionGraph(const QEVSessionGraph&, std::stop_token) {
  refuseWrite();
}
void ReadOnlyMemoryStore::saveUserGraph(const QEVUserGraph&, std::stop_token) {
  refuseWrite();
}
void ReadOnlyMemoryStore::clearAll(std::stop_token) {
  refuseWrite();
}
