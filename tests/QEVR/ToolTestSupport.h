// Runs the qevr tool and other test programs as child processes for
// end-to-end tests, makes scratch directories and store copies, and lists a
// directory tree with what a write would change.
#pragma once

#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRecommendations/QEVRecommendationOutcomes.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace tooltest {

namespace fs = std::filesystem;

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

inline std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

// A fresh directory under the temporary directory, named after `prefix`.
inline fs::path makeScratch(const std::string& prefix) {
  std::string pattern = (fs::temp_directory_path() / (prefix + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp " << pattern;
  return pattern;
}

// Starts `args[0]` with `args`, through the emulator in a cross build; the
// pid, or -1 when it could not start.
inline pid_t spawnProcess(std::vector<std::string> args,
                          const posix_spawn_file_actions_t* actions = nullptr,
                          char* const* envp = environ) {
#ifdef QEVR_TEST_EMULATOR
  std::istringstream emulator(QEVR_TEST_EMULATOR);
  args.insert(args.begin(), std::istream_iterator<std::string>(emulator), {});
#endif
  std::vector<char*> argv;
  for (auto& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (::posix_spawn(&pid, argv[0], actions, nullptr, argv.data(), envp) != 0) return -1;
  return pid;
}

inline int waitForExit(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

// Runs the tool with `args`, standard output and error captured in files.
// With `path`, the child sees only that PATH, so a test chooses which `dot`
// it finds.
inline ToolRun runTool(std::vector<std::string> args, const fs::path& scratch,
                       const std::string& path = "") {
  args.insert(args.begin(), QEVR_TOOL_PATH);
  const std::string outPath = (scratch / "stdout").string();
  const std::string errPath = (scratch / "stderr").string();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const auto& [fd, file] : {std::pair{1, &outPath}, std::pair{2, &errPath}})
    posix_spawn_file_actions_addopen(&actions, fd, file->c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
  std::vector<std::string> variables;
  for (char** e = environ; *e != nullptr; ++e) {
    if (path.empty() || std::string_view(*e).substr(0, 5) != "PATH=") variables.emplace_back(*e);
  }
  if (!path.empty()) variables.push_back("PATH=" + path);
  std::vector<char*> envp;
  for (auto& v : variables)
    envp.push_back(v.data());
  envp.push_back(nullptr);
  const pid_t pid = spawnProcess(std::move(args), &actions, envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ToolRun run;
  if (pid < 0) return run;
  const int status = waitForExit(pid);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = slurp(outPath);
  run.err = slurp(errPath);
  return run;
}

// A scratch directory with a simulated store in `data` and the tool's
// output files in `scratch`; returns it.
inline fs::path simulatedStore(const std::string& prefix, const std::string& events,
                               const std::string& seed) {
  const fs::path base = makeScratch(prefix);
  fs::create_directories(base / "scratch");
  const ToolRun run = runTool(
      {"simulate", "--data-dir", (base / "data").string(), "--events", events, "--seed", seed},
      base / "scratch");
  EXPECT_EQ(run.status, 0) << run.err;
  return base;
}

// A copy of the store at `memoryRoot` as the data directory `copy`, with its
// user graph cut off mid-document when `damageUserGraph`; returns `copy`.
inline fs::path copyOfStore(const fs::path& memoryRoot, const fs::path& copy,
                            bool damageUserGraph = false) {
  fs::create_directories(copy / "QEVR");
  fs::copy(memoryRoot, copy / "QEVR" / "Memory", fs::copy_options::recursive);
  if (damageUserGraph) {
    std::ofstream(copy / "QEVR" / "Memory" / "user" / "graph.json", std::ios::trunc)
        << "{\"totalSessions\":";
  }
  return copy;
}

inline std::shared_ptr<QEVFileMemoryStore> openStore(const fs::path& memoryRoot) {
  return std::make_shared<QEVFileMemoryStore>(memoryRoot, qevr::FileSystem::defaultFileSystem(),
                                              std::make_shared<QEVLZFSECompressionEngine>());
}

// A recommendation as a generation would give it, for recording outcomes.
inline QEVRecommendation recommendationFor(QEVRecommendationType type, std::string title,
                                           QEVRecommendationAction action) {
  return QEVRecommendation(QEVRUUID::random(), type, std::move(title), "summary", 0.6,
                           QEVRecommendationPriority::medium, "reason", {}, std::move(action),
                           QEVRDate{}, std::nullopt);
}

// Puts `bytes` where the store keeps its outcome log.
inline void writeOutcomeLog(const fs::path& memoryRoot, const std::string& bytes) {
  std::ofstream(memoryRoot / QEVFileMemoryStore::kOutcomeLogFile,
                std::ios::binary | std::ios::trunc)
      << bytes;
}

// A usage or store error: status 2, nothing on standard output, and one line
// on standard error that mentions `mentions`.
inline void expectOneLineFailure(const ToolRun& run, const std::string& mentions) {
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find(mentions), std::string::npos) << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
}

// Every entry below `root` with what a write would change.
inline std::map<std::string, std::string> listing(const fs::path& root) {
  std::map<std::string, std::string> entries;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    struct stat info {};
    ::lstat(entry.path().c_str(), &info);
    entries[entry.path().string()] =
        std::to_string(info.st_ino) + "/" + std::to_string(info.st_size) + "/" +
        std::to_string(info.st_mtim.tv_sec) + "." + std::to_string(info.st_mtim.tv_nsec);
  }
  return entries;
}

}  // namespace tooltest
