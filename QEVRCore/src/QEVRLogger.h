// The core's logger: a minimum level in front of a sink.
//
// Only the core logs through QEVRLogger; the other modules write fixed texts
// straight to the platform log under their own subsystem names.
#pragma once

#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <memory>
#include <string>
#include <string_view>

struct QEVRLogRecord {
  QEVRDate timestamp;
  QEVRLogLevel level = QEVRLogLevel::info;
  std::string subsystem;
  std::string category;
  std::string message;

  bool operator==(const QEVRLogRecord&) const = default;

  // "<ISO 8601 UTC, whole seconds>Z [LABEL] [subsystem:category] message", e.g.
  // 2026-01-31T09:05:00Z [INFO] [QEVRCore:Lifecycle] SDK started
  std::string formattedLine() const;
};

// Receives the records that pass the logger's level. Called from any thread,
// never under the logger's lock.
class QEVRLogSink {
 public:
  virtual ~QEVRLogSink() = default;
  virtual void write(const QEVRLogRecord& record) = 0;
};

// Writes formattedLine() to the platform log under the record's subsystem
// and category, at the mapped type (trace/debug -> debug, info -> info,
// warning/off -> default, error -> error, critical -> fault). A type the
// platform sink has disabled is dropped before the line is built.
class QEVROSLogSink final : public QEVRLogSink {
 public:
  void write(const QEVRLogRecord& record) override;
};

class QEVRLogger {
 public:
  QEVRLogger(std::string subsystem, QEVRLogLevel minimumLevel, std::shared_ptr<QEVRLogSink> sink);

  // Drops the record when the minimum level is above `level`: a dropped
  // call takes the lock once and allocates nothing. Otherwise the record is
  // stamped with the process clock and written to the sink outside the lock.
  void log(QEVRLogLevel level, std::string_view category, std::string_view message);

  void setMinimumLevel(QEVRLogLevel level);
  QEVRLogLevel minimumLevel() const;
  void setSink(std::shared_ptr<QEVRLogSink> sink);
  const std::string& subsystem() const { return subsystemName; }

 private:
  mutable qevr::Mutex lock;
  const std::string subsystemName;                          // constant after construction
  QEVRLogLevel level QEVR_GUARDED_BY(lock);                 // the minimum level
  std::shared_ptr<QEVRLogSink> sink QEVR_GUARDED_BY(lock);  // never null
};
