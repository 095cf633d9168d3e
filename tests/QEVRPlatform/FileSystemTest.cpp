#include <QEVRPlatform/FileSystem.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
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

TEST_F(FileSystemTest, AtomicWriteReplacesWholeAndLeavesNoTemporary) {
  const fs::path target = root / "a" / "b.json";
  files.createDirectories(target.parent_path());
  files.writeFileAtomically(target, bytesOf("first"));
  files.writeFileAtomically(target, bytesOf("second, longer"));
  EXPECT_EQ(files.readFile(target, 1024), bytesOf("second, longer"));
  EXPECT_THAT(files.listDirectory(target.parent_path()), ::testing::ElementsAre(target));
}

TEST_F(FileSystemTest, AtomicWriteLeavesTheFileToItsOwnerAlone) {
  const fs::path target = root / "user.json";
  // Whatever mode the replaced file had, and whatever the umask allows.
  std::ofstream(target) << "old";
  fs::permissions(target, fs::perms::all);
  files.writeFileAtomically(target, bytesOf("new"));
  EXPECT_EQ(fs::status(target).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(files.readFile(target, 1024), bytesOf("new"));
}

TEST_F(FileSystemTest, FailedWriteKeepsTheOldFile) {
  const fs::path target = root / "keep.json";
  files.writeFileAtomically(target, bytesOf("old"));
  // A directory in the way of the rename makes the write fail after the
  // temporary was written.
  const fs::path blocked = root / "dir.json";
  files.createDirectories(blocked / "child");
  EXPECT_NE(errnoOf([&] { files.writeFileAtomically(blocked, bytesOf("new")); }), 0);
  EXPECT_EQ(files.readFile(target, 1024), bytesOf("old"));
  // No temporary left behind next to either target.
  for (const auto& p : files.listDirectory(root)) {
    EXPECT_EQ(p.extension() == ".tmp", false) << p;
  }
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

TEST_F(FileSystemTest, ReadRefusesFilesOverTheLimitAndMissingOnes) {
  files.writeFileAtomically(root / "big", bytesOf("0123456789"));
  EXPECT_EQ(errnoOf([&] { files.readFile(root / "big", 9); }), EFBIG);
  EXPECT_EQ(files.readFile(root / "big", 10).size(), 10u);
  EXPECT_EQ(errnoOf([&] { files.readFile(root / "missing", 10); }), ENOENT);
  EXPECT_EQ(errnoOf([&] { files.readFile(root, 10); }), EISDIR);
}

TEST_F(FileSystemTest, WalkListsEverythingBelowAndSizesAreLogical) {
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
}

TEST_F(FileSystemTest, RemoveItemTakesTreesAndReportsMissing) {
  files.createDirectories(root / "x" / "y");
  files.writeFileAtomically(root / "x" / "y" / "f", bytesOf("1"));
  files.removeItem(root / "x");
  EXPECT_FALSE(files.exists(root / "x"));
  EXPECT_EQ(errnoOf([&] { files.removeItem(root / "x"); }), ENOENT);
}

TEST_F(FileSystemTest, ApplicationSupportOverrideWinsAndCanBeCleared) {
  const auto before = files.applicationSupportDirectory();
  qevr::setApplicationSupportDirectoryOverride(root);
  EXPECT_EQ(files.applicationSupportDirectory(), root);
  qevr::setApplicationSupportDirectoryOverride(std::nullopt);
  EXPECT_EQ(files.applicationSupportDirectory(), before);
}

// A wrapper overrides one operation; the rest passes through.
class FailingWrites : public qevr::FileSystemWrapper {
 public:
  using FileSystemWrapper::FileSystemWrapper;
  void writeFileAtomically(const fs::path& path, std::span<const std::uint8_t>) override {
    throw std::system_error(ENOSPC, std::generic_category(), "write " + path.string());
  }
};

TEST_F(FileSystemTest, WrapperOverridesOneOperation) {
  FailingWrites failing(files);
  EXPECT_EQ(errnoOf([&] { failing.writeFileAtomically(root / "f", bytesOf("x")); }), ENOSPC);
  failing.createDirectories(root / "made");
  EXPECT_TRUE(failing.isDirectory(root / "made"));
}

}  // namespace
