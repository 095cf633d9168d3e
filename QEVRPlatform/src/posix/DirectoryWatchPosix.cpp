// Directory watches: inotify on Linux and Android; none elsewhere, where
// callers list directories each time instead.
#include <QEVRPlatform/FileSystem.h>

#if defined(__linux__)
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#endif

namespace qevr {

#if defined(__linux__)

namespace {

// One inotify instance watching one directory.
class InotifyWatch final : public DirectoryWatch {
 public:
  explicit InotifyWatch(int descriptor) : fd(descriptor) {}
  ~InotifyWatch() override { ::close(fd); }
  InotifyWatch(const InotifyWatch&) = delete;
  InotifyWatch& operator=(const InotifyWatch&) = delete;

  std::optional<std::vector<std::string>> changes() override {
    std::vector<std::string> names;
    // Room for many events per read; the kernel never splits one.
    alignas(inotify_event) char buffer[16384];
    while (!blind) {
      const ssize_t got = ::read(fd, buffer, sizeof buffer);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      if (got <= 0) {
        blind = true;
        break;
      }
      for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= got;) {
        inotify_event event;
        std::memcpy(&event, buffer + at, sizeof event);
        const char* name = buffer + at + sizeof(inotify_event);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
        if (at > got || (event.mask & kBlinding) != 0) {
          blind = true;
          break;
        }
        if (event.len > 0) names.emplace_back(name, ::strnlen(name, event.len));
      }
      // A queue the system lets grow past its default would otherwise make
      // this list grow with it; listing again costs less by then.
      if (names.size() > kMaxNames) blind = true;
    }
    if (blind) return std::nullopt;
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
  }

 private:
  static constexpr std::uint32_t kBlinding =
      IN_Q_OVERFLOW | IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;
  static constexpr std::size_t kMaxNames = 65'536;

  const int fd;
  bool blind = false;
};

}  // namespace

std::unique_ptr<DirectoryWatch> FileSystem::watchDirectory(const std::filesystem::path& directory) {
  const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) return nullptr;
  const std::uint32_t events = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                               IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF |
                               IN_ONLYDIR | IN_DONT_FOLLOW;
  if (::inotify_add_watch(fd, directory.c_str(), events) < 0) {
    ::close(fd);
    return nullptr;
  }
  return std::make_unique<InotifyWatch>(fd);
}

#else

std::unique_ptr<DirectoryWatch> FileSystem::watchDirectory(const std::filesystem::path&) {
  return nullptr;
}

#endif

}  // namespace qevr
