#include <QEVRPlatform/Log.h>

#include <stdexcept>
#include <utility>

namespace qevr {
namespace {

struct SinkSlot {
  Mutex lock;
  std::shared_ptr<LogSink> sink QEVR_GUARDED_BY(lock);
};

// Leaked on purpose: background tasks may still log while statics are being
// destroyed at process exit.
SinkSlot& slot() {
  static SinkSlot* instance = [] {
    auto* s = new SinkSlot;
    MutexLock guard(s->lock);
    s->sink = makeSyslogLogSink();
    return s;
  }();
  return *instance;
}

}  // namespace

bool LogSink::isEnabled(std::string_view, std::string_view, LogType) const {
  return true;
}

std::shared_ptr<LogSink> currentLogSink() {
  SinkSlot& s = slot();
  MutexLock guard(s.lock);
  return s.sink;
}

void setLogSink(std::shared_ptr<LogSink> sink) {
  if (!sink) throw std::invalid_argument("the log sink must not be null");
  SinkSlot& s = slot();
  std::shared_ptr<LogSink> old;
  {
    MutexLock guard(s.lock);
    old = std::exchange(s.sink, std::move(sink));
  }
  // `old` is released here, outside the lock, in case its destructor logs.
}

void resetLogSink() {
  setLogSink(makeSyslogLogSink());
}

void platformLog(std::string_view subsystem, std::string_view category, LogType type,
                 std::string_view text) {
  std::shared_ptr<LogSink> sink = currentLogSink();
  if (!sink->isEnabled(subsystem, category, type)) return;
  sink->write(subsystem, category, type, text);
}

void CapturingLogSink::write(std::string_view subsystem, std::string_view category, LogType type,
                             std::string_view text) {
  MutexLock guard(lock);
  lines.push_back(Entry{std::string(subsystem), std::string(category), type, std::string(text)});
}

std::vector<CapturingLogSink::Entry> CapturingLogSink::entries() const {
  MutexLock guard(lock);
  return lines;
}

std::vector<std::string> CapturingLogSink::texts() const {
  MutexLock guard(lock);
  std::vector<std::string> out;
  out.reserve(lines.size());
  for (const Entry& e : lines)
    out.push_back(e.text);
  return out;
}

std::vector<std::string> CapturingLogSink::texts(std::string_view subsystem,
                                                 std::string_view category) const {
  MutexLock guard(lock);
  std::vector<std::string> out;
  for (const Entry& e : lines) {
    if (e.subsystem == subsystem && e.category == category) out.push_back(e.text);
  }
  return out;
}

void CapturingLogSink::clear() {
  MutexLock guard(lock);
  lines.clear();
}

ScopedLogSink::ScopedLogSink(std::shared_ptr<LogSink> sink) : previous(currentLogSink()) {
  setLogSink(std::move(sink));
}

ScopedLogSink::~ScopedLogSink() {
  setLogSink(std::move(previous));
}

}  // namespace qevr
