// The Linux default log sink: syslog(3).
#include <QEVRPlatform/Log.h>

#include <syslog.h>

#include <string>

namespace qevr {
namespace {

int priorityFor(LogType type) {
  switch (type) {
    case LogType::debug:
      return LOG_DEBUG;
    case LogType::info:
      return LOG_INFO;
    case LogType::default_:
      return LOG_NOTICE;
    case LogType::error:
      return LOG_ERR;
    case LogType::fault:
      return LOG_CRIT;
  }
  return LOG_NOTICE;
}

class SyslogLogSink final : public LogSink {
 public:
  void write(std::string_view subsystem, std::string_view category, LogType type,
             std::string_view text) override {
    std::string line;
    line.reserve(subsystem.size() + category.size() + text.size() + 3);
    line.append(subsystem).append("/").append(category).append(": ").append(text);
    // No openlog: the host owns the process's syslog identity.
    ::syslog(priorityFor(type), "%s", line.c_str());
  }
};

}  // namespace

std::shared_ptr<LogSink> makeSyslogLogSink() {
  return std::make_shared<SyslogLogSink>();
}

}  // namespace qevr
