#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVRPlatform/Log.h>
#include "ManualExecutor.h"
#include "QEVMemoryPruner.h"
#include "QEVMemoryQueuedPruneRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MemoryTestSupport.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

using Kind = QEVMemoryPruner::PruningCandidate::Kind;

constexpr double kDay = 86'400;
constexpr std::uint64_t kMB = 1'048'576;
const QEVRDate kNow = qevr::parseISO8601("2026-03-01T12:00:00Z").value();

// The real file system, except that sizes can be made up (to drive the disk
// pass with exact numbers), files can seem gone or refuse removal,
// directories can be unwatchable (so that every run lists them), and calls
// are counted. Keyed by file name.
class ScriptedFileSystem final : public qevr::FileSystemWrapper {
 public:
  ScriptedFileSystem() : FileSystemWrapper(qevr::FileSystem::defaultFileSystem()) {}
  bool exists(const fs::path& p) override {
    ++calls;
    return !vanished.contains(p.filename()) && FileSystemWrapper::exists(p);
  }
  std::optional<std::uint64_t> fileSize(const fs::path& p) override {
    ++calls;
    if (auto it = sizes.find(p.filename()); it != sizes.end()) return it->second;
    return FileSystemWrapper::fileSize(p);
  }
  std::vector<qevr::DirectoryEntry> listDirectoryWithIdentities(const fs::path& p) override {
    ++calls;
    ++listings;
    std::vector<qevr::DirectoryEntry> entries = FileSystemWrapper::listDirectoryWithIdentities(p);
    for (qevr::DirectoryEntry& entry : entries)
      withMadeUpSize(entry.name, entry.identity);
    return entries;
  }
  std::optional<qevr::FileIdentity> fileIdentity(const fs::path& p) override {
    ++calls;
    std::optional<qevr::FileIdentity> identity = FileSystemWrapper::fileIdentity(p);
    withMadeUpSize(p, identity);
    return identity;
  }
  void withMadeUpSize(const fs::path& p, std::optional<qevr::FileIdentity>& identity) {
    if (auto it = sizes.find(p.filename()); identity && it != sizes.end()) {
      identity->size = it->second;
    }
  }
  std::vector<std::uint8_t> readFile(const fs::path& p, std::uint64_t maxBytes) override {
    ++calls;
    ++reads;
    return FileSystemWrapper::readFile(p, maxBytes);
  }
  void removeItem(const fs::path& p) override {
    ++calls;
    if (unremovable.contains(p.filename()))
      throw std::system_error(EACCES, std::generic_category());
    FileSystemWrapper::removeItem(p);
  }
  std::unique_ptr<qevr::DirectoryWatch> watchDirectory(const fs::path& p) override {
    return watchable ? FileSystemWrapper::watchDirectory(p) : nullptr;
  }
  std::map<fs::path, std::uint64_t> sizes;
  std::set<fs::path> vanished, unremovable;
  bool watchable = true;
  std::atomic<int> calls{0};
  std::atomic<int> reads{0};
  std::atomic<int> listings{0};
};

// One file of a scenario. Ages are seconds before kNow; an absent age
// leaves that date out (a chunk then gets a createdAt an hour before its
// closedAt).
struct Item {
  const char* name;
  Kind kind;
  std::optional<double> endAge = {};    // closedAt / endedAt
  std::optional<double> startAge = {};  // createdAt / startedAt
  std::uint64_t size = 1000;
};

Item chunk(const char* name, std::optional<double> endAge = {}, std::optional<double> startAge = {},
           std::uint64_t size = 1000) {
  return {name, Kind::event, endAge, startAge, size};
}
Item session(const char* name, std::optional<double> endAge = {},
             std::optional<double> startAge = {}, std::uint64_t size = 1000) {
  return {name, Kind::session, endAge, startAge, size};
}

QEVMemoryOptions options(std::int64_t megabytes, std::int64_t days, std::int64_t sessions) {
  QEVMemoryOptions o;
  o.maxDiskUsageMB = megabytes, o.maxEventAgeDays = days, o.maxSessionCount = sessions;
  return o;
}

class QEVMemoryPrunerTest : public ::testing::Test {
 protected:
  void SetUp() override { qevr::setClock(std::make_shared<qevr::ManualClock>(kNow)); }
  void TearDown() override { qevr::setClock(nullptr); }

  // Writes a real file of the item's kind through the store, replacing any
  // file of the same id; through `files` while `noting`, so that the shared
  // index of (root, files), when there is one, hears of the write.
  fs::path add(const Item& item, const QEVRUUID& id = QEVRUUID::random()) {
    const auto ago = [](double seconds) { return kNow.addingSeconds(-seconds); };
    const fs::path file =
        root / (item.kind == Kind::event ? "events" : "sessions") / (id.uuidString() + ".json");
    files.sizes[file.filename()] = item.size;
    QEVFileMemoryStore& writer = noting ? notingStore : store;
    if (item.kind == Kind::event) {
      const QEVRDate created = ago(item.startAge.value_or(item.endAge.value_or(0) + 3600));
      QEVMemoryEvent event{
          QEVRUUID::random(), QEVMemoryEventType::screenView, created, {}, "Home", {}, {}, 1};
      std::optional<QEVRDate> closed;
      if (item.endAge) closed = ago(*item.endAge);
      writer.saveEventChunk({id, {}, created, closed, {event}, 1, 1});
    } else {
      QEVSessionGraph graph;
      graph.sessionId = id;
      if (item.startAge) graph.startedAt = ago(*item.startAge);
      if (item.endAge) graph.endedAt = ago(*item.endAge);
      writer.saveSessionGraph(graph);
    }
    return file;
  }

  std::vector<std::string> lines() const { return sink->texts("QEVMemory", "Pruning"); }

  std::shared_ptr<qevr::CapturingLogSink> sink = std::make_shared<qevr::CapturingLogSink>();
  qevr::ScopedLogSink scopedSink{sink};
  qevr::FileSystem& real = qevr::FileSystem::defaultFileSystem();
  ScriptedFileSystem files;
  TemporaryDirectory temporary;
  fs::path root = temporary.path;
  QEVFileMemoryStore store{root, real, std::make_shared<QEVLZFSECompressionEngine>()};
  QEVFileMemoryStore notingStore{root, files, std::make_shared<QEVLZFSECompressionEngine>()};
  bool noting = false;
  QEVMemoryPruner pruner{root, files};
};

TEST_F(QEVMemoryPrunerTest, PassesDeleteExactlyTheExpectedFiles) {
  const double month = 30 * kDay;
  const std::uint64_t half = kMB / 2, big = std::uint64_t{1} << 63;
  struct Case {
    const char* name;
    QEVMemoryOptions options;
    std::vector<Item> items;
    std::set<std::string> deleted;
    std::uint64_t outcomeLogSize = 0;  // none when 0
  };
  const auto row = [](const char* name, QEVMemoryOptions o, std::vector<Item> items,
                      std::set<std::string> deleted, std::uint64_t outcomeLogSize = 0) {
    return Case{name, o, std::move(items), std::move(deleted), outcomeLogSize};
  };
  const Case cases[] = {
      row("age: exactly the limit stays, a second more goes", options(25, 30, 100),
          {chunk("edge", month), chunk("older", month + 1), session("oldSession", month + 1),
           session("fresh", 1)},
          {"older", "oldSession"}),
      row("age: closedAt, else createdAt; endedAt, else startedAt, else the distant past",
          options(25, 30, 100),
          {chunk("closedRecently", kDay, 2 * month), chunk("openOld", {}, 2 * month),
           session("endedRecently", kDay, 2 * month), session("startedOld", {}, 2 * month),
           session("undated"), session("startedRecently", {}, kDay)},
          {"openOld", "startedOld", "undated"}),
      row("negative age and count count as 0", options(25, -1, -1),
          {chunk("now", 0), chunk("secondAgo", 1), session("sessionNow", 0)},
          {"secondAgo", "sessionNow"}),
      row("negative disk budget counts as 0", options(-5, 30, 100),
          {chunk("a", kDay, {}, 10), session("b", kDay, {}, 10)}, {"a", "b"}),
      row("count keeps the newest", options(25, 1'000'000, 2),
          {session("s3", 3 * kDay), session("s1", kDay), session("s2", 2 * kDay),
           chunk("chunk", 10 * kDay)},
          {"s3"}),
      row("count: undated sessions go before any dated one", options(25, 1'000'000, 1),
          {session("undated"), session("ancient", 40 * 365 * kDay)}, {"undated"}),
      row("count 0 takes every session and no chunk", options(25, 30, 0),
          {session("s", 1), session("old", 2 * month), chunk("chunk", 1)}, {"s", "old"}),
      row("disk: a total equal to the budget stays", options(1, 30, 100),
          {chunk("a", 2 * kDay, {}, half), session("b", kDay, {}, half)}, {}),
      row("disk: one byte over takes the oldest, sessions and chunks alike", options(1, 30, 100),
          {chunk("newChunk", kDay, {}, half + 1), session("oldSession", 2 * kDay, {}, half)},
          {"oldSession"}),
      row("disk: files already marked don't count", options(1, 30, 0),
          {chunk("older", 2 * kDay, {}, half), session("session", kDay, {}, kMB)}, {"session"}),
      row("disk: the outcome log takes its share and is never removed", options(1, 30, 100),
          {chunk("old", 2 * kDay, {}, half), session("new", kDay, {}, half)}, {"old"}, 1),
      row("disk: equal dates take chunks before sessions", options(1, 30, 100),
          {session("session", kDay, {}, 600'000), chunk("chunk", kDay, {}, 600'000)}, {"chunk"}),
      row("disk: dates count as stored, in whole seconds, so these two tie", options(1, 30, 100),
          {session("olderInMemory", kDay + 0.7, {}, 600'000),
           chunk("newerInMemory", kDay + 0.3, {}, 600'000)},
          {"newerInMemory"}),
      row("disk: budget 0 stops once nothing is left", options(0, 30, 100),
          {chunk("emptyOld", 3 * kDay, {}, 0), session("full", 2 * kDay, {}, 100),
           chunk("emptyNew", kDay, {}, 0)},
          {"emptyOld", "full"}),
      row("disk: a total past 64 bits still counts", options(std::int64_t{1} << 43, 30, 100),
          {chunk("old", 2 * kDay, {}, big), chunk("new", kDay, {}, big)}, {"old"}),
      row("disk: a budget past 64 bits is no limit",
          options(std::numeric_limits<std::int64_t>::max(), 30, 100),
          {chunk("old", 2 * kDay, {}, big), chunk("new", kDay, {}, big)}, {}),
      row("marked by two passes, deleted and counted once", options(0, 30, 0),
          {session("oldSession", 2 * month, {}, 10), chunk("oldChunk", 2 * month, {}, 20)},
          {"oldSession", "oldChunk"}),
  };
  // Cold: a new pruner. Warm: one that has already run over these very
  // files with limits that take nothing, and so reads none of them again;
  // where directories can be watched, it lists none of them either. Noted:
  // a new pruner over the shared index, which the store told of every
  // file it wrote, and so reads none.
  enum class Start { cold, warm, noted };
  for (const bool watchable : {true, false})
    for (const Start start : {Start::cold, Start::warm, Start::noted}) {
      files.watchable = watchable;
      const bool warm = start == Start::warm;
      noting = start == Start::noted;
      for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) +
                     (warm     ? " (warm"
                      : noting ? " (noted"
                               : " (cold") +
                     (watchable ? ", watched)" : ", listed)"));
        const auto index = noting ? QEVMemoryPruner::sharedIndex(root, files) : nullptr;
        std::map<std::string, fs::path> paths;
        QEVMemoryPruningSummary expected;
        for (const Item& item : c.items) {
          paths[item.name] = add(item);
          if (!c.deleted.contains(item.name)) continue;
          ++(item.kind == Kind::event ? expected.deletedEventChunks
                                      : expected.deletedSessionGraphs);
          expected.freedBytes += item.size;
        }
        // Never candidates: the user graph, other extensions, sub-directories.
        store.saveUserGraph(QEVUserGraph{});
        const std::vector<fs::path> bystanders = {
            root / "user" / "graph.json", root / "events" / "a.txt", root / "sessions" / "B.JSON",
            root / "events" / "c" / "d.json"};
        for (std::size_t i = 1; i < bystanders.size(); ++i) {
          real.createDirectories(bystanders[i].parent_path());
          real.writeFileAtomically(bystanders[i], bytesOf("{"));
        }
        const fs::path outcomeLog = root / QEVFileMemoryStore::kOutcomeLogFile;
        if (c.outcomeLogSize > 0) {
          store.saveOutcomeLog("{}");
          files.sizes[outcomeLog.filename()] = c.outcomeLogSize;
        } else {
          files.sizes.erase(outcomeLog.filename());
        }

        const QEVMemoryPruner fresh(root, files, qevr::defaultExecutor(), index);
        files.reads = 0;
        if (warm) {
          const QEVMemoryOptions keepAll =
              options(std::numeric_limits<std::int64_t>::max(), 1'000'000, 1'000'000);
          ASSERT_EQ(fresh.prune(keepAll), QEVMemoryPruningSummary{});
          sink->clear();
          files.reads = 0;
          files.listings = 0;
        }
        EXPECT_EQ(fresh.prune(c.options), expected);
        // A note never stands for a file too big to read: that one is read.
        const auto oversized = std::count_if(c.items.begin(), c.items.end(), [](const Item& i) {
          return i.size > kQEVMemoryMaxFileBytes;
        });
        if (warm) {
          EXPECT_EQ(files.reads, 0);
          EXPECT_EQ(files.listings, watchable ? 0 : 2);
        }
        if (noting) {
          EXPECT_EQ(files.reads, oversized);
        }
        for (const auto& [name, path] : paths)
          EXPECT_EQ(real.exists(path), !c.deleted.contains(name)) << name;
        for (const fs::path& path : bystanders)
          EXPECT_TRUE(real.exists(path)) << path;
        EXPECT_EQ(real.exists(outcomeLog), c.outcomeLogSize > 0);
        EXPECT_EQ(lines().size(), 1u);
        sink->clear();
        real.removeItem(root);
      }
    }
}

// Disabled, a run touches no file, not even a damaged one, and logs
// nothing; every completed run logs at info.
TEST_F(QEVMemoryPrunerTest, LogsEveryCompletedRunAtInfoAndDisabledTouchesNothing) {
  add(chunk("old", 100 * kDay, {}, 4321));
  add(session("old", 100 * kDay, {}, 5));
  const fs::path damaged = root / "events" / "damaged.json";
  real.writeFileAtomically(damaged, bytesOf("{"));
  QEVMemoryOptions off = options(0, 0, 0);
  off.pruningEnabled = false;
  files.calls = 0;
  EXPECT_EQ(pruner.prune(off), QEVMemoryPruningSummary{});
  EXPECT_EQ(files.calls, 0);
  EXPECT_TRUE(sink->entries().empty());

  real.removeItem(damaged);
  EXPECT_EQ(pruner.prune(QEVMemoryOptions()), (QEVMemoryPruningSummary{1, 1, 4326}));
  EXPECT_EQ(pruner.prune(QEVMemoryOptions()), QEVMemoryPruningSummary{});
  using Entry = qevr::CapturingLogSink::Entry;
  EXPECT_THAT(
      sink->entries(),
      ::testing::ElementsAre(Entry{"QEVMemory", "Pruning", qevr::LogType::info,
                                   "Pruned 1 event chunks and 1 session graphs, freed 4326 bytes"},
                             Entry{"QEVMemory", "Pruning", qevr::LogType::info,
                                   "Pruned 0 event chunks and 0 session graphs, freed 0 bytes"}));
}

// A file that can't be read or decoded fails every run before anything is
// removed, also one the pruner knew when it was whole; mended, the store is
// pruned again.
TEST_F(QEVMemoryPrunerTest, ADamagedFileFailsEveryRunBeforeAnyDeletion) {
  const std::string undatable = R"({"screenSequence":[]})";
  const struct {
    Kind kind;
    std::string contents;
    bool knownGood;
  } cases[] = {
      {Kind::event, R"({"compressionType":"none","uncompr)", false},
      {Kind::session, undatable, false},
      {Kind::session, undatable, true},
      {Kind::session, "", true},
  };
  // Also when the store told the shared index of the whole file it wrote.
  for (const bool noted : {false, true})
    for (const auto& c : cases) {
      SCOPED_TRACE(c.contents + (c.knownGood ? " (known good)" : "") + (noted ? " (noted)" : ""));
      noting = noted;
      const QEVMemoryPruner shared(root, files, qevr::defaultExecutor(),
                                   QEVMemoryPruner::sharedIndex(root, files));
      const QEVMemoryPruner& run = noted ? shared : pruner;
      const fs::path old = add(chunk("old", 100 * kDay));
      const fs::path damaged = add({"damaged", c.kind, kDay});
      if (c.knownGood) {
        ASSERT_EQ(run.prune(options(25, 1'000'000, 100)), QEVMemoryPruningSummary{});
      }
      sink->clear();
      real.writeFileAtomically(damaged, bytesOf(c.contents));
      for (int attempt = 0; attempt < 2; ++attempt)
        EXPECT_ANY_THROW(run.prune(options(0, 0, 0)));
      EXPECT_TRUE(real.exists(old) && real.exists(damaged));
      EXPECT_TRUE(lines().empty());
      real.removeItem(damaged);
      EXPECT_EQ(run.prune(QEVMemoryOptions()).deletedEventChunks, 1);
      real.removeItem(root);
    }
}

TEST_F(QEVMemoryPrunerTest, RemovalFailureEndsTheRunAndVanishedFilesAreSkipped) {
  const fs::path stuck = add(chunk("stuck", 100 * kDay));
  files.unremovable.insert(stuck.filename());
  EXPECT_THROW(pruner.prune(QEVMemoryOptions()), std::system_error);
  EXPECT_TRUE(lines().empty());
  real.removeItem(stuck);

  // Listed, then gone by the time of the existence check: not counted.
  const fs::path gone = add(session("gone", 100 * kDay, {}, 70));
  const fs::path old = add(session("old", 100 * kDay, {}, 30));
  files.vanished.insert(gone.filename());
  EXPECT_EQ(pruner.prune(QEVMemoryOptions()), (QEVMemoryPruningSummary{0, 1, 30}));
  EXPECT_FALSE(real.exists(old));
}

// What a warm pruner knows must never outlive the file it was learnt from,
// nor the file itself, and a file that someone else drops in is seen by the
// next run; a pruner made again over the same index reads nothing anew.
TEST_F(QEVMemoryPrunerTest, WhatRunsRememberFollowsEveryChangeToTheStore) {
  const QEVMemoryOptions defaults;
  const struct {
    const char* name;
    Kind kind;
    double before, after;  // age in seconds of the first and second version
    bool deleted;
  } cases[] = {
      {"chunk made old", Kind::event, kDay, 100 * kDay, true},
      {"chunk made new", Kind::event, 100 * kDay, kDay, false},
      {"session made old", Kind::session, kDay, 100 * kDay, true},
  };
  for (const bool watchable : {true, false}) {
    files.watchable = watchable;
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (watchable ? " (watched)" : " (listed)"));
      const fs::path file = add({"x", c.kind, c.before});
      const fs::path bystander = add(chunk("y", kDay));
      const QEVMemoryPruner warm(root, files, qevr::defaultExecutor(),
                                 QEVMemoryPruner::sharedIndex(root, files));
      ASSERT_EQ(warm.prune(options(25, 1'000'000, 100)), QEVMemoryPruningSummary{});
      EXPECT_EQ(warm.rememberedDateCount(), 2u);
      add({"x", c.kind, c.after, c.after}, QEVRUUID::parse(file.stem().string()).value());
      files.reads = 0;
      const QEVMemoryPruningSummary summary = warm.prune(defaults);
      EXPECT_EQ(files.reads, 1);  // the replaced file only
      EXPECT_EQ(summary.deletedEventChunks + summary.deletedSessionGraphs, c.deleted ? 1 : 0);
      EXPECT_EQ(real.exists(file), !c.deleted);
      EXPECT_TRUE(real.exists(bystander));
      // Files that are gone, through the run or otherwise, are forgotten.
      real.removeItem(bystander);
      files.reads = 0;
      EXPECT_EQ(warm.prune(defaults), QEVMemoryPruningSummary{});
      EXPECT_EQ(files.reads, 0);
      EXPECT_EQ(warm.rememberedDateCount(), c.deleted ? 0u : 1u);

      const fs::path dropped = add(session("dropped", 100 * kDay, {}, 77));
      const QEVMemoryPruner again(root, files, qevr::defaultExecutor(),
                                  QEVMemoryPruner::sharedIndex(root, files));
      files.reads = 0;
      EXPECT_EQ(again.prune(defaults), (QEVMemoryPruningSummary{0, 1, 77}));
      EXPECT_EQ(files.reads, 1);
      EXPECT_FALSE(real.exists(dropped));
      real.removeItem(root);
    }
  }
}

// A new process starts from the dates the last one kept, for the files
// whose identity is unchanged; a kept file that is damaged or hostile is
// ignored whole, never trusted in part. Clearing the store takes it too.
TEST_F(QEVMemoryPrunerTest, KeptDatesSpareTheNextProcessItsReads) {
  const fs::path kept = root / "kept.dates";  // outside events/ and sessions/
  const auto edit = [&](auto change) {
    std::vector<std::uint8_t> bytes = real.readFile(kept, kMB);
    change(bytes);
    real.writeFileAtomically(kept, bytes);
  };
  fs::path old;
  const struct {
    const char* name;
    std::function<void()> change;
    int reads;  // the kept file among them
  } cases[] = {
      {"kept as written", [] {}, 1},
      {"a file replaced since",
       [&] {
         add(chunk("again", 100 * kDay, {}, 40), QEVRUUID::parse(old.stem().string()).value());
       },
       2},
      {"gone", [&] { real.removeItem(kept); }, 3},
      {"truncated", [&] { edit([](auto& b) { b.pop_back(); }); }, 4},
      {"a byte too many", [&] { edit([](auto& b) { b.push_back(0); }); }, 4},
      {"another format", [&] { edit([](auto& b) { b[6] = '2'; }); }, 4},
      {"a count past the limit", [&] { edit([](auto& b) { b[11] = 0xFF; }); }, 4},
      {"an unknown kind", [&] { edit([](auto& b) { b[12] = 7; }); }, 4},
      {"a date that is not a number",
       [&] { edit([](auto& b) { std::fill(b.end() - 8, b.end(), 0xFF); }); }, 4},
      {"not a dates file", [&] { real.writeFileAtomically(kept, bytesOf("{}")); }, 4},
  };
  const QEVMemoryOptions keepAll =
      options(std::numeric_limits<std::int64_t>::max(), 1'000'000, 1'000'000);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    old = add(chunk("old", 100 * kDay, {}, 40));
    add(chunk("new", kDay));
    add(session("new", kDay));
    files.reads = 0;
    const QEVMemoryPruner first(root, files, qevr::defaultExecutor(),
                                QEVMemoryPruner::makeIndex(root, files, kept));
    ASSERT_EQ(first.prune(keepAll), QEVMemoryPruningSummary{});
    ASSERT_EQ(files.reads, 3);
    ASSERT_TRUE(real.exists(kept));
    c.change();

    const QEVMemoryPruner next(root, files, qevr::defaultExecutor(),
                               QEVMemoryPruner::makeIndex(root, files, kept));
    files.reads = 0;
    EXPECT_EQ(next.prune(QEVMemoryOptions()), (QEVMemoryPruningSummary{1, 0, 40}));
    EXPECT_EQ(files.reads, c.reads);
    EXPECT_FALSE(real.exists(old));
    real.removeItem(root);
  }

  const fs::path beside = QEVMemoryPruner::datesFileFor(root);
  EXPECT_EQ(beside, fs::path(root.string() + ".dates"));
  real.writeFileAtomically(beside, bytesOf("kept"));
  store.clearAll();
  EXPECT_FALSE(real.exists(beside));
}

// Requests made while a run waits join it; a request made once the run has
// begun queues the next; a failing run is dropped and the next request
// queues anew.
TEST(QEVMemoryQueuedPruneRunTest, RequestsJoinAWaitingRunButNotARunningOne) {
  qevr::ManualExecutor executor;
  QEVMemoryQueuedPruneRun queued(executor);
  int runs = 0;
  auto count = [&](std::stop_token) { ++runs; };
  for (int i = 0; i < 5; ++i)
    queued.request(count);
  EXPECT_EQ(executor.pending(), 1u);
  executor.runUntilIdle();
  EXPECT_EQ(runs, 1);

  queued.request([&](std::stop_token) {
    ++runs;
    queued.request(count);
  });
  EXPECT_EQ(executor.runUntilIdle(), 2u);
  EXPECT_EQ(runs, 3);

  queued.request([](std::stop_token) { throw std::runtime_error("disk gone"); });
  executor.runUntilIdle();
  queued.request(count);
  EXPECT_EQ(executor.runUntilIdle(), 1u);
  EXPECT_EQ(runs, 4);
}

}  // namespace
