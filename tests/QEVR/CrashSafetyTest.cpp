// A host killed at random moments never leaves a torn or undecodable file.
//
// Each round starts `qevr simulate` on the same data directory, lets it track
// as fast as it can for a random while, and kills it with SIGKILL. Afterwards
// every file of the store must decode and the store must load.
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVMemory/QEVMemoryStore.h>
#include <QEVRPlatform/FileSystem.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace fs = std::filesystem;

namespace {

pid_t spawnSimulation(const fs::path& dataDir, unsigned seed) {
  std::vector<std::string> args = {QEVR_TOOL_PATH,   "simulate",          "--data-dir",
                                   dataDir.string(), "--events",          "1000000000",
                                   "--seed",         std::to_string(seed)};
  std::vector<char*> argv;
  for (auto& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  return pid;
}

std::string readAll(const fs::path& path) {
  auto bytes = qevr::FileSystem::defaultFileSystem().readFile(path, kQEVMemoryMaxFileBytes);
  return std::string(bytes.begin(), bytes.end());
}

TEST(CrashSafetyTest, EveryFileDecodesAfterFiftyKills) {
  std::string pattern = (fs::temp_directory_path() / "qevr-crash-XXXXXX").string();
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  const fs::path dataDir = pattern;
  const fs::path root = dataDir / "QEVR" / "Memory";

  std::mt19937 random(20261122);
  std::uniform_int_distribution<int> delayMs(20, 400);
  for (unsigned round = 0; round < 50; ++round) {
    const pid_t child = spawnSimulation(dataDir, round);
    ASSERT_GT(child, 0);
    // The kill must land at an arbitrary moment; the wait is the point here,
    // not something to assert on.
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMs(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status)) << "round " << round << " ended before the kill";
  }

  const QEVLZFSECompressionEngine engine;
  size_t chunkFiles = 0, sessionFiles = 0;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file() || entry.path().extension() != ".json") continue;
    const std::string parent = entry.path().parent_path().filename().string();
    const std::string text = readAll(entry.path());
    if (parent == "events") {
      EXPECT_NO_THROW(decodeStoredChunkFile(text, engine)) << entry.path();
      ++chunkFiles;
    } else if (parent == "sessions") {
      EXPECT_NO_THROW(QEVSessionGraph::fromJSON(text)) << entry.path();
      ++sessionFiles;
    } else {
      EXPECT_NO_THROW(QEVUserGraph::fromJSON(text)) << entry.path();
    }
  }
  EXPECT_GT(chunkFiles, 0u);

  QEVFileMemoryStore store(root, qevr::FileSystem::defaultFileSystem(),
                           std::make_shared<QEVLZFSECompressionEngine>());
  EXPECT_NO_THROW(store.loadEventChunks());
  EXPECT_NO_THROW(store.loadSessionGraphs());
  EXPECT_NO_THROW(store.loadUserGraph());
  std::printf("after 50 kills: %zu chunk files and %zu session graphs, all decode\n", chunkFiles,
              sessionFiles);
  fs::remove_all(dataDir);
}

}  // namespace
