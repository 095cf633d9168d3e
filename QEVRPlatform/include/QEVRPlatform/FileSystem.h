// Files, as the rest of QEVR sees them.
//
// Modules never open a file themselves: they go through a FileSystem, which
// they are given (or take the process default of). A FileSystemWrapper lets a
// test fake override one operation, e.g. to fail fsync or run out of space.
//
// Errors: operations throw std::system_error carrying errno and the path.
// Thread safety: the default implementation has no state and may be used from
// any thread at once.
#pragma once

#include <QEVRPlatform/Export.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qevr {

// Which file a directory entry is and which version of it: device, inode,
// size and modification time in nanoseconds, and whether it is a plain
// regular file (not a link, directory, FIFO, socket or device).
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::int64_t modifiedNanoseconds = 0;
  bool isRegularFile = false;
  bool operator==(const FileIdentity&) const = default;
};

// A child of a directory, by name, and its identity as the listing found it
// (absent if the entry could not be looked at, e.g. it went in between).
// Only the name is kept: a listing of thousands of files would otherwise
// hold a parsed path, with its parts, for every one of them.
struct DirectoryEntry {
  std::string name;
  std::optional<FileIdentity> identity;
};

// A file held under an exclusive lock for as long as this object lives.
// The lock is advisory and belongs to this one opening of the file: a second
// LockedFile on the same path is refused, in this process as in any other,
// and the lock goes when its holder does, however that process ends.
// Thread safety: one thread at a time.
class QEVR_API LockedFile {
 public:
  virtual ~LockedFile() = default;
  // The whole contents; fails with EFBIG when larger than `maxBytes`.
  virtual std::vector<std::uint8_t> read(std::uint64_t maxBytes) = 0;
  // Replaces the contents in place and flushes them with fsync. Not atomic:
  // a crash during the write may leave a part, so a reader must be able to
  // tell a complete content from a cut one.
  virtual void overwrite(std::span<const std::uint8_t> bytes) = 0;
  // Removes the file from its directory while the lock is still held, and
  // flushes the directory, so that the removal survives a power loss.
  virtual void remove() = 0;
};

// Tells which children of one directory changed since it last said, so that
// a caller holding a listing can update it instead of listing again. A
// change is any entry created, removed, renamed in or out, written or having
// its attributes changed, by this process or any other. Thread safety: one
// thread at a time.
class QEVR_API DirectoryWatch {
 public:
  virtual ~DirectoryWatch() = default;
  // The names of the children that changed since the watch began or the
  // last call, each once, in no order. Absent when the watch cannot tell
  // (its queue overflowed, or the directory itself was removed, renamed or
  // unmounted): the caller must list the directory again, and take a new
  // watch, as this one stays blind from then on. Never blocks.
  virtual std::optional<std::vector<std::string>> changes() = 0;
};

class QEVR_API FileSystem {
 public:
  virtual ~FileSystem() = default;

  // The process default (POSIX on Linux and macOS). Lives forever.
  static FileSystem& defaultFileSystem();

  // The user's application-support directory: the override if one is set,
  // else $XDG_DATA_HOME, else $HOME/.local/share (Linux), or
  // ~/Library/Application Support (macOS). Absent when none can be found.
  virtual std::optional<std::filesystem::path> applicationSupportDirectory();

  virtual bool exists(const std::filesystem::path& path);
  virtual bool isDirectory(const std::filesystem::path& path);

  // Creates the directory and any missing parents. Existing ones are fine.
  virtual void createDirectories(const std::filesystem::path& path);

  // Reads a whole regular file. Anything else (a directory, FIFO, socket or
  // device) fails at once, without blocking, with EISDIR or EINVAL. Fails
  // with EFBIG, before reading, when the file is larger than `maxBytes`.
  virtual std::vector<std::uint8_t> readFile(const std::filesystem::path& path,
                                             std::uint64_t maxBytes);

  // Replaces `path` with `bytes` in one step: the bytes go to a temporary
  // file in the same directory (never with the target's extension), are
  // flushed with fsync, and the temporary is renamed over the target; the
  // directory is then flushed too, so the rename survives a power loss. A
  // reader sees the old file or the new one, never part of either. On a
  // failure before the rename the temporary is removed and the old file
  // stays whole; a failed flush of the directory after it is reported the
  // same way, with the new file in place but not known to be durable. The
  // file is created readable and writable by its owner only (0600).
  virtual void writeFileAtomically(const std::filesystem::path& path,
                                   std::span<const std::uint8_t> bytes);

  // The direct children of a directory, hidden ones included, in no order.
  virtual std::vector<std::filesystem::path> listDirectory(const std::filesystem::path& path);

  // listDirectory with fileIdentity of each child, in one pass over the
  // open directory (no path is resolved again per child).
  virtual std::vector<DirectoryEntry> listDirectoryWithIdentities(
      const std::filesystem::path& path);

  // Every file and directory below `root`, recursively, without following
  // symbolic links. Empty when `root` does not exist.
  virtual std::vector<std::filesystem::path> walk(const std::filesystem::path& root);

  // The logical size of a file or directory entry; absent if unreadable.
  virtual std::optional<std::uint64_t> fileSize(const std::filesystem::path& path);

  // The entry at `path` as of now, with one lstat: a symbolic link is not
  // followed, and `size` is what fileSize gives. Absent if it cannot be
  // looked at. Files here are replaced whole, never changed in place, so a
  // regular file whose identity is unchanged has unchanged contents.
  virtual std::optional<FileIdentity> fileIdentity(const std::filesystem::path& path);

  // Removes the temporaries that writeFileAtomically left in `directory`
  // when its process died mid-write. Those of writes that may still be
  // running (in this process or another live one) stay. Returns how many
  // went; a missing directory has none, and nothing here throws.
  virtual std::size_t removeAbandonedTemporaries(const std::filesystem::path& directory);

  // Removes a file, or a directory with everything below it. A path that
  // does not exist is an error (ENOENT).
  virtual void removeItem(const std::filesystem::path& path);

  // Renames `from` to `to` in one step unless something is at `to` already,
  // which fails with EEXIST and leaves both as they were. On a file system
  // that cannot refuse in the same step, `to` is tested first; only another
  // process renaming to `to` at that very moment could slip in between.
  virtual void moveWithoutReplacing(const std::filesystem::path& from,
                                    const std::filesystem::path& to);

  // Opens `path` and locks it without waiting. With `create`, a missing file
  // is made (0600, its directory must exist) already locked, so that no
  // other opening can lock it first, and its directory is flushed, so that
  // a crash cannot lose the new name. Returns nullptr when another holder has
  // the lock, or, without `create`, when there is no such file; a file that
  // its holder removed while this call waited for the lock counts as absent.
  // Other failures throw.
  virtual std::unique_ptr<LockedFile> tryLockFile(const std::filesystem::path& path, bool create);

  // Starts watching the direct children of an existing directory. Changes
  // made from the moment this returns are reported; take the watch before
  // the listing it is to keep up to date. Returns nullptr where the system
  // offers no such notice (only Linux and Android do here) or it is out of
  // watches: the caller then lists each time.
  virtual std::unique_ptr<DirectoryWatch> watchDirectory(const std::filesystem::path& directory);
};

// Forwards every call to another FileSystem; override what you need.
class QEVR_API FileSystemWrapper : public FileSystem {
 public:
  explicit FileSystemWrapper(FileSystem& target) : base(target) {}

  std::optional<std::filesystem::path> applicationSupportDirectory() override {
    return base.applicationSupportDirectory();
  }
  bool exists(const std::filesystem::path& p) override { return base.exists(p); }
  bool isDirectory(const std::filesystem::path& p) override { return base.isDirectory(p); }
  void createDirectories(const std::filesystem::path& p) override { base.createDirectories(p); }
  std::vector<std::uint8_t> readFile(const std::filesystem::path& p,
                                     std::uint64_t maxBytes) override {
    return base.readFile(p, maxBytes);
  }
  void writeFileAtomically(const std::filesystem::path& p,
                           std::span<const std::uint8_t> bytes) override {
    base.writeFileAtomically(p, bytes);
  }
  std::vector<std::filesystem::path> listDirectory(const std::filesystem::path& p) override {
    return base.listDirectory(p);
  }
  std::vector<DirectoryEntry> listDirectoryWithIdentities(const std::filesystem::path& p) override {
    return base.listDirectoryWithIdentities(p);
  }
  std::vector<std::filesystem::path> walk(const std::filesystem::path& p) override {
    return base.walk(p);
  }
  std::optional<std::uint64_t> fileSize(const std::filesystem::path& p) override {
    return base.fileSize(p);
  }
  std::optional<FileIdentity> fileIdentity(const std::filesystem::path& p) override {
    return base.fileIdentity(p);
  }
  std::size_t removeAbandonedTemporaries(const std::filesystem::path& directory) override {
    return base.removeAbandonedTemporaries(directory);
  }
  void removeItem(const std::filesystem::path& p) override { base.removeItem(p); }
  void moveWithoutReplacing(const std::filesystem::path& from,
                            const std::filesystem::path& to) override {
    base.moveWithoutReplacing(from, to);
  }
  std::unique_ptr<LockedFile> tryLockFile(const std::filesystem::path& p, bool create) override {
    return base.tryLockFile(p, create);
  }
  std::unique_ptr<DirectoryWatch> watchDirectory(const std::filesystem::path& p) override {
    return base.watchDirectory(p);
  }

 protected:
  FileSystem& target() { return base; }

 private:
  FileSystem& base;
};

// Process-wide override of the application-support directory, for tools and
// tests; absent restores the platform's answer. Thread-safe.
QEVR_API void setApplicationSupportDirectoryOverride(std::optional<std::filesystem::path> dir);
QEVR_API std::optional<std::filesystem::path> applicationSupportDirectoryOverride();

}  // namespace qevr

namespace qevr {

// Hands memory that the allocator holds free back to the system, where the
// platform allows it. Long background passes that allocate and free a lot
// (a pruning run decodes a whole store) call it when they end, so resident
// memory follows what is in use rather than the highest burst.
QEVR_API void releaseFreeMemory();

}  // namespace qevr
