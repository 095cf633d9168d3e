// The qevr inspection commands read a store and never change it.
#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>
#include <QEVMemory/QEVMemoryStore.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Json.h>
#include <QEVRecommendations/QEVRecommendation.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace fs = std::filesystem;

namespace {

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

// Runs the tool with `args`, standard output and error captured in files.
ToolRun runTool(const std::vector<std::string>& args, const fs::path& scratch) {
  std::vector<std::string> all = {QEVR_TOOL_PATH};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : all)
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
  const int spawned = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
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
std::map<std::string, std::string> listing(const fs::path& root) {
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

class InspectionToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string pattern = (fs::temp_directory_path() / "qevr-inspect-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    base = pattern;
    scratch = base / "scratch";
    dataDir = base / "data";
    fs::create_directories(scratch);
    const ToolRun simulate = runTool(
        {"simulate", "--data-dir", dataDir.string(), "--events", "2500", "--seed", "7"}, scratch);
    ASSERT_EQ(simulate.status, 0) << simulate.err;
  }
  static void TearDownTestSuite() { fs::remove_all(base); }

  static fs::path memoryRoot() { return dataDir / "QEVR" / "Memory"; }

  static inline fs::path base;
  static inline fs::path scratch;
  static inline fs::path dataDir;
};

TEST_F(InspectionToolTest, SnapshotJSONIsTheStoresSnapshotAndChangesNothing) {
  const auto before = listing(base / "data");
  const ToolRun run = runTool({"snapshot", "--data-dir", dataDir.string(), "--json"}, scratch);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(listing(base / "data"), before);

  QEVFileMemoryStore store(memoryRoot(), qevr::FileSystem::defaultFileSystem(),
                           std::make_shared<QEVLZFSECompressionEngine>());
  const QEVMemoryIntelligenceSnapshot expected = intelligenceSnapshot(store);
  ASSERT_FALSE(run.out.empty());
  EXPECT_EQ(run.out.back(), '\n');
  const qevr::json::Value parsed = qevr::json::parse(run.out);
  EXPECT_EQ(QEVMemoryIntelligenceSnapshot::decode(qevr::json::Decoder(parsed)), expected);
}

// The analyses' JSON without their generatedAt dates, which are the time of
// each run.
std::string withoutDates(const std::string& json) {
  qevr::json::Value root = qevr::json::parse(json);
  for (qevr::json::Member& analysis : root.object()) {
    std::erase_if(analysis.value.object(),
                  [](const qevr::json::Member& m) { return m.key == "generatedAt"; });
  }
  return qevr::json::serialize(root);
}

TEST_F(InspectionToolTest, AnalyzeGivesTheSameFromTheStoreAndFromItsSnapshot) {
  const auto before = listing(base / "data");
  const ToolRun fromStore =
      runTool({"analyze", "--data-dir", dataDir.string(), "--domain", "game", "--json"}, scratch);
  ASSERT_EQ(fromStore.status, 0) << fromStore.err;
  EXPECT_EQ(listing(base / "data"), before);

  const ToolRun snapshot = runTool({"snapshot", "--data-dir", dataDir.string(), "--json"}, scratch);
  ASSERT_EQ(snapshot.status, 0);
  const fs::path exported = base / "snapshot.json";
  std::ofstream(exported) << snapshot.out;
  const ToolRun fromFile =
      runTool({"analyze", "--snapshot", exported.string(), "--domain", "game", "--json"}, scratch);
  ASSERT_EQ(fromFile.status, 0) << fromFile.err;

  const qevr::json::Value parsed = qevr::json::parse(fromStore.out);
  std::vector<std::string> keys;
  for (const auto& member : parsed.object())
    keys.push_back(member.key);
  EXPECT_EQ(keys, (std::vector<std::string>{"behaviorSummary", "intentAnalysis",
                                            "frustrationAnalysis", "skillAnalysis"}));
  EXPECT_NO_THROW(QEVSkillAnalysis::decode(qevr::json::Decoder(*parsed.find("skillAnalysis"))));
  EXPECT_EQ(withoutDates(fromStore.out), withoutDates(fromFile.out));
}

TEST_F(InspectionToolTest, RecommendReadsAStoreOrExportedRecordsWithoutChangingAnything) {
  const auto before = listing(base / "data");
  const ToolRun fromStore =
      runTool({"recommend", "--data-dir", dataDir.string(), "--domain", "game", "--json"}, scratch);
  ASSERT_EQ(fromStore.status, 0) << fromStore.err;
  EXPECT_EQ(listing(base / "data"), before);
  const qevr::json::Value list = qevr::json::parse(fromStore.out);
  ASSERT_EQ(list.type(), qevr::json::Value::Type::array);
  for (const qevr::json::Value& item : list.array()) {
    EXPECT_NO_THROW(QEVRecommendation::decode(qevr::json::Decoder(item)));
  }

  // Exported records only: a frustrated beginner in a game. A missing
  // snapshot is a failed source, not an error.
  const fs::path inputs = base / "inputs.json";
  std::ofstream(inputs)
      << R"({"skillAnalysis":{"skillLevel":"beginner","evidence":["Repeated retry or failure pattern"],)"
      << R"("recommendedDifficultyAdjustment":"decrease","confidence":0.53,"generatedAt":0},)"
      << R"("frustrationAnalysis":{"level":"high","signals":["s"],"likelyCauses":["c"],)"
      << R"("confidence":0.69,"generatedAt":0}})";
  const ToolRun fromInputs =
      runTool({"recommend", "--inputs", inputs.string(), "--domain", "game", "--json"}, scratch);
  ASSERT_EQ(fromInputs.status, 0) << fromInputs.err;
  const qevr::json::Value recommended = qevr::json::parse(fromInputs.out);
  ASSERT_FALSE(recommended.array().empty());
  bool lowersTheDifficulty = false;
  for (const qevr::json::Value& item : recommended.array()) {
    const QEVRecommendation r = QEVRecommendation::decode(qevr::json::Decoder(item));
    lowersTheDifficulty |= r.type() == QEVRecommendationType::gameplay &&
                           r.action().kind() == QEVRecommendationAction::Kind::adjustDifficulty;
  }
  EXPECT_TRUE(lowersTheDifficulty) << fromInputs.out;

  // The same inputs outside a game give no gameplay advice.
  const ToolRun shop = runTool(
      {"recommend", "--inputs", inputs.string(), "--domain", "ecommerce", "--json"}, scratch);
  ASSERT_EQ(shop.status, 0) << shop.err;
  EXPECT_EQ(shop.out.find("gameplay"), std::string::npos);
}

TEST_F(InspectionToolTest, BadStoresFailWithOneLineAndStatusTwo) {
  const fs::path damaged = base / "damaged";
  fs::create_directories(damaged / "QEVR");
  fs::copy(memoryRoot(), damaged / "QEVR" / "Memory", fs::copy_options::recursive);
  const fs::path badGraph = damaged / "QEVR" / "Memory" / "user" / "graph.json";
  std::ofstream(badGraph, std::ios::trunc) << "{\"totalSessions\":";

  struct Case {
    std::vector<std::string> args;
    std::string errorMentions;
  };
  const fs::path badSnapshot = base / "bad-snapshot.json";
  std::ofstream(badSnapshot) << R"({"totalSessions":"many"})";
  const fs::path badInputs = base / "bad-inputs.json";
  std::ofstream(badInputs) << R"({"snapshot":{"totalSessions":"many"}})";
  const Case cases[] = {
      {{"snapshot", "--data-dir", (base / "missing").string()}, (base / "missing").string()},
      {{"analyze", "--data-dir", damaged.string()}, badGraph.string()},
      {{"analyze", "--snapshot", badSnapshot.string(), "--json"}, badSnapshot.string()},
      {{"analyze", "--snapshot", (base / "absent.json").string()}, "absent.json"},
      {{"analyze", "--domain", "cars"}, "cars"},
      {{"recommend", "--inputs", badInputs.string()}, "snapshot"},
      {{"recommend", "--policy", badSnapshot.string(), "--inputs", badSnapshot.string()},
       badSnapshot.string()},
      {{"recommend", "--data-dir", damaged.string(), "--json"}, badGraph.string()},
      {{"recommend", "--domain", "boats"}, "boats"},
      {{"analyze", "--data-dir", dataDir.string(), "--snapshot", "-"}, "exclude"},
      {{"snapshot", "--data-dir", damaged.string(), "--json"}, badGraph.string()},
      {{"snapshot", "--bogus"}, "--bogus"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    const ToolRun run = runTool(c.args, scratch);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find(c.errorMentions), std::string::npos) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
}

}  // namespace
