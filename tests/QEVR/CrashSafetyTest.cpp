// A host killed at random moments never leaves a torn or undecodable file.
//
// Each round starts `qevr simulate` on the same data directory, lets it track
// as fast as it can for a random while, and kills it with SIGKILL. Afterwards
// every file of the store must decode and the store must load.
#include <QEVMemory/QEVFileMemoryStore.h>

#include "ToolTestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace tooltest;

namespace {

TEST(CrashSafetyTest, EveryFileDecodesAfterFiftyKills) {
  const fs::path dataDir = makeScratch("qevr-crash");
  const fs::path root = dataDir / "QEVR" / "Memory";

  std::mt19937 random(20261122);
  std::uniform_int_distribution<int> delayMs(20, 400);
  for (unsigned round = 0; round < 50; ++round) {
    const pid_t child = spawnProcess({QEVR_TOOL_PATH, "simulate", "--data-dir", dataDir.string(),
                                      "--events", "1000000000", "--seed", std::to_string(round)});
    ASSERT_GT(child, 0);
    // The kill must land at an arbitrary moment; the wait is the point here,
    // not something to assert on.
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMs(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status)) << "round " << round << " ended before the kill";
  }

  // A load decodes every file and fails on the first torn one.
  const auto store = openStore(root);
  std::vector<QEVMemoryEventChunk> chunks;
  EXPECT_NO_THROW(chunks = store->loadEventChunks());
  EXPECT_FALSE(chunks.empty());
  EXPECT_NO_THROW(store->loadSessionGraphs());
  EXPECT_NO_THROW(store->loadUserGraph());
  fs::remove_all(dataDir);
}

// One run of the lifecycle host, its stdout on a pipe.
struct HostRun {
  pid_t pid = -1;
  int output = -1;
};

HostRun spawnHost(const fs::path& dataDir, int launch, int sessions, int eventsPerSession) {
  int pipeEnds[2];
  if (::pipe(pipeEnds) != 0) return {};
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
  ::posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
  const HostRun run{
      spawnProcess({QEVR_LIFECYCLE_HOST_PATH, dataDir.string(), std::to_string(launch),
                    std::to_string(sessions), std::to_string(eventsPerSession)},
                   &actions),
      pipeEnds[0]};
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(pipeEnds[1]);
  return run;
}

// Reads the host's lines until one satisfies `stop` or the output ends;
// returns them all.
template <typename Stop>
std::vector<std::string> readLinesUntil(HostRun& run, std::string& pending, Stop stop) {
  std::vector<std::string> lines;
  char buffer[4096];
  for (;;) {
    size_t end = 0;
    while ((end = pending.find('\n')) != std::string::npos) {
      lines.push_back(pending.substr(0, end));
      pending.erase(0, end + 1);
      if (stop(lines.back())) return lines;
    }
    const ssize_t got = ::read(run.output, buffer, sizeof buffer);
    if (got <= 0) return lines;
    pending.append(buffer, static_cast<size_t>(got));
  }
}

// Everything the host printed; call once it has exited.
std::vector<std::string> linesOf(HostRun& run) {
  std::string pending;
  std::vector<std::string> lines =
      readLinesUntil(run, pending, [](const std::string&) { return false; });
  ::close(run.output);
  return lines;
}

// What the store holds, counted the ways the invariants need.
struct StoreCounts {
  std::map<QEVRUUID, std::int64_t> chunkEventsBySession;
  std::map<QEVRUUID, std::int64_t> graphEventsBySession;
  std::map<std::int64_t, std::set<std::int64_t>> stepsByLaunch;  // the "n" of each step
  std::int64_t chunkEvents = 0;
  std::optional<QEVUserGraph> userGraph;
};

StoreCounts countStore(const fs::path& root) {
  const auto store = openStore(root);
  StoreCounts counts;
  for (const QEVMemoryEventChunk& chunk : store->loadEventChunks()) {
    for (const QEVMemoryEvent& event : chunk.events) {
      ++counts.chunkEvents;
      if (event.sessionId) ++counts.chunkEventsBySession[*event.sessionId];
      auto launch = event.metadata.find("launch");
      auto n = event.metadata.find("n");
      if (launch != event.metadata.end() && n != event.metadata.end()) {
        counts.stepsByLaunch[*launch->second.intValue()].insert(*n->second.intValue());
      }
    }
  }
  for (const QEVSessionGraph& graph : store->loadSessionGraphs()) {
    if (graph.sessionId) counts.graphEventsBySession[*graph.sessionId] = graph.eventCount;
  }
  counts.userGraph = store->loadUserGraph();
  return counts;
}

void expectEverySavedEventCountedOnce(const StoreCounts& counts) {
  EXPECT_EQ(counts.graphEventsBySession, counts.chunkEventsBySession)
      << "a session graph per session on disk, counting exactly its saved events";
  ASSERT_TRUE(counts.userGraph.has_value());
  EXPECT_EQ(counts.userGraph->totalEvents, counts.chunkEvents);
  EXPECT_EQ(counts.userGraph->totalSessions,
            static_cast<std::int64_t>(counts.graphEventsBySession.size()));
}

// Launches of an app with memory across runs, each killed at a random
// moment (some while the start still recovers the run before), then clean
// ones. Every event that reached the disk ends up counted once, and a kill
// loses no step more than 30 s (30 steps) older than the last one the host
// saw through.
TEST(CrashSafetyTest, KilledLaunchesAreRecoveredOnceAndLoseAtMostTheirLast30Seconds) {
  const fs::path dataDir = makeScratch("qevr-lifecycle");
  const fs::path root = dataDir / "QEVR" / "Memory";
  constexpr int kKilledLaunches = 12;
  constexpr int kStepsOfALostSecond = 1;  // the host's clock: one second per step
  constexpr int kLossBoundSteps = 30 / kStepsOfALostSecond;

  std::mt19937 random(20261123);
  std::uniform_int_distribution<int> killAfterStep(0, 239);
  std::map<int, std::int64_t> lastSeenStep;  // per killed launch
  for (int launch = 0; launch < kKilledLaunches; ++launch) {
    HostRun run = spawnHost(dataDir, launch, /*sessions=*/3, /*eventsPerSession=*/80);
    ASSERT_GT(run.pid, 0);
    std::string pending;
    std::vector<std::string> seen;
    if (launch % 4 == 0) {
      // In start-up, where the run before is being recovered.
      std::this_thread::sleep_for(std::chrono::milliseconds(launch / 4));
    } else {
      const int step = killAfterStep(random);
      seen = readLinesUntil(run, pending, [step](const std::string& line) {
        return line == "done" || std::stoi(line) >= step;
      });
    }
    ::kill(run.pid, SIGKILL);
    waitForExit(run.pid);
    for (std::string& line : linesOf(run))
      seen.push_back(std::move(line));
    lastSeenStep[launch] = -1;
    for (const std::string& line : seen) {
      if (line != "done") lastSeenStep[launch] = std::stoll(line);
    }
  }

  HostRun clean = spawnHost(dataDir, kKilledLaunches, /*sessions=*/1, /*eventsPerSession=*/0);
  ASSERT_GT(clean.pid, 0);
  const int status = waitForExit(clean.pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(linesOf(clean), std::vector<std::string>{"done"});  // a launch that records nothing

  const StoreCounts counts = countStore(root);
  expectEverySavedEventCountedOnce(counts);
  EXPECT_TRUE(!fs::exists(root / "live") || fs::is_empty(root / "live"))
      << "every session marker recovered and removed";
  std::int64_t lostSteps = 0;
  for (const auto& [launch, last] : lastSeenStep) {
    const std::set<std::int64_t> saved = counts.stepsByLaunch.contains(launch)
                                             ? counts.stepsByLaunch.at(launch)
                                             : std::set<std::int64_t>{};
    for (std::int64_t n = 0; n <= last - kLossBoundSteps - 1; ++n) {
      EXPECT_TRUE(saved.contains(n)) << "launch " << launch << " lost step " << n << " of the "
                                     << last + 1 << " it saw through";
    }
    for (std::int64_t n = 0; n <= last; ++n)
      lostSteps += saved.contains(n) ? 0 : 1;
  }
  std::printf("%d killed launches lost %lld of the steps they saw through\n", kKilledLaunches,
              static_cast<long long>(lostSteps));

  // A further launch counts only its own session.
  HostRun further = spawnHost(dataDir, kKilledLaunches + 1, /*sessions=*/1, /*eventsPerSession=*/5);
  ASSERT_GT(further.pid, 0);
  waitForExit(further.pid);
  linesOf(further);
  const StoreCounts after = countStore(root);
  expectEverySavedEventCountedOnce(after);
  EXPECT_EQ(after.graphEventsBySession.size(), counts.graphEventsBySession.size() + 1);
  fs::remove_all(dataDir);
}

}  // namespace
