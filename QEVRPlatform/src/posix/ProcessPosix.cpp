#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Process.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

extern char** environ;

namespace qevr {

namespace {

// Owns a file descriptor.
struct Descriptor {
  int fd = -1;
  ~Descriptor() { reset(); }
  void reset() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
};

ProcessResult failed(std::string why) {
  ProcessResult result;
  result.failure = std::move(why);
  return result;
}

// The file that running `program` would execute: itself when it names a
// path, else the first executable of that name on PATH; empty when there is
// none. Looked up here rather than left to posix_spawnp because not every
// spawn reports a failed exec as an error (user-mode emulators and some C
// libraries only show it as the child's exit status 127).
bool isExecutableFile(const std::string& file) {
  struct stat info {};
  return ::stat(file.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         ::access(file.c_str(), X_OK) == 0;
}

std::string executableFor(const std::string& program) {
  if (program.find('/') != std::string::npos) {
    return isExecutableFile(program) ? program : std::string();
  }
  const char* path = std::getenv("PATH");
  std::string_view rest = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
  while (true) {
    const std::size_t colon = rest.find(':');
    const std::string_view directory = rest.substr(0, colon);
    std::string candidate =
        (directory.empty() ? std::string(".") : std::string(directory)) + "/" + program;
    if (isExecutableFile(candidate)) return candidate;
    if (colon == std::string_view::npos) return {};
    rest.remove_prefix(colon + 1);
  }
}

}  // namespace

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                         std::string_view input, const ProcessLimits& limits) {
  // A program that exits before reading all its input must not kill us.
  ::signal(SIGPIPE, SIG_IGN);

  int in[2], out[2];
  if (::pipe2(in, O_CLOEXEC) != 0) return failed(std::string("pipe: ") + std::strerror(errno));
  Descriptor inRead{in[0]}, inWrite{in[1]};
  if (::pipe2(out, O_CLOEXEC) != 0) return failed(std::string("pipe: ") + std::strerror(errno));
  Descriptor outRead{out[0]}, outWrite{out[1]};

  std::vector<std::string> words{program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, inRead.fd, 0);
  posix_spawn_file_actions_adddup2(&actions, outWrite.fd, 1);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const std::string executable = executableFor(program);
  const int spawned = executable.empty() ? ENOENT
                                         : ::posix_spawn(&pid, executable.c_str(), &actions,
                                                         nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    return failed(spawned == ENOENT ? program + " is not installed"
                                    : "cannot run " + program + ": " + std::strerror(spawned));
  }
  inRead.reset();
  outWrite.reset();
  ::fcntl(inWrite.fd, F_SETFL, ::fcntl(inWrite.fd, F_GETFL) | O_NONBLOCK);
  ::fcntl(outRead.fd, F_SETFL, ::fcntl(outRead.fd, F_GETFL) | O_NONBLOCK);

  // Write and read at once: the program may start writing before it has
  // read all of a large input.
  const auto deadline = monotonicNow() + limits.timeout;
  ProcessResult result;
  std::size_t written = 0;
  bool killed = false;
  while (outRead.fd >= 0) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - monotonicNow());
    if (left.count() <= 0) {
      result.failure =
          program + " did not finish within " + std::to_string(limits.timeout.count()) + " ms";
      killed = true;
      break;
    }
    pollfd fds[2] = {{outRead.fd, POLLIN, 0}, {inWrite.fd, POLLOUT, 0}};
    const nfds_t count = inWrite.fd >= 0 ? 2 : 1;
    if (::poll(fds, count, static_cast<int>(left.count())) < 0) {
      if (errno == EINTR) continue;
      result.failure = std::string("poll: ") + std::strerror(errno);
      killed = true;
      break;
    }
    if (count == 2 && fds[1].revents != 0) {
      const ssize_t n = ::write(inWrite.fd, input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<std::size_t>(n);
      if ((n < 0 && errno != EAGAIN && errno != EINTR) || written == input.size()) inWrite.reset();
    }
    if (fds[0].revents != 0) {
      char buffer[16384];
      const ssize_t n = ::read(outRead.fd, buffer, sizeof buffer);
      if (n > 0) {
        if (result.output.size() + static_cast<std::size_t>(n) > limits.maxOutputBytes) {
          result.failure =
              program + " wrote more than " + std::to_string(limits.maxOutputBytes) + " bytes";
          killed = true;
          break;
        }
        result.output.append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
        outRead.reset();
      }
    }
  }
  if (killed) ::kill(pid, SIGKILL);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (killed) {
    result.output.clear();
    return result;
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace qevr
