// The qevr inspection commands read a store and never change it.
#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Json.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationOutcomes.h>
#include "QEVMemoryPruner.h"

#include "ToolTestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using namespace tooltest;

namespace {

class InspectionToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    base = simulatedStore("qevr-inspect", "2500", "7");
    scratch = base / "scratch";
    dataDir = base / "data";
  }
  static void TearDownTestSuite() { fs::remove_all(base); }

  static fs::path memoryRoot() { return dataDir / "QEVR" / "Memory"; }

  static inline fs::path base;
  static inline fs::path scratch;
  static inline fs::path dataDir;
};

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
  const ToolRun fromStore =
      runTool({"analyze", "--data-dir", dataDir.string(), "--domain", "game", "--json"}, scratch);
  ASSERT_EQ(fromStore.status, 0) << fromStore.err;

  const ToolRun snapshot = runTool({"snapshot", "--data-dir", dataDir.string(), "--json"}, scratch);
  ASSERT_EQ(snapshot.status, 0);
  const fs::path exported = base / "snapshot.json";
  std::ofstream(exported) << snapshot.out;
  const ToolRun fromFile =
      runTool({"analyze", "--snapshot", exported.string(), "--domain", "game", "--json"}, scratch);
  ASSERT_EQ(fromFile.status, 0) << fromFile.err;
  EXPECT_EQ(withoutDates(fromStore.out), withoutDates(fromFile.out));
}

// Exported records only: a frustrated beginner in a game. A missing snapshot
// is a failed source, not an error.
TEST_F(InspectionToolTest, RecommendReadsExportedRecords) {
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
  const fs::path damaged = copyOfStore(memoryRoot(), base / "damaged", true);
  const std::string badGraph = (damaged / "QEVR" / "Memory" / "user" / "graph.json").string();
  const fs::path badSnapshot = base / "bad-snapshot.json";
  std::ofstream(badSnapshot) << R"({"totalSessions":"many"})";
  const fs::path badInputs = base / "bad-inputs.json";
  std::ofstream(badInputs) << R"({"snapshot":{"totalSessions":"many"}})";
  const std::string missing = (base / "missing").string();
  const struct {
    std::vector<std::string> args;
    std::string errorMentions;
  } cases[] = {
      {{"snapshot", "--data-dir", missing}, missing},
      {{"analyze", "--data-dir", damaged.string()}, badGraph},
      {{"analyze", "--snapshot", badSnapshot.string(), "--json"}, badSnapshot.string()},
      {{"analyze", "--snapshot", (base / "absent.json").string()}, "absent.json"},
      {{"analyze", "--domain", "cars"}, "cars"},
      {{"recommend", "--inputs", badInputs.string()}, "snapshot"},
      {{"recommend", "--policy", badSnapshot.string(), "--inputs", badSnapshot.string()},
       badSnapshot.string()},
      {{"recommend", "--data-dir", damaged.string(), "--json"}, badGraph},
      {{"recommend", "--domain", "boats"}, "boats"},
      {{"analyze", "--data-dir", dataDir.string(), "--snapshot", "-"}, "exclude"},
      {{"snapshot", "--data-dir", damaged.string(), "--json"}, badGraph},
      {{"snapshot", "--bogus"}, "--bogus"},
      {{"doctor", "--data-dir", missing}, missing},
      {{"doctor", "--fix", "--bogus"}, "--bogus"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    expectOneLineFailure(runTool(c.args, scratch), c.errorMentions);
  }
}

// What `listing` shows, and every regular file's bytes: byte for byte.
std::map<std::string, std::string> contents(const fs::path& root) {
  std::map<std::string, std::string> entries = listing(root);
  for (auto& [path, facts] : entries) {
    if (fs::is_regular_file(fs::symlink_status(path))) facts += "/" + slurp(path);
  }
  return entries;
}

bool pruningSucceeds(const fs::path& memoryRoot) {
  try {
    QEVMemoryPruner(memoryRoot, qevr::FileSystem::defaultFileSystem()).prune(QEVMemoryOptions{});
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// The lines of the doctor's report that name damaged files.
std::vector<std::string> damagedLines(const std::string& report) {
  std::vector<std::string> lines;
  std::istringstream in(report);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("  ", 0) == 0) lines.push_back(line.substr(2));
  }
  return lines;
}

TEST_F(InspectionToolTest, DoctorLeavesAHealthyStoreByteForByteAsItWas) {
  const auto before = contents(dataDir);
  const auto chunks = openStore(memoryRoot())->loadEventChunks().size();
  for (const bool fix : {false, true}) {
    std::vector<std::string> args = {"doctor", "--data-dir", dataDir.string()};
    if (fix) args.push_back("--fix");
    const ToolRun run = runTool(args, scratch);
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find("\nevent chunks " + std::to_string(chunks) + "\n"), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("damaged files 0\npruning can run: yes\nhealthy\n"), std::string::npos)
        << run.out;
    EXPECT_EQ(contents(dataDir), before);
  }
  EXPECT_FALSE(fs::exists(dataDir / "QEVR" / "Memory-quarantine"));
}

// Each kind of damage, planted in a copy of the store: the doctor names the
// file and why, changes nothing without --fix, and with it moves the file
// aside so that the pruner and the snapshot work again.
TEST_F(InspectionToolTest, DoctorFindsAndQuarantinesEachKindOfDamage) {
  struct Case {
    std::string name;
    std::string relativePath;
    std::function<void(const fs::path& file)> plant;
    std::string reason;  // a part of the reason the report gives
    bool stopsPruning = true;
  };
  auto write = [](std::string text) {
    return [text](const fs::path& file) { std::ofstream(file, std::ios::binary) << text; };
  };
  // A compressed block that loses its second half.
  const auto truncatedChunk = [](const fs::path& file) {
    std::string text;
    for (int i = 0; i < 500; ++i)
      text += "{\"n\":" + std::to_string(i) + "}";
    QEVStoredEventChunk envelope{QEVCompressionType::lzfse, static_cast<std::int64_t>(text.size()),
                                 QEVLZFSECompressionEngine().compress({text.begin(), text.end()})};
    envelope.payload.resize(envelope.payload.size() / 2);
    std::ofstream(file, std::ios::binary) << envelope.toJSON();
  };
  std::vector<Case> cases = {
      {"fifo", "events/0F1F0000-0000-4000-8000-000000000001.json",
       [](const fs::path& file) { ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0); },
       "Invalid argument"},
      {"directory", "sessions/D1D1D1D1-0000-4000-8000-000000000002.json",
       [](const fs::path& file) { fs::create_directory(file); }, "Is a directory"},
      {"empty", "events/E0000000-0000-4000-8000-000000000003.json", write(""), "document is empty"},
      {"truncated", "events/7C000000-0000-4000-8000-000000000004.json", truncatedChunk,
       "decompressionFailed"},
      {"envelope", "events/E1000000-0000-4000-8000-000000000005.json",
       write(R"({"compressionType":"zip","uncompressedByteCount":2,"payload":"e30="})"),
       "compression type"},
      {"session JSON", "sessions/5E000000-0000-4000-8000-000000000006.json",
       write(R"({"sessionId":"5E000000-0000-4000-8000-000000000006","eventCount":)"),
       "not valid JSON"},
      {"user graph", "user/graph.json", write(R"({"userId":"x","totalSessions":3})"), "userId",
       false},
      {"link loop", "sessions/100B0000-0000-4000-8000-000000000007.json",
       [](const fs::path& file) { fs::create_symlink(file.filename(), file); },
       "Too many levels of symbolic links"},
      {"events not a directory", "events", write("x"), "Not a directory"},
      {"outcome log of another format", "outcomes.json",
       write(R"({"format":"qevr-outcomes/9","histories":[]})"), "Not an outcome log", false},
      {"outcome log cut short", "outcomes.json", write(R"({"format":"qevr-outcomes/1","hist)"),
       "not valid JSON", false},
      {"outcome log past its limit", "outcomes.json",
       write(std::string(kQEVMemoryMaxOutcomeLogBytes + 1, ' ')), "too large", false},
  };
  if (::geteuid() != 0) {  // permissions do not stop root
    cases.push_back({"unreadable", "events/0A000000-0000-4000-8000-000000000008.json",
                     [](const fs::path& file) {
                       std::ofstream(file) << "{}";
                       fs::permissions(file, fs::perms::none);
                     },
                     "Permission denied"});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path data =
        copyOfStore(memoryRoot(), base / ("doctor-" + std::to_string(&c - &cases[0])));
    const fs::path root = data / "QEVR" / "Memory";
    const fs::path file = root / c.relativePath;
    fs::remove_all(file);
    c.plant(file);
    const auto before = contents(data);

    const ToolRun look = runTool({"doctor", "--data-dir", data.string()}, scratch);
    EXPECT_EQ(look.status, 1) << look.out << look.err;
    const std::vector<std::string> lines = damagedLines(look.out);
    ASSERT_EQ(lines.size(), 1u) << look.out;
    EXPECT_EQ(lines[0].rfind(c.relativePath + ": ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(c.reason), std::string::npos) << lines[0];
    EXPECT_EQ(lines[0].find(root.string()), std::string::npos) << lines[0];
    EXPECT_EQ(look.out.find("pruning can run: yes") == std::string::npos, c.stopsPruning)
        << look.out;
    EXPECT_EQ(contents(data), before);
    if (c.stopsPruning) {
      EXPECT_FALSE(pruningSucceeds(root));
    }

    const ToolRun fix = runTool({"doctor", "--data-dir", data.string(), "--fix"}, scratch);
    EXPECT_EQ(fix.status, 1) << fix.out << fix.err;
    EXPECT_NE(fix.out.find("fixed: the store is healthy now"), std::string::npos) << fix.out;
    EXPECT_FALSE(fs::exists(fs::symlink_status(file)));
    EXPECT_TRUE(
        fs::exists(fs::symlink_status(data / "QEVR" / "Memory-quarantine" / c.relativePath)));

    EXPECT_EQ(runTool({"doctor", "--data-dir", data.string()}, scratch).status, 0);
    EXPECT_NO_THROW(intelligenceSnapshot(*openStore(root)));
    EXPECT_TRUE(pruningSucceeds(root));
  }
}

// The outcome log is shown with its size and histories; the doctor reads
// it and, healthy, leaves it byte for byte as it was, --fix included.
TEST_F(InspectionToolTest, DoctorShowsTheOutcomeLogAndNeverWritesIt) {
  QEVRecommendationOutcomeLog two;
  const QEVRDate at = qevr::now().addingSeconds(-86'400);
  two.record(recommendationFor(QEVRecommendationType::gameplay, "Easier",
                               QEVRecommendationAction::adjustDifficulty(-0.2, {}, {})),
             QEVRecommendationOutcome::applied, at);
  two.record(recommendationFor(QEVRecommendationType::ui, "Help",
                               QEVRecommendationAction::showHelp("pay", {}, {})),
             QEVRecommendationOutcome::dismissed, at);
  const struct {
    const char* name;
    std::optional<std::string> log;
    std::string line;  // what follows "outcome log "
  } cases[] = {
      {"none", std::nullopt, "absent"},
      {"two histories", two.toJSON(),
       "present, " + std::to_string(two.toJSON().size()) +
           " bytes of at most 1048576, 2 histories of at most 256"},
      {"no histories", QEVRecommendationOutcomeLog().toJSON(),
       "present, " + std::to_string(QEVRecommendationOutcomeLog().toJSON().size()) +
           " bytes of at most 1048576, 0 histories of at most 256"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path data = copyOfStore(memoryRoot(), base / (std::string("outcomes-") + c.name));
    if (c.log) writeOutcomeLog(data / "QEVR" / "Memory", *c.log);
    const auto before = contents(data);
    for (const bool fix : {false, true}) {
      std::vector<std::string> args = {"doctor", "--data-dir", data.string()};
      if (fix) args.push_back("--fix");
      const ToolRun run = runTool(args, scratch);
      EXPECT_EQ(run.status, 0) << run.out << run.err;
      EXPECT_NE(run.out.find("\nuser graph present\noutcome log " + c.line + "\n"),
                std::string::npos)
          << run.out;
      EXPECT_NE(run.out.find("damaged files 0\npruning can run: yes\nhealthy\n"), std::string::npos)
          << run.out;
      EXPECT_EQ(contents(data), before);
    }
  }
}

// With continuity every simulated session stays known, dated, to the
// snapshot; the flag may come anywhere among the arguments.
TEST_F(InspectionToolTest, SimulateWithContinuityKeepsEverySession) {
  const fs::path data = base / "continuing";
  const ToolRun run = runTool(
      {"simulate", "--events", "1500", "--continuity", "--data-dir", data.string(), "--seed", "3"},
      scratch);
  ASSERT_EQ(run.status, 0) << run.err;
  // "simulated N calls (M accepted) in S sessions, ..."
  const std::size_t in = run.out.find(") in ");
  ASSERT_NE(in, std::string::npos) << run.out;
  const std::string sessions = std::to_string(std::stoi(run.out.substr(in + 5)));
  const ToolRun snapshot = runTool({"snapshot", "--data-dir", data.string(), "--json"}, scratch);
  ASSERT_EQ(snapshot.status, 0) << snapshot.err;
  EXPECT_NE(snapshot.out.find("\"totalSessions\":" + sessions + ","), std::string::npos)
      << sessions << " " << snapshot.out;
  const ToolRun doctor = runTool({"doctor", "--data-dir", data.string()}, scratch);
  EXPECT_EQ(doctor.status, 0) << doctor.out;
  EXPECT_NE(doctor.out.find("\nsession graphs " + sessions + " of"), std::string::npos)
      << doctor.out;
  EXPECT_EQ(doctor.out.find("undated"), std::string::npos) << doctor.out;
}

// The demo runs as an app does: each launch sees the sessions completed
// before it, in this run and, over the same directory, in the earlier run.
TEST_F(InspectionToolTest, DemoLaunchesCarryOnFromTheSessionsBeforeThem) {
  std::string out;
  // The section from the line `header` to the next "== " header holds every
  // `present` text and no `absent` one.
  const auto expectSection = [&out](const std::string& header,
                                    const std::vector<std::string>& present,
                                    const std::vector<std::string>& absent) {
    SCOPED_TRACE(header);
    const std::size_t begin = out.find("\n" + header);
    ASSERT_NE(begin, std::string::npos) << out;
    const std::size_t end = out.find("\n== ", begin + 1);
    const std::string text = out.substr(begin, end == std::string::npos ? end : end - begin);
    for (const std::string& line : present)
      EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
    for (const std::string& line : absent)
      EXPECT_EQ(text.find(line), std::string::npos) << line << "\n" << text;
  };
  const auto demo = [&out](const fs::path& data) {
    const ToolRun run = runTool({"demo", "--data-dir", data.string()}, scratch);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    out = run.out;
  };
  const std::string firstLaunch = "launch 1: 0 earlier sessions, 0 recommendations;";
  const std::string secondLaunch = "launch 2: 1 earlier session, ";
  demo(base / "demo");
  expectSection("== launches 2 to 4",
                {secondLaunch, "launch 3: 2 earlier sessions, ", "launch 4: 3 earlier sessions, ",
                 "\"totalSessions\":4,"},
                {"launch 4: 3 earlier sessions, 0 recommendations"});
  expectSection("== the shopper", {firstLaunch, secondLaunch},
                {secondLaunch + "0 recommendations"});
  expectSection("== the player", {firstLaunch, secondLaunch, "1. [gameplay"},
                {secondLaunch + "0 recommendations"});
  // Dismissed twice and applied advice stay out of launch 3; the applied
  // one has no sessions after it yet.
  expectSection("== outcome learning",
                {"dismissed twice: Suggest relevant feature", "applied: Reduce difficulty",
                 "launch 3: 2 earlier sessions, ", "dismissed 2; held back",
                 "effect tooEarly on failuresAndRetries (", "after); held back"},
                {"launch 3: 2 earlier sessions, 0 recommendations"});

  demo(base / "demo");
  expectSection(
      "== launches 2 to 4",
      {"launch 2: 5 earlier sessions, ", "launch 4: 7 earlier sessions, ", "\"totalSessions\":8,"},
      {});
  // The player's third launch of the first run is also there.
  expectSection("== the shopper",
                {"launch 1: 2 earlier sessions, ", "launch 2: 3 earlier sessions, "},
                {", 0 recommendations"});
  expectSection("== the player",
                {"launch 1: 3 earlier sessions, ", "launch 2: 4 earlier sessions, "},
                {", 0 recommendations"});
}

// The read-only commands change nothing and print the same bytes on every
// platform for the stores under data/stores, the time of the run and the
// recommendations' random ids aside. To regenerate after a deliberate change, run each command
// below over the store and mask its output as `masked` does.
TEST(InspectionToolGoldenTest, OutputsOfCheckedInStoresAreTheSameBytesEverywhere) {
  const auto masked = [](const std::string& json) {
    const std::regex dates(R"re("(generatedAt|createdAt|expiresAt)":[-0-9.eE+]+)re");
    const std::regex ids(R"re("id":"[0-9A-F-]{36}")re");
    return std::regex_replace(std::regex_replace(json, dates, "\"$1\":0"), ids, "\"id\":\"\"");
  };
  const fs::path data = QEVR_TEST_DATA_DIR;
  const fs::path scratch = makeScratch("qevr-golden");
  for (const auto& [store, domain] :
       {std::pair{"demo", "mobileApp"}, {"player", "game"}, {"shopper", "ecommerce"}}) {
    for (const std::string command : {"snapshot", "analyze", "recommend"}) {
      SCOPED_TRACE(std::string(store) + " " + command);
      std::vector<std::string> args = {command, "--data-dir", (data / "stores" / store).string(),
                                       "--json"};
      if (command != "snapshot") args.insert(args.end(), {"--domain", domain});
      const auto before = listing(data / "stores" / store);
      const ToolRun run = runTool(args, scratch);
      ASSERT_EQ(run.status, 0) << run.err;
      EXPECT_EQ(masked(run.out), slurp(data / "golden" / (store + ("." + command) + ".json")));
      EXPECT_EQ(listing(data / "stores" / store), before);
    }
  }
  fs::remove_all(scratch);
}

TEST_F(InspectionToolTest, DoctorNeverReplacesAQuarantinedFile) {
  const fs::path data = copyOfStore(memoryRoot(), base / "doctor-twice");
  const fs::path file = data / "QEVR" / "Memory" / "events" / "BAD.json";
  const fs::path kept = data / "QEVR" / "Memory-quarantine" / "events" / "BAD.json";
  for (const char* text : {"first", "second", "third"}) {
    std::ofstream(file) << text;
    const ToolRun run = runTool({"doctor", "--data-dir", data.string(), "--fix"}, scratch);
    EXPECT_EQ(run.status, 1) << run.out << run.err;
  }
  EXPECT_EQ(slurp(kept), "first");
  EXPECT_EQ(slurp(kept.string() + ".1"), "second");
  EXPECT_EQ(slurp(kept.string() + ".2"), "third");
}

}  // namespace
