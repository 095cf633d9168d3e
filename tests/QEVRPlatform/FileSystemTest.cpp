#include <QEVRPlatform/FileSystem.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <system_error>
#include <thread>

namespace fs = std::filesystem;

namespace {

std::vector<std::uint8_t> bytesOf(std::string_view s) {
  return {s.begin(), s.end()};
}

class FileSystemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qevr-fs-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root = pattern;
  }
  void TearDown() override { fs::remove_all(root); }

  int errnoOf(const std::function<void()>& f) {
    try {
      f();
    } catch (const std::system_error& e) {
      return e.code().value();
    }
    return 0;
  }

  qevr::FileSystem& files = qevr::FileSystem::defaultFileSystem();
  fs::path root;
};

// A write replaces the file whole, for the owner alone whatever mode the
// replaced file had and whatever the umask allows, and leaves no temporary.
// A directory in the way of the rename makes a write fail after its
// temporary was written: the old file stays, and no temporary either.
TEST_F(FileSystemTest, AtomicWriteReplacesWholeForTheOwnerAloneOrKeepsTheOldFile) {
  const fs::path target = root / "a" / "b.json";
  files.createDirectories(target.parent_path());
  files.writeFileAtomically(target, bytesOf("first"));
  fs::permissions(target, fs::perms::all);
  files.writeFileAtomically(target, bytesOf("second, longer"));
  EXPECT_EQ(files.readFile(target, 1024), bytesOf("second, longer"));
  EXPECT_EQ(fs::status(target).permissions(), fs::perms::owner_read | fs::perms::owner_write);

  const fs::path blocked = target.parent_path() / "dir.json";
  files.createDirectories(blocked / "child");
  EXPECT_NE(errnoOf([&] { files.writeFileAtomically(blocked, bytesOf("new")); }), 0);
  EXPECT_EQ(files.readFile(target, 1024), bytesOf("second, longer"));
  EXPECT_THAT(files.listDirectory(target.parent_path()),
              ::testing::UnorderedElementsAre(target, blocked));
}

TEST_F(FileSystemTest, ConcurrentReadersSeeOldOrNewNeverPart) {
  const fs::path target = root / "graph.json";
  const auto small = bytesOf(std::string(10, 'a'));
  const auto large = bytesOf(std::string(100000, 'b'));
  files.writeFileAtomically(target, small);
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 50; ++i)
      files.writeFileAtomically(target, i % 2 ? small : large);
    done = true;
  });
  while (!done) {
    auto got = files.readFile(target, 1 << 20);
    EXPECT_TRUE(got == small || got == large) << got.size();
  }
  writer.join();
}

// A FIFO would wait for a writer at open and /dev/zero never ends: what is
// not a regular file is refused before a byte is read, and the call returns
// at once (a blocking read hangs the test).
TEST_F(FileSystemTest, ReadRefusesFilesOverTheLimitMissingOnesAndAllButRegularFiles) {
  files.writeFileAtomically(root / "plain", bytesOf("ok"));
  const auto nothing = [](const fs::path&) {};
  const struct {
    const char* name;
    std::function<void(const fs::path&)> make;
    int error;
    std::size_t limit = 1 << 20;
  } cases[] = {
      {"plain", nothing, EFBIG, 1},
      {"missing", nothing, ENOENT},
      {"fifo.json", [](const fs::path& p) { ASSERT_EQ(::mkfifo(p.c_str(), 0600), 0); }, EINVAL},
      {"socket.json",
       [](const fs::path& p) {
         const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
         ASSERT_GE(fd, 0);
         sockaddr_un address{};
         address.sun_family = AF_UNIX;
         ASSERT_LT(p.native().size(), sizeof address.sun_path);
         std::copy(p.native().begin(), p.native().end(), address.sun_path);
         EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
         ::close(fd);
       },
       EINVAL},
      {"device.json", [](const fs::path& p) { fs::create_symlink("/dev/zero", p); }, EINVAL},
      {"dir.json", [](const fs::path& p) { fs::create_directory(p); }, EISDIR},
      {"link.json", [&](const fs::path& p) { fs::create_symlink(root / "plain", p); }, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.make(root / c.name);
    EXPECT_EQ(errnoOf([&] { files.readFile(root / c.name, c.limit); }), c.error);
  }
  EXPECT_EQ(files.readFile(root / "link.json", 2), bytesOf("ok"));
}

TEST_F(FileSystemTest, IdentityFollowsReplacementNotThePath) {
  const fs::path file = root / "a.json";
  EXPECT_FALSE(files.fileIdentity(file).has_value());
  files.writeFileAtomically(file, bytesOf("same"));
  const std::optional<qevr::FileIdentity> first = files.fileIdentity(file);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->size, 4u);
  EXPECT_TRUE(first->isRegularFile);
  EXPECT_EQ(files.fileIdentity(file), first);
  // A link is an entry of its own, and not a plain file.
  fs::create_symlink(file, root / "link.json");
  const std::optional<qevr::FileIdentity> link = files.fileIdentity(root / "link.json");
  ASSERT_TRUE(link.has_value());
  EXPECT_FALSE(link->isRegularFile);
  EXPECT_EQ(link->size, files.fileSize(root / "link.json"));
  EXPECT_NE(link->inode, first->inode);
  // A listing gives every child with the identity fileIdentity gives.
  std::map<std::string, std::optional<qevr::FileIdentity>> listed;
  for (const qevr::DirectoryEntry& entry : files.listDirectoryWithIdentities(root))
    listed[entry.name] = entry.identity;
  EXPECT_EQ(listed, (decltype(listed){{"a.json", first}, {"link.json", link}}));
  EXPECT_EQ(errnoOf([&] { files.listDirectoryWithIdentities(root / "missing"); }), ENOENT);
  // Replaced with the very same bytes: a new file all the same.
  files.writeFileAtomically(file, bytesOf("same"));
  EXPECT_NE(files.fileIdentity(file), first);
}

// The writer's temporaries are "." + target + ".<pid>.<counter>.<random>.tmp".
TEST_F(FileSystemTest, AbandonedTemporariesGoAndLiveWritesKeepTheirs) {
  const pid_t dead = ::fork();
  ASSERT_GE(dead, 0);
  if (dead == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(dead, nullptr, 0), dead);
  const std::string gone = std::to_string(dead), ours = std::to_string(::getpid());
  const auto hoursAgo = fs::file_time_type::clock::now() - std::chrono::hours(2);

  const struct {
    std::string name;
    bool removed;
    bool old = false;
    bool directory = false;
  } cases[] = {
      {".A.json." + gone + ".0.77.tmp", true},
      {".graph.json." + gone + ".12.3.tmp", true},
      {".B.json." + ours + ".0.77.tmp", false},  // a write of ours in progress
      {".C.json.1.0.77.tmp", false},             // pid 1 runs
      {".D.json.1.0.77.tmp", true, true},        // no write takes two hours
      {".E.json." + ours + ".0.77.tmp", true, true},
      {"F.json", false, true},
      {".G.json.tmp", false, true},
      {".H.json." + gone + ".x.77.tmp", false, true},
      {"I.json." + gone + ".0.77.tmp", false, true},
      {".J.json." + gone + ".0.77.tmp", false, true, true},
  };
  std::size_t expected = 0;
  for (const auto& c : cases) {
    const fs::path path = root / c.name;
    if (c.directory) {
      files.createDirectories(path);
    } else {
      std::ofstream(path) << "{";
    }
    if (c.old) fs::last_write_time(path, hoursAgo);
    expected += c.removed ? 1 : 0;
  }
  EXPECT_EQ(files.removeAbandonedTemporaries(root), expected);
  for (const auto& c : cases)
    EXPECT_EQ(files.exists(root / c.name), !c.removed) << c.name;
  EXPECT_EQ(files.removeAbandonedTemporaries(root), 0u);
  EXPECT_EQ(files.removeAbandonedTemporaries(root / "missing"), 0u);
}

TEST_F(FileSystemTest, WalkListsEverythingBelowAndRemoveItemTakesTheTree) {
  files.createDirectories(root / "events");
  files.writeFileAtomically(root / "events" / ".hidden", bytesOf("xy"));
  files.writeFileAtomically(root / "events" / "a.json", bytesOf("abc"));
  auto items = files.walk(root);
  std::sort(items.begin(), items.end());
  EXPECT_THAT(items, ::testing::ElementsAre(root / "events", root / "events" / ".hidden",
                                            root / "events" / "a.json"));
  EXPECT_EQ(files.fileSize(root / "events" / "a.json"), 3u);
  EXPECT_FALSE(files.fileSize(root / "nothing").has_value());
  EXPECT_TRUE(files.walk(root / "nothing").empty());
  EXPECT_EQ(files.listDirectory(root / "events").size(), 2u);
  files.removeItem(root / "events");
  EXPECT_FALSE(files.exists(root / "events"));
  EXPECT_EQ(errnoOf([&] { files.removeItem(root / "events"); }), ENOENT);
}

TEST_F(FileSystemTest, MoveWithoutReplacingRefusesAnyTakenName) {
  files.writeFileAtomically(root / "a", bytesOf("a"));
  files.writeFileAtomically(root / "b", bytesOf("b"));
  fs::create_symlink(root / "nowhere", root / "dangling");
  for (const char* taken : {"b", "dangling"}) {
    EXPECT_EQ(errnoOf([&] { files.moveWithoutReplacing(root / "a", root / taken); }), EEXIST)
        << taken;
  }
  EXPECT_EQ(files.readFile(root / "b", 8), bytesOf("b"));
  files.moveWithoutReplacing(root / "a", root / "c");
  EXPECT_FALSE(files.exists(root / "a"));
  EXPECT_EQ(files.readFile(root / "c", 8), bytesOf("a"));
  EXPECT_EQ(errnoOf([&] { files.moveWithoutReplacing(root / "a", root / "d"); }), ENOENT);
}

TEST_F(FileSystemTest, ALockedFileExcludesEveryOtherOpeningUntilItsHolderGoes) {
  const fs::path marker = root / "m.lock";
  EXPECT_EQ(files.tryLockFile(marker, /*create=*/false), nullptr);  // absent
  auto holder = files.tryLockFile(marker, /*create=*/true);
  ASSERT_NE(holder, nullptr);
  // A second opening in the same process is refused as another process is.
  EXPECT_EQ(files.tryLockFile(marker, false), nullptr);
  EXPECT_EQ(files.tryLockFile(marker, true), nullptr);
  holder->overwrite(bytesOf("a longer first content"));
  holder->overwrite(bytesOf("short"));
  EXPECT_EQ(holder->read(1024), bytesOf("short"));
  EXPECT_EQ(errnoOf([&] { holder->read(4); }), EFBIG);
  holder.reset();  // the holder goes: its lock with it, the file stays
  auto next = files.tryLockFile(marker, false);
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(next->read(1024), bytesOf("short"));
  next->remove();
  EXPECT_FALSE(files.exists(marker));
  next.reset();
  EXPECT_EQ(files.tryLockFile(marker, false), nullptr);
  EXPECT_NE(errnoOf([&] { files.tryLockFile(root / "no" / "such.lock", true); }), 0);
}

}  // namespace
