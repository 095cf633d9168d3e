// The process-wide platform log.
//
// Every line QEVR writes ends here as (subsystem, category, type, text). The
// default sink hands lines to syslog(3) on Linux; hosts and tests can install
// their own (tests capture lines and assert them exactly). No host data ever
// reaches a line: callers write fixed texts only.
#pragma once

#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qevr {

// Severity of a platform log line, from least to most severe.
enum class LogType { debug, info, default_, error, fault };

// Receives log lines. Implementations must be callable from any thread at
// once; QEVR never holds one of its own locks while calling a sink.
class QEVR_API LogSink {
 public:
  virtual ~LogSink() = default;

  // Whether a line of this type would be kept. Callers skip building the
  // line when this is false.
  virtual bool isEnabled(std::string_view subsystem, std::string_view category, LogType type) const;

  virtual void write(std::string_view subsystem, std::string_view category, LogType type,
                     std::string_view text) = 0;
};

// The syslog sink (the Linux default). Writes "<subsystem>/<category>: text"
// at the mapped priority, without openlog, so the host's ident stays intact.
QEVR_API std::shared_ptr<LogSink> makeSyslogLogSink();

// The sink in force; never null.
QEVR_API std::shared_ptr<LogSink> currentLogSink();

// Replaces the process sink. Throws std::invalid_argument for nullptr.
// Thread-safe.
QEVR_API void setLogSink(std::shared_ptr<LogSink> sink);
// Restores the platform's default sink.
QEVR_API void resetLogSink();

// Writes one line to the current sink, unless the sink disables its type.
QEVR_API void platformLog(std::string_view subsystem, std::string_view category, LogType type,
                          std::string_view text);

// A sink that keeps every line in memory, for tests and tools.
class QEVR_API CapturingLogSink : public LogSink {
 public:
  struct Entry {
    std::string subsystem;
    std::string category;
    LogType type;
    std::string text;
    bool operator==(const Entry&) const = default;
  };

  void write(std::string_view subsystem, std::string_view category, LogType type,
             std::string_view text) override;

  std::vector<Entry> entries() const;
  // Only the texts, in arrival order.
  std::vector<std::string> texts() const;
  // Texts of lines whose subsystem and category match.
  std::vector<std::string> texts(std::string_view subsystem, std::string_view category) const;
  void clear();

 private:
  mutable Mutex lock;
  std::vector<Entry> lines QEVR_GUARDED_BY(lock);
};

// Installs a sink for the lifetime of the object and restores the previous
// one afterwards. For tests.
class QEVR_API ScopedLogSink {
 public:
  explicit ScopedLogSink(std::shared_ptr<LogSink> sink);
  ~ScopedLogSink();
  ScopedLogSink(const ScopedLogSink&) = delete;
  ScopedLogSink& operator=(const ScopedLogSink&) = delete;

 private:
  std::shared_ptr<LogSink> previous;
};

}  // namespace qevr
