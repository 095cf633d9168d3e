// The POSIX file system behind FileSystem::defaultFileSystem().
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace qevr {
namespace {

[[noreturn]] void throwErrno(int error, const std::string& what, const fs::path& path) {
  throw std::system_error(error, std::generic_category(), what + " " + path.string());
}

struct OverrideSlot {
  Mutex lock;
  std::optional<fs::path> directory QEVR_GUARDED_BY(lock);
};

OverrideSlot& overrideSlot() {
  static OverrideSlot slot;
  return slot;
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) : fd(descriptor) {}
  ~FileDescriptor() {
    if (fd >= 0) ::close(fd);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd; }
  FileDescriptor(FileDescriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      if (fd >= 0) ::close(fd);
      fd = std::exchange(other.fd, -1);
    }
    return *this;
  }
  int release() { return std::exchange(fd, -1); }
  // Closes now and reports the error close(2) gives, which for some file
  // systems is where a failed write first shows.
  int close() {
    int result = ::close(fd);
    fd = -1;
    return result;
  }

 private:
  int fd;
};

// A name no loader will pick up: dot-prefixed and ending in ".tmp".
fs::path temporarySibling(const fs::path& target) {
  static std::atomic<std::uint64_t> counter{0};
  thread_local std::mt19937_64 random{std::random_device{}()};
  std::string name(".");
  name.append(target.filename().string());
  for (std::uint64_t part :
       {static_cast<std::uint64_t>(::getpid()), counter.fetch_add(1, std::memory_order_relaxed),
        static_cast<std::uint64_t>(random() & 0xFFFFFF)}) {
    name.push_back('.');
    name.append(std::to_string(part));
  }
  name.append(".tmp");
  return target.parent_path() / name;
}

void writeAll(int fd, std::span<const std::uint8_t> bytes, const fs::path& path) {
  const std::uint8_t* data = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    ssize_t written = ::write(fd, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      throwErrno(errno, "write", path);
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
}

// Makes a rename in `dir` durable. Until this succeeds, a power loss may
// bring back the old file, so a failure is the writer's failure too. A file
// system that cannot sync a directory at all (EINVAL) gives no such promise
// to break, and is not an error.
void syncDirectory(const fs::path& dir) {
  const fs::path opened = dir.empty() ? fs::path(".") : dir;
  FileDescriptor fd(::open(opened.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0) throwErrno(errno, "open directory", opened);
  if (::fsync(fd.get()) != 0 && errno != EINVAL) throwErrno(errno, "fsync directory", opened);
}

}  // namespace

FileSystem& FileSystem::defaultFileSystem() {
  static FileSystem* instance = new FileSystem;
  return *instance;
}

void setApplicationSupportDirectoryOverride(std::optional<fs::path> dir) {
  OverrideSlot& slot = overrideSlot();
  MutexLock guard(slot.lock);
  slot.directory = std::move(dir);
}

std::optional<fs::path> applicationSupportDirectoryOverride() {
  OverrideSlot& slot = overrideSlot();
  MutexLock guard(slot.lock);
  return slot.directory;
}

std::optional<fs::path> FileSystem::applicationSupportDirectory() {
  if (auto dir = applicationSupportDirectoryOverride()) return dir;
#if defined(__APPLE__)
  if (const char* home = std::getenv("HOME"); home && *home) {
    return fs::path(home) / "Library" / "Application Support";
  }
#else
  if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data == '/') return fs::path(data);
  if (const char* home = std::getenv("HOME"); home && *home) {
    return fs::path(home) / ".local" / "share";
  }
#endif
  return std::nullopt;
}

bool FileSystem::exists(const fs::path& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

bool FileSystem::isDirectory(const fs::path& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void FileSystem::createDirectories(const fs::path& path) {
  std::error_code error;
  fs::create_directories(path, error);
  if (error) throw std::system_error(error, "create directories " + path.string());
}

std::vector<std::uint8_t> FileSystem::readFile(const fs::path& path, std::uint64_t maxBytes) {
  // Opening a FIFO waits for a writer and opening a device may do anything,
  // so the type is checked before the open. The open does not block either,
  // in case the path is swapped for a FIFO in between; the second check then
  // refuses it.
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) throwErrno(errno, "stat", path);
  if (!S_ISREG(st.st_mode)) throwErrno(S_ISDIR(st.st_mode) ? EISDIR : EINVAL, "read", path);
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (fd.get() < 0) throwErrno(errno, "open", path);
  if (::fstat(fd.get(), &st) != 0) throwErrno(errno, "stat", path);
  if (!S_ISREG(st.st_mode)) throwErrno(S_ISDIR(st.st_mode) ? EISDIR : EINVAL, "read", path);
  if (static_cast<std::uint64_t>(st.st_size) > maxBytes) throwErrno(EFBIG, "read", path);
  std::vector<std::uint8_t> bytes(static_cast<size_t>(st.st_size));
  size_t filled = 0;
  while (filled < bytes.size()) {
    ssize_t got = ::read(fd.get(), bytes.data() + filled, bytes.size() - filled);
    if (got < 0) {
      if (errno == EINTR) continue;
      throwErrno(errno, "read", path);
    }
    if (got == 0) break;  // Shrunk under us: return what is there.
    filled += static_cast<size_t>(got);
  }
  bytes.resize(filled);
  return bytes;
}

void FileSystem::writeFileAtomically(const fs::path& path, std::span<const std::uint8_t> bytes) {
  const fs::path temporary = temporarySibling(path);
  FileDescriptor fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (fd.get() < 0) throwErrno(errno, "create", temporary);
  try {
    writeAll(fd.get(), bytes, temporary);
    if (::fsync(fd.get()) != 0) throwErrno(errno, "fsync", temporary);
    if (fd.close() != 0) throwErrno(errno, "close", temporary);
    if (::rename(temporary.c_str(), path.c_str()) != 0) throwErrno(errno, "rename", path);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  syncDirectory(path.parent_path());
}

std::vector<fs::path> FileSystem::listDirectory(const fs::path& path) {
  std::error_code error;
  std::vector<fs::path> children;
  for (fs::directory_iterator it(path, error), end; !error && it != end; it.increment(error)) {
    children.push_back(it->path());
  }
  if (error) throw std::system_error(error, "list " + path.string());
  return children;
}

std::vector<fs::path> FileSystem::walk(const fs::path& root) {
  std::vector<fs::path> items;
  std::error_code error;
  fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, error);
  for (fs::recursive_directory_iterator end; !error && it != end; it.increment(error)) {
    items.push_back(it->path());
  }
  // An unreadable subtree ends the walk with what was found, like an
  // enumerator without an error handler.
  return items;
}

std::optional<std::uint64_t> FileSystem::fileSize(const fs::path& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(st.st_size);
}

namespace {

FileIdentity identityOf(const struct stat& st) {
#if defined(__APPLE__)
  const struct timespec& modified = st.st_mtimespec;
#else
  const struct timespec& modified = st.st_mtim;
#endif
  return FileIdentity{static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino),
                      static_cast<std::uint64_t>(st.st_size),
                      static_cast<std::int64_t>(modified.tv_sec) * 1'000'000'000 +
                          static_cast<std::int64_t>(modified.tv_nsec),
                      S_ISREG(st.st_mode)};
}

}  // namespace

std::optional<FileIdentity> FileSystem::fileIdentity(const fs::path& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
  return identityOf(st);
}

std::vector<DirectoryEntry> FileSystem::listDirectoryWithIdentities(const fs::path& path) {
  DIR* directory = ::opendir(path.c_str());
  if (directory == nullptr) throwErrno(errno, "list", path);
  std::vector<DirectoryEntry> entries;
  try {
    for (;;) {
      errno = 0;
      const dirent* entry = ::readdir(directory);
      if (entry == nullptr) {
        if (errno != 0) throwErrno(errno, "list", path);
        break;
      }
      const std::string_view name(entry->d_name);
      if (name == "." || name == "..") continue;
      struct stat st {};
      std::optional<FileIdentity> identity;
      if (::fstatat(::dirfd(directory), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
        identity = identityOf(st);
      }
      entries.push_back({std::string(name), identity});
    }
  } catch (...) {
    ::closedir(directory);
    throw;
  }
  ::closedir(directory);
  return entries;
}

namespace {

// The writer's process id, when `name` has the form that temporarySibling
// gives: "." + target + "." + pid + "." + counter + "." + random + ".tmp".
std::optional<pid_t> temporaryWriter(std::string_view name) {
  constexpr std::string_view suffix = ".tmp";
  if (name.size() <= suffix.size() + 1 || name.front() != '.' || !name.ends_with(suffix)) {
    return std::nullopt;
  }
  name.remove_suffix(suffix.size());
  std::uint64_t number = 0;
  for (int field = 0; field < 3; ++field) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return std::nullopt;
    const std::string_view digits = name.substr(dot + 1);
    if (digits.empty() || digits.size() > 19) return std::nullopt;
    number = 0;
    for (char c : digits) {
      if (c < '0' || c > '9') return std::nullopt;
      number = number * 10 + static_cast<std::uint64_t>(c - '0');
    }
    name = name.substr(0, dot);
  }
  if (number == 0 || number > static_cast<std::uint64_t>(std::numeric_limits<pid_t>::max())) {
    return std::nullopt;
  }
  return static_cast<pid_t>(number);
}

bool processIsRunning(pid_t pid) {
  return ::kill(pid, 0) == 0 || errno == EPERM;
}

// No write takes this long; a temporary this old whose writer seems alive
// has a writer whose id was reused after a crash.
constexpr time_t kAbandonedAfterSeconds = 3600;

}  // namespace

std::size_t FileSystem::removeAbandonedTemporaries(const fs::path& directory) {
  // Only the temporaries' names are kept: a store's directory holds
  // thousands of files, and a path for each would cost megabytes at start.
  std::vector<std::pair<fs::path, pid_t>> temporaries;
  DIR* listing = ::opendir(directory.c_str());
  if (listing == nullptr) return 0;
  try {
    while (const dirent* entry = ::readdir(listing)) {
      if (const std::optional<pid_t> writer = temporaryWriter(entry->d_name)) {
        temporaries.emplace_back(directory / entry->d_name, *writer);
      }
    }
  } catch (...) {
    ::closedir(listing);
    return 0;
  }
  ::closedir(listing);
  const time_t now = ::time(nullptr);
  std::size_t removed = 0;
  for (const auto& [child, writer] : temporaries) {
    struct stat st {};
    if (::lstat(child.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    const bool stale = now - st.st_mtime > kAbandonedAfterSeconds;
    const bool live = writer == ::getpid() || processIsRunning(writer);
    if (live && !stale) continue;
    if (::unlink(child.c_str()) == 0) ++removed;
  }
  return removed;
}

namespace {

class PosixLockedFile final : public LockedFile {
 public:
  PosixLockedFile(fs::path lockedPath, int descriptor)
      : path(std::move(lockedPath)), fd(descriptor) {}

  std::vector<std::uint8_t> read(std::uint64_t maxBytes) override {
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) throwErrno(errno, "stat", path);
    if (static_cast<std::uint64_t>(st.st_size) > maxBytes) throwErrno(EFBIG, "read", path);
    std::vector<std::uint8_t> bytes(static_cast<size_t>(st.st_size));
    size_t filled = 0;
    while (filled < bytes.size()) {
      const ssize_t got = ::pread(fd.get(), bytes.data() + filled, bytes.size() - filled,
                                  static_cast<off_t>(filled));
      if (got < 0) {
        if (errno == EINTR) continue;
        throwErrno(errno, "read", path);
      }
      if (got == 0) break;
      filled += static_cast<size_t>(got);
    }
    bytes.resize(filled);
    return bytes;
  }

  void overwrite(std::span<const std::uint8_t> bytes) override {
    if (::ftruncate(fd.get(), 0) != 0) throwErrno(errno, "truncate", path);
    if (::lseek(fd.get(), 0, SEEK_SET) < 0) throwErrno(errno, "seek", path);
    writeAll(fd.get(), bytes, path);
    if (::fsync(fd.get()) != 0) throwErrno(errno, "fsync", path);
  }

  void remove() override {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) throwErrno(errno, "remove", path);
    syncDirectory(path.parent_path());
  }

 private:
  const fs::path path;
  FileDescriptor fd;  // closing it releases the lock
};

}  // namespace

namespace {

// Locks `fd` without waiting: false when another opening holds it.
bool lockNow(int fd, const fs::path& path) {
  // flock, not fcntl: its lock belongs to the open file, so two openings in
  // one process exclude each other as two processes do.
  if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
  if (errno == EWOULDBLOCK) return false;
  throwErrno(errno, "lock", path);
}

}  // namespace

std::unique_ptr<LockedFile> FileSystem::tryLockFile(const fs::path& path, bool create) {
  if (create) {
    // A new file appears under its name already locked: made and locked
    // under a temporary name, then linked into place. Nobody can lock it
    // between its creation and ours.
    const fs::path temporary = temporarySibling(path);
    FileDescriptor fd(
        ::open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (fd.get() < 0) throwErrno(errno, "create", temporary);
    const bool linked =
        lockNow(fd.get(), temporary) && ::link(temporary.c_str(), path.c_str()) == 0;
    const int linkError = errno;
    ::unlink(temporary.c_str());
    if (linked) {
      syncDirectory(path.parent_path());
      return std::make_unique<PosixLockedFile>(path, fd.release());
    }
    if (linkError != EEXIST) throwErrno(linkError, "create", path);
    // The name is taken: lock that file, as without `create`.
  }
  FileDescriptor fd(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (fd.get() < 0) {
    if (errno == ENOENT) return nullptr;
    throwErrno(errno, "open", path);
  }
  if (!lockNow(fd.get(), path)) return nullptr;
  // The holder before us may have removed the file just before letting go;
  // then this lock is on a name nobody can find any more.
  struct stat opened {
  }, named{};
  if (::fstat(fd.get(), &opened) != 0) throwErrno(errno, "stat", path);
  if (!S_ISREG(opened.st_mode)) throwErrno(EINVAL, "lock", path);
  if (::stat(path.c_str(), &named) != 0 || named.st_ino != opened.st_ino ||
      named.st_dev != opened.st_dev) {
    return nullptr;
  }
  return std::make_unique<PosixLockedFile>(path, fd.release());
}

void FileSystem::removeItem(const fs::path& path) {
  if (!exists(path)) throwErrno(ENOENT, "remove", path);
  std::error_code error;
  fs::remove_all(path, error);
  if (error) throw std::system_error(error, "remove " + path.string());
}

void FileSystem::moveWithoutReplacing(const fs::path& from, const fs::path& to) {
#if defined(__APPLE__)
  const int result = ::renamex_np(from.c_str(), to.c_str(), RENAME_EXCL);
#else
  int result = ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
  if (result != 0 && (errno == EINVAL || errno == ENOSYS)) {
    // The file system has no such flag: test, then rename.
    struct stat st {};
    if (::lstat(to.c_str(), &st) == 0) {
      errno = EEXIST;
    } else {
      result = ::rename(from.c_str(), to.c_str());
    }
  }
#endif
  if (result != 0) throwErrno(errno, "rename", from);
}

}  // namespace qevr

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace qevr {

void releaseFreeMemory() {
#if defined(__GLIBC__)
  ::malloc_trim(0);
#endif
}

}  // namespace qevr
