#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVMemory/QEVMemoryPruner.h>
#include <QEVMemory/QEVMemoryStore.h>
#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Log.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <stdlib.h>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

using Kind = QEVMemoryPruner::PruningCandidate::Kind;

constexpr double kDay = 86'400;
constexpr std::uint64_t kMB = 1'048'576;
const QEVRDate kNow = qevr::parseISO8601("2026-03-01T12:00:00Z").value();

std::vector<std::uint8_t> bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

// Forwards to the real file system, except that sizes can be made up (so
// the disk pass can be driven with exact numbers), files can seem to have
// vanished or refuse removal, and calls are counted.
class ScriptedFileSystem final : public qevr::FileSystemWrapper {
 public:
  ScriptedFileSystem() : FileSystemWrapper(qevr::FileSystem::defaultFileSystem()) {}

  bool exists(const fs::path& p) override {
    ++calls;
    return !vanished.contains(p.filename()) && FileSystemWrapper::exists(p);
  }
  std::vector<fs::path> listDirectory(const fs::path& p) override {
    ++calls;
    return FileSystemWrapper::listDirectory(p);
  }
  std::vector<std::uint8_t> readFile(const fs::path& p, std::uint64_t maxBytes) override {
    ++calls;
    return FileSystemWrapper::readFile(p, maxBytes);
  }
  std::optional<std::uint64_t> fileSize(const fs::path& p) override {
    ++calls;
    if (auto it = sizes.find(p.filename()); it != sizes.end()) return it->second;
    return FileSystemWrapper::fileSize(p);
  }
  void removeItem(const fs::path& p) override {
    ++calls;
    if (unremovable.contains(p.filename())) {
      throw std::system_error(EACCES, std::generic_category(), "remove " + p.string());
    }
    FileSystemWrapper::removeItem(p);
  }

  // Keyed by file name. Set up before a run, read after it.
  std::map<fs::path, std::uint64_t> sizes;
  std::set<fs::path> vanished;
  std::set<fs::path> unremovable;
  std::atomic<int> calls{0};
};

// One file in a scenario. Ages are seconds before kNow; an absent age
// leaves the date out (a chunk then has its createdAt an hour before its
// closedAt, or at the fallback age when that is given).
struct Item {
  const char* name;
  Kind kind;
  std::optional<double> endAge = {};    // closedAt / endedAt
  std::optional<double> startAge = {};  // createdAt / startedAt
  std::uint64_t size = 1000;
};

QEVMemoryOptions optionsWith(std::int64_t megabytes, std::int64_t days, std::int64_t sessions) {
  QEVMemoryOptions options;
  options.maxDiskUsageMB = megabytes;
  options.maxEventAgeDays = days;
  options.maxSessionCount = sessions;
  return options;
}

std::string logLine(const QEVMemoryPruningSummary& s) {
  return "Pruned " + std::to_string(s.deletedEventChunks) + " event chunks and " +
         std::to_string(s.deletedSessionGraphs) + " session graphs, freed " +
         std::to_string(s.freedBytes) + " bytes";
}

fs::path makeScratchDirectory() {
  char pattern[] = "/tmp/qevr-pruner-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) throw std::system_error(errno, std::generic_category(), "mkdtemp");
  return pattern;
}

std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const qevr::json::DecodingError&) {
    return "decoding";
  } catch (const QEVCompressionError& e) {
    return std::string("compression ") + e.what();
  } catch (const std::system_error& e) {
    return "errno " + std::to_string(e.code().value());
  }
  return "no failure";
}

class QEVMemoryPrunerTest : public ::testing::Test {
 protected:
  void SetUp() override { qevr::setClock(clock); }
  void TearDown() override {
    qevr::setClock(nullptr);
    fs::remove_all(root);
  }

  QEVRDate ago(double seconds) const { return kNow.addingSeconds(-seconds); }

  // Writes the item through the store, so that it is a real file of its
  // kind, and gives it its made-up size.
  fs::path add(const Item& item) {
    const QEVRUUID id = QEVRUUID::random();
    if (item.kind == Kind::event) {
      QEVMemoryEventChunk chunk;
      chunk.id = id;
      chunk.createdAt = ago(item.startAge.value_or(item.endAge.value_or(0) + 3600));
      if (item.endAge) chunk.closedAt = ago(*item.endAge);
      for (std::uint64_t n = 1; n <= 3; ++n) {
        QEVMemoryEvent event;
        event.id = QEVRUUID::random();
        event.type = QEVMemoryEventType::screenView;
        event.timestamp = chunk.createdAt;
        event.screenName = "Home";
        event.sequenceNumber = n;
        chunk.events.push_back(event);
      }
      chunk.eventCount = 3;
      store.saveEventChunk(chunk);
    } else {
      QEVSessionGraph graph;
      graph.sessionId = id;
      if (item.startAge) graph.startedAt = ago(*item.startAge);
      if (item.endAge) graph.endedAt = ago(*item.endAge);
      graph.eventCount = 1;
      store.saveSessionGraph(graph);
    }
    const fs::path file = root / (item.kind == Kind::event ? "events" : "sessions") /
                          (id.uuidString() + ".json");
    files.sizes[file.filename()] = item.size;
    return file;
  }

  // Files that no run may touch: the user graph, other extensions, and
  // anything in a sub-directory.
  std::vector<fs::path> addBystanders() {
    QEVUserGraph user;
    user.userId = QEVRUUID::random();
    user.createdAt = ago(1000 * kDay);
    store.saveUserGraph(user);
    std::vector<fs::path> paths = {root / "user" / "graph.json", root / "events" / "notes.txt",
                                   root / "sessions" / "OLD.JSON",
                                   root / "events" / "archive" / "0.json"};
    for (std::size_t i = 1; i < paths.size(); ++i) {
      real.createDirectories(paths[i].parent_path());
      real.writeFileAtomically(paths[i], bytesOf("not a chunk"));
    }
    return paths;
  }

  std::vector<std::string> pruningLines() const { return sink->texts("QEVMemory", "Pruning"); }

  std::shared_ptr<qevr::ManualClock> clock = std::make_shared<qevr::ManualClock>(kNow);
  std::shared_ptr<qevr::CapturingLogSink> sink = std::make_shared<qevr::CapturingLogSink>();
  qevr::ScopedLogSink scopedSink{sink};
  qevr::FileSystem& real = qevr::FileSystem::defaultFileSystem();
  ScriptedFileSystem files;
  fs::path root = makeScratchDirectory();
  QEVFileMemoryStore store{root, real, std::make_shared<QEVLZFSECompressionEngine>()};
  QEVMemoryPruner pruner{root, files};
};

TEST_F(QEVMemoryPrunerTest, PassesDeleteExactlyTheExpectedFiles) {
  const double month = 30 * kDay;
  const std::uint64_t half = kMB / 2;
  const std::uint64_t big = std::uint64_t{1} << 63;
  QEVMemoryOptions negative = optionsWith(-1, -1, -1);
  negative.maxDiskUsageMB = 25;
  const struct {
    const char* name;
    QEVMemoryOptions options;
    std::vector<Item> items;
    std::set<std::string> deleted;
  } cases[] = {
      {"age: exactly the limit stays, a second more goes",
       optionsWith(25, 30, 100),
       {{"edge", Kind::event, month}, {"older", Kind::event, month + 1},
        {"oldSession", Kind::session, month + 1}, {"fresh", Kind::session, 1}},
       {"older", "oldSession"}},
      {"age: closedAt, else createdAt; endedAt, else startedAt, else the distant past",
       optionsWith(25, 30, 100),
       {{"closedRecently", Kind::event, kDay, 2 * month}, {"openOld", Kind::event, {}, 2 * month},
        {"endedRecently", Kind::session, kDay, 2 * month},
        {"startedOnly", Kind::session, {}, 2 * month}, {"undated", Kind::session, {}, {}},
        {"startedRecently", Kind::session, {}, kDay}},
       {"openOld", "startedOnly", "undated"}},
      {"age 0 takes everything before now",
       optionsWith(25, 0, 100),
       {{"now", Kind::event, 0}, {"secondAgo", Kind::event, 1}, {"session", Kind::session, 1}},
       {"secondAgo", "session"}},
      {"negative limits count as 0",
       negative,
       {{"now", Kind::event, 0}, {"secondAgo", Kind::event, 1}, {"sessionNow", Kind::session, 0}},
       {"secondAgo", "sessionNow"}},
      {"count keeps the newest, undated sessions count as oldest",
       optionsWith(25, 1'000'000, 2),
       {{"undated", Kind::session, {}, {}}, {"s3", Kind::session, 3 * kDay},
        {"s1", Kind::session, 1 * kDay}, {"s2", Kind::session, 2 * kDay},
        {"chunk", Kind::event, 10 * kDay}},
       {"undated", "s3"}},
      {"count 0 takes every session and no chunk",
       optionsWith(25, 30, 0),
       {{"s", Kind::session, 1}, {"old", Kind::session, 2 * month}, {"chunk", Kind::event, 1}},
       {"s", "old"}},
      {"disk: a negative budget counts as 0",
       optionsWith(-5, 30, 100),
       {{"a", Kind::event, kDay, {}, 10}, {"b", Kind::session, kDay, {}, 10}},
       {"a", "b"}},
      {"disk: a total equal to the budget stays",
       optionsWith(1, 30, 100),
       {{"a", Kind::event, 2 * kDay, {}, half}, {"b", Kind::session, kDay, {}, half}},
       {}},
      {"disk: one byte over takes the oldest, sessions and chunks alike",
       optionsWith(1, 30, 100),
       {{"newChunk", Kind::event, kDay, {}, half + 1}, {"oldSession", Kind::session, 2 * kDay, {}, half}},
       {"oldSession"}},
      {"disk: equal dates take chunks before sessions",
       optionsWith(1, 30, 100),
       {{"session", Kind::session, kDay, {}, 600'000}, {"chunk", Kind::event, kDay, {}, 600'000}},
       {"chunk"}},
      {"disk: budget 0 takes all until nothing is left, empty files after that stay",
       optionsWith(0, 30, 100),
       {{"emptyOld", Kind::event, 3 * kDay, {}, 0}, {"full", Kind::session, 2 * kDay, {}, 100},
        {"emptyNew", Kind::event, kDay, {}, 0}},
       {"emptyOld", "full"}},
      {"disk: sizes past 64 bits in total still count",
       optionsWith(std::int64_t{1} << 43, 30, 100),
       {{"old", Kind::event, 2 * kDay, {}, big}, {"new", Kind::event, kDay, {}, big}},
       {"old"}},
      {"disk: a budget past 64 bits is no limit",
       optionsWith(std::numeric_limits<std::int64_t>::max(), 30, 100),
       {{"old", Kind::event, 2 * kDay, {}, big}, {"new", Kind::event, kDay, {}, big}},
       {}},
      {"a file marked by two passes is deleted and counted once",
       optionsWith(0, 30, 0),
       {{"oldSession", Kind::session, 2 * month, {}, 10}, {"oldChunk", Kind::event, 2 * month, {}, 20}},
       {"oldSession", "oldChunk"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::map<std::string, fs::path> paths;
    QEVMemoryPruningSummary expected;
    for (const Item& item : c.items) {
      paths[item.name] = add(item);
      if (!c.deleted.contains(item.name)) continue;
      (item.kind == Kind::event ? expected.deletedEventChunks : expected.deletedSessionGraphs)++;
      expected.freedBytes += item.size;
    }
    const std::vector<fs::path> bystanders = addBystanders();

    EXPECT_EQ(pruner.prune(c.options), expected);
    for (const auto& [name, path] : paths) {
      EXPECT_EQ(real.exists(path), !c.deleted.contains(name)) << name;
    }
    for (const fs::path& path : bystanders) EXPECT_TRUE(real.exists(path)) << path;
    EXPECT_THAT(pruningLines(), ::testing::ElementsAre(logLine(expected)));

    sink->clear();
    files.sizes.clear();
    real.removeItem(root);
  }
}

TEST_F(QEVMemoryPrunerTest, LogsEveryCompletedRunAtInfo) {
  EXPECT_EQ(pruner.prune(QEVMemoryOptions()), QEVMemoryPruningSummary{});
  add({"old", Kind::event, 100 * kDay, {}, 4321});
  EXPECT_EQ(pruner.prune(QEVMemoryOptions()), (QEVMemoryPruningSummary{1, 0, 4321}));
  EXPECT_THAT(sink->entries(),
              ::testing::ElementsAre(
                  qevr::CapturingLogSink::Entry{"QEVMemory", "Pruning", qevr::LogType::info,
                                                "Pruned 0 event chunks and 0 session graphs, freed 0 bytes"},
                  qevr::CapturingLogSink::Entry{"QEVMemory", "Pruning", qevr::LogType::info,
                                                "Pruned 1 event chunks and 0 session graphs, freed 4321 bytes"}));
}

TEST_F(QEVMemoryPrunerTest, DisabledTouchesNoFileAndLogsNothing) {
  add({"old", Kind::event, 100 * kDay});
  real.writeFileAtomically(root / "events" / "damaged.json", bytesOf("{"));
  files.calls = 0;
  QEVMemoryOptions options = optionsWith(0, 0, 0);
  options.pruningEnabled = false;
  EXPECT_EQ(pruner.prune(options), QEVMemoryPruningSummary{});
  EXPECT_EQ(files.calls, 0);
  EXPECT_TRUE(sink->entries().empty());
  EXPECT_EQ(real.listDirectory(root / "events").size(), 2u);
}

// A file that cannot be read or decoded stops the run before anything is
// removed, however much else is due to go, and keeps stopping later runs.
TEST_F(QEVMemoryPrunerTest, DamagedFileStopsTheRunBeforeAnyDeletion) {
  const auto damagedBlock = [] {
    QEVStoredEventChunk envelope{QEVCompressionType::lzfse, 0,
                                 QEVLZFSECompressionEngine().compress(bytesOf(std::string(500, 'x')))};
    envelope.payload[8] ^= 0x01;
    return envelope.toJSON();
  };
  const struct {
    const char* name;
    const char* directory;
    std::string contents;
    std::string failure;
  } cases[] = {
      {"truncated envelope", "events", R"({"compressionType":"none","uncompr)", "decoding"},
      {"bit-flipped block", "events", damagedBlock(), "compression decompressionFailed"},
      {"session graph missing a key", "sessions", R"({"screenSequence":[]})", "decoding"},
      {"chunk file too large to read", "events", "", "errno " + std::to_string(EFBIG)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path old = add({"old", Kind::event, 100 * kDay});
    const fs::path oldSession = add({"oldSession", Kind::session, 100 * kDay});
    const fs::path damaged = root / c.directory / "FFFFFFFF-FFFF-4FFF-8FFF-FFFFFFFFFFFF.json";
    real.writeFileAtomically(damaged, bytesOf(c.contents));
    if (c.contents.empty()) fs::resize_file(damaged, kQEVMemoryMaxFileBytes + 1);  // sparse
    for (int run = 0; run < 2; ++run) {
      EXPECT_EQ(failureOf([&] { pruner.prune(optionsWith(0, 0, 0)); }), c.failure);
    }
    EXPECT_TRUE(real.exists(old));
    EXPECT_TRUE(real.exists(oldSession));
    EXPECT_TRUE(real.exists(damaged));
    EXPECT_TRUE(pruningLines().empty());
    real.removeItem(root);
  }
}

TEST_F(QEVMemoryPrunerTest, FailedRemovalEndsTheRunWithoutASummary) {
  const fs::path stuck = add({"stuck", Kind::event, 100 * kDay});
  add({"other", Kind::event, 100 * kDay});
  files.unremovable.insert(stuck.filename());
  try {
    pruner.prune(QEVMemoryOptions());
    ADD_FAILURE() << "the run ignored a failed removal";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code().value(), EACCES);
  }
  EXPECT_TRUE(real.exists(stuck));
  EXPECT_TRUE(pruningLines().empty());
}

TEST_F(QEVMemoryPrunerTest, FileGoneBeforeDeletionIsNeitherAnErrorNorCounted) {
  const fs::path gone = add({"gone", Kind::session, 100 * kDay, {}, 70});
  const fs::path old = add({"old", Kind::session, 100 * kDay, {}, 30});
  // Listing sees the file; by the time of the existence check it has gone.
  files.vanished.insert(gone.filename());
  EXPECT_EQ(pruner.prune(QEVMemoryOptions()), (QEVMemoryPruningSummary{0, 1, 30}));
  EXPECT_FALSE(real.exists(old));
}

TEST_F(QEVMemoryPrunerTest, UserGraphSurvivesAnEmptyingRun) {
  const std::vector<fs::path> bystanders = addBystanders();
  for (int i = 0; i < 3; ++i) {
    add({"chunk", Kind::event, 1});
    add({"session", Kind::session, 1});
  }
  EXPECT_EQ(pruner.prune(optionsWith(0, 0, 0)), (QEVMemoryPruningSummary{3, 3, 6000}));
  EXPECT_THAT(real.walk(root), ::testing::UnorderedElementsAre(
                                   root / "events", root / "sessions", root / "user",
                                   bystanders[0], bystanders[1], bystanders[2],
                                   root / "events" / "archive", bystanders[3]));
}

}  // namespace
