#include <QEVRPlatform/Date.h>

#include <QEVRPlatform/ThreadAnnotations.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace qevr {
namespace {

class SystemClock final : public Clock {
 public:
  QEVRDate now() const override {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch);
    return QEVRDate::fromUnixSeconds(static_cast<double>(nanoseconds.count()) / 1e9);
  }
};

// The process clock.
//
// Thread safety: `installed` is only read and written under `lock`.
// `hasCustomClock` mirrors whether `installed` is set, so that the common case,
// the system clock, costs one atomic load and no lock. Acquire/release pairs
// the flag with the store of `installed` it announces; a reader that sees
// the flag late merely reads the system clock once more, which is what a
// call racing with setClock() may do anyway.
struct ProcessClock {
  Mutex lock;
  std::shared_ptr<const Clock> installed QEVR_GUARDED_BY(lock);
  std::atomic<bool> hasCustomClock{false};
};

// Never destroyed, so that now() stays usable from other objects' static
// destructors (a log line written at exit, say).
ProcessClock& processClock() {
  static ProcessClock* const clock = new ProcessClock;
  return *clock;
}

// Unix seconds of 0000-01-01T00:00:00Z and of 10000-01-01T00:00:00Z,
// the range four year digits can write.
constexpr std::int64_t kFirstFormattableUnixSecond = -62167219200;
constexpr std::int64_t kEndOfFormattableUnixSeconds = 253402300800;

std::int64_t unixSecondsOfCivil(int year, unsigned month, unsigned day, int hour, int minute,
                                int second) {
  const std::chrono::sys_days days{std::chrono::year{year} / std::chrono::month{month} /
                                   std::chrono::day{day}};
  return static_cast<std::int64_t>(days.time_since_epoch().count()) * 86400 +
         std::int64_t{hour} * 3600 + std::int64_t{minute} * 60 + second;
}

// Reads exactly `width` ASCII digits at text[position].
std::optional<int> digits(std::string_view text, std::size_t position, std::size_t width) {
  int value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    const char c = text[position + i];
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

}  // namespace

std::chrono::steady_clock::time_point monotonicNow() {
  return std::chrono::steady_clock::now();
}

const Clock& systemClock() {
  static const SystemClock* const clock = new SystemClock;  // never destroyed, as above
  return *clock;
}

QEVRDate now() {
  ProcessClock& process = processClock();
  if (!process.hasCustomClock.load(std::memory_order_acquire)) return systemClock().now();
  std::shared_ptr<const Clock> clock;
  {
    MutexLock hold(process.lock);
    clock = process.installed;
  }
  // The copy keeps the clock alive if setClock() replaces it meanwhile, and
  // the clock is called without the lock held.
  return clock ? clock->now() : systemClock().now();
}

void setClock(std::shared_ptr<const Clock> clock) {
  ProcessClock& process = processClock();
  std::shared_ptr<const Clock> previous;
  {
    MutexLock hold(process.lock);
    const bool custom = clock != nullptr;
    previous = std::exchange(process.installed, std::move(clock));
    process.hasCustomClock.store(custom, std::memory_order_release);
  }
  // `previous` may be the last reference; it is released here, outside the
  // lock, in case its destructor is slow.
}

std::string formatISO8601(QEVRDate date) {
  const double unixSeconds = std::floor(date.unixSeconds());
  if (!std::isfinite(unixSeconds) ||
      unixSeconds < static_cast<double>(kFirstFormattableUnixSecond) ||
      unixSeconds >= static_cast<double>(kEndOfFormattableUnixSeconds)) {
    throw std::out_of_range("formatISO8601: date outside the years 0000 to 9999");
  }
  const auto seconds = static_cast<std::int64_t>(unixSeconds);
  // Floor division, so that instants before 1970 land on the right day.
  std::int64_t dayNumber = seconds / 86400;
  std::int64_t secondOfDay = seconds % 86400;
  if (secondOfDay < 0) {
    secondOfDay += 86400;
    --dayNumber;
  }
  const std::chrono::year_month_day ymd{
      std::chrono::sys_days{std::chrono::days{static_cast<int>(dayNumber)}}};
  // Written digit by digit: snprintf would cost more than everything else
  // in a log line or a JSON date.
  std::string text = "0000-00-00T00:00:00Z";
  const auto put = [&text](std::size_t position, std::size_t width, int value) {
    for (std::size_t i = width; i > 0; --i) {
      text[position + i - 1] = static_cast<char>('0' + value % 10);
      value /= 10;
    }
  };
  put(0, 4, static_cast<int>(ymd.year()));
  put(5, 2, static_cast<int>(static_cast<unsigned>(ymd.month())));
  put(8, 2, static_cast<int>(static_cast<unsigned>(ymd.day())));
  put(11, 2, static_cast<int>(secondOfDay / 3600));
  put(14, 2, static_cast<int>(secondOfDay / 60 % 60));
  put(17, 2, static_cast<int>(secondOfDay % 60));
  return text;
}

std::optional<QEVRDate> parseISO8601(std::string_view text) {
  // 0123456789012345678901234
  // YYYY-MM-DDTHH:MM:SSZ
  // YYYY-MM-DDTHH:MM:SS+HH:MM
  constexpr std::size_t kUtcLength = 20;
  constexpr std::size_t kOffsetLength = 25;
  if (text.size() != kUtcLength && text.size() != kOffsetLength) return std::nullopt;
  if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':') {
    return std::nullopt;
  }
  const auto year = digits(text, 0, 4);
  const auto month = digits(text, 5, 2);
  const auto day = digits(text, 8, 2);
  const auto hour = digits(text, 11, 2);
  const auto minute = digits(text, 14, 2);
  const auto second = digits(text, 17, 2);
  if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
  const std::chrono::year_month_day ymd{std::chrono::year{*year},
                                        std::chrono::month{static_cast<unsigned>(*month)},
                                        std::chrono::day{static_cast<unsigned>(*day)}};
  if (!ymd.ok() || *hour > 23 || *minute > 59 || *second > 59) return std::nullopt;

  int offsetSeconds = 0;
  if (text.size() == kUtcLength) {
    if (text[19] != 'Z') return std::nullopt;
  } else {
    const char sign = text[19];
    if ((sign != '+' && sign != '-') || text[22] != ':') return std::nullopt;
    const auto offsetHours = digits(text, 20, 2);
    const auto offsetMinutes = digits(text, 23, 2);
    if (!offsetHours || !offsetMinutes || *offsetHours > 23 || *offsetMinutes > 59) {
      return std::nullopt;
    }
    offsetSeconds = (*offsetHours * 3600 + *offsetMinutes * 60) * (sign == '-' ? -1 : 1);
  }
  // Local time minus its offset is UTC. An offset can carry an instant past
  // either end of the years formatting can write; such a date is refused
  // here so that everything read can be written back.
  const std::int64_t unixSeconds =
      unixSecondsOfCivil(*year, static_cast<unsigned>(*month), static_cast<unsigned>(*day), *hour,
                         *minute, *second) -
      offsetSeconds;
  if (unixSeconds < kFirstFormattableUnixSecond || unixSeconds >= kEndOfFormattableUnixSeconds) {
    return std::nullopt;
  }
  return QEVRDate::fromUnixSeconds(static_cast<double>(unixSeconds));
}

}  // namespace qevr
