#include "QEVRLogger.h"

#include <QEVRPlatform/Log.h>

#include <utility>

namespace {

qevr::LogType platformTypeFor(QEVRLogLevel level) {
  switch (level) {
    case QEVRLogLevel::trace:
    case QEVRLogLevel::debug:
      return qevr::LogType::debug;
    case QEVRLogLevel::info:
      return qevr::LogType::info;
    case QEVRLogLevel::warning:
    case QEVRLogLevel::off:
      return qevr::LogType::default_;
    case QEVRLogLevel::error:
      return qevr::LogType::error;
    case QEVRLogLevel::critical:
      return qevr::LogType::fault;
  }
  return qevr::LogType::default_;
}

}  // namespace

std::string QEVRLogRecord::formattedLine() const {
  std::string line = qevr::formatISO8601(timestamp);
  line.append(" [").append(labelOf(level)).append("] [");
  line.append(subsystem).append(":").append(category).append("] ").append(message);
  return line;
}

void QEVROSLogSink::write(const QEVRLogRecord& record) {
  const qevr::LogType type = platformTypeFor(record.level);
  std::shared_ptr<qevr::LogSink> sink = qevr::currentLogSink();
  if (!sink->isEnabled(record.subsystem, record.category, type)) return;
  sink->write(record.subsystem, record.category, type, record.formattedLine());
}

QEVRLogger::QEVRLogger(std::string subsystem, QEVRLogLevel minimumLevel,
                       std::shared_ptr<QEVRLogSink> initialSink)
    : subsystemName(std::move(subsystem)), level(minimumLevel), sink(std::move(initialSink)) {}

void QEVRLogger::log(QEVRLogLevel recordLevel, std::string_view category,
                     std::string_view message) {
  std::shared_ptr<QEVRLogSink> target;
  {
    qevr::MutexLock guard(lock);
    if (static_cast<int>(level) > static_cast<int>(recordLevel)) return;
    target = sink;
  }
  QEVRLogRecord record{qevr::now(), recordLevel, subsystemName, std::string(category),
                       std::string(message)};
  target->write(record);
}

void QEVRLogger::setMinimumLevel(QEVRLogLevel newLevel) {
  qevr::MutexLock guard(lock);
  level = newLevel;
}

QEVRLogLevel QEVRLogger::minimumLevel() const {
  qevr::MutexLock guard(lock);
  return level;
}

void QEVRLogger::setSink(std::shared_ptr<QEVRLogSink> newSink) {
  std::shared_ptr<QEVRLogSink> old;
  {
    qevr::MutexLock guard(lock);
    old = std::exchange(sink, std::move(newSink));
  }
}
