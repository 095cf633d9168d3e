// Runs the qevr tool as a child process for end-to-end tests, and lists a
// directory tree with what a write would change.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
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

// Runs the tool with `args`, standard output and error captured in files.
inline ToolRun runTool(std::vector<std::string> args, const fs::path& scratch,
                       const std::string& path = "") {
  args.insert(args.begin(), QEVR_TOOL_PATH);
  std::vector<char*> argv;
  for (auto& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  const std::string outPath = (scratch / "stdout").string();
  const std::string errPath = (scratch / "stderr").string();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  ToolRun run;
  pid_t pid = -1;
  // With `path`, the child sees only that PATH, so a test chooses which
  // `dot` it finds.
  std::vector<std::string> variables;
  for (char** e = environ; *e != nullptr; ++e) {
    if (path.empty() || std::string_view(*e).substr(0, 5) != "PATH=") variables.emplace_back(*e);
  }
  if (!path.empty()) variables.push_back("PATH=" + path);
  std::vector<char*> envp;
  for (auto& v : variables)
    envp.push_back(v.data());
  envp.push_back(nullptr);
  const int spawned = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return run;
  int status = 0;
  ::waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = slurp(outPath);
  run.err = slurp(errPath);
  return run;
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
