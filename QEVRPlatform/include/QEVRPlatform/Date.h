// Dates, the process clock and ISO 8601 text.
//
// A QEVRDate is an instant: a double count of seconds since the reference
// date 2001-01-01T00:00:00Z (978307200 seconds after the Unix epoch). Leap
// seconds are not counted, as in Unix time.
//
// Modules never read the system clock themselves: they call qevr::now(),
// which asks the process clock. Tests install a ManualClock with setClock().
#pragma once

#include <QEVRPlatform/Export.h>

#include <atomic>
#include <chrono>
#include <compare>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct QEVR_API QEVRDate {
  // Seconds between the Unix epoch and the reference date.
  static constexpr double kReferenceDateUnixSeconds = 978307200.0;

  double secondsSinceReferenceDate = 0;

  friend auto operator<=>(const QEVRDate&, const QEVRDate&) = default;

  static QEVRDate fromUnixSeconds(double unixSeconds) {
    return QEVRDate{unixSeconds - kReferenceDateUnixSeconds};
  }
  double unixSeconds() const { return secondsSinceReferenceDate + kReferenceDateUnixSeconds; }
  QEVRDate addingSeconds(double seconds) const {
    return QEVRDate{secondsSinceReferenceDate + seconds};
  }
};

namespace qevr {

// A source of the current time. Implementations must be thread-safe: now()
// is called from any thread.
class QEVR_API Clock {
 public:
  virtual ~Clock() = default;
  virtual QEVRDate now() const = 0;
};

// The wall clock of the system (std::chrono::system_clock), with whatever
// resolution it has (nanoseconds on Linux). Lives as long as the process.
QEVR_API const Clock& systemClock();

// The current time from the process clock: the clock given to setClock(),
// or systemClock(). Any thread; no lock is taken while the system clock is
// in use.
QEVR_API QEVRDate now();

// A time that only ever moves forward, for deadlines and for how long ago
// something happened; never a date, and no ManualClock moves it. Any thread.
QEVR_API std::chrono::steady_clock::time_point monotonicNow();

// Installs `clock` as the process clock; nullptr restores the system clock.
// Any thread. A now() running concurrently reads either clock; the clock
// being replaced stays alive until such calls have returned.
QEVR_API void setClock(std::shared_ptr<const Clock> clock);

// A clock that moves only when told to. Thread-safe: set(), advance() and
// now() may be called concurrently from any threads.
class QEVR_API ManualClock : public Clock {
 public:
  explicit ManualClock(QEVRDate start = QEVRDate{}) : current(start.secondsSinceReferenceDate) {}

  QEVRDate now() const override { return QEVRDate{current.load(std::memory_order_relaxed)}; }
  void set(QEVRDate date) {
    current.store(date.secondsSinceReferenceDate, std::memory_order_relaxed);
  }
  void advance(double seconds) { current.fetch_add(seconds, std::memory_order_relaxed); }

 private:
  // Relaxed ordering suffices: the clock publishes only this one value, and
  // readers need no other memory to be visible with it.
  std::atomic<double> current;
};

// Formats `date` as an ISO 8601 internet date-time in UTC with whole
// seconds: "2026-01-31T09:05:00Z". A fraction of a second is dropped by
// rounding toward the past, so 09:05:00.999 formats as 09:05:00 and
// 1.5 seconds before the reference date formats as 2000-12-31T23:59:58Z.
// Throws std::out_of_range when `date` is not finite or falls outside the
// years 0000 to 9999, which four year digits cannot write.
QEVR_API std::string formatISO8601(QEVRDate date);

// Parses an ISO 8601 internet date-time (the RFC 3339 profile), strictly:
//
//   YYYY-MM-DDTHH:MM:SSZ          UTC
//   YYYY-MM-DDTHH:MM:SS+HH:MM     numeric offset (also -HH:MM), hours 00-23
//
// Exactly these characters, upper-case "T" and "Z", and nothing before or
// after. Refused: fractional seconds, a missing zone, lower-case letters,
// a space instead of "T", basic forms without separators, week and ordinal
// dates, out-of-range fields (month 13, February 30 outside a leap year,
// hour 24, second 60), and an instant that formatISO8601 would refuse: one
// whose offset moves it out of the years 0000 to 9999 in UTC, such as
// "0000-01-01T00:30:00+01:00". Returns std::nullopt for anything refused.
QEVR_API std::optional<QEVRDate> parseISO8601(std::string_view text);

}  // namespace qevr
