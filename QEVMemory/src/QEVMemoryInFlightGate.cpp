#include "QEVMemoryInFlightGate.h"

#include <algorithm>
#include <mutex>

QEVMemoryInFlightGate::QEVMemoryInFlightGate(int maxInFlight, std::chrono::milliseconds wait)
    : limit(std::max(maxInFlight, 1)), resumeAt(resumeAtFor(limit)), longestWait(wait) {}

bool QEVMemoryInFlightGate::enter() {
  int seen = count.load(std::memory_order_seq_cst);
  while (seen < limit) {
    if (count.compare_exchange_weak(seen, seen + 1, std::memory_order_seq_cst)) return true;
  }
  const bool drained = waitFor(longestWait, resumeAt);
  count.fetch_add(1, std::memory_order_seq_cst);
  return drained;
}

void QEVMemoryInFlightGate::leave() {
  const int left = count.fetch_sub(1, std::memory_order_seq_cst) - 1;
  // A waiter counts itself before it tests the count, and this reads the
  // waiters after lowering the count, so one of the two sees the other.
  // (resumeAt is never negative, so an idle waiter is woken here too.)
  if (left > resumeAt || waiters.load(std::memory_order_seq_cst) == 0) return;
  // Passing through the lock puts this wake-up after any waiter's test.
  { qevr::MutexLock guard(lock); }
  changed.notify_all();
}

bool QEVMemoryInFlightGate::waitUntilIdle(std::chrono::milliseconds timeout) {
  return waitFor(timeout, 0);
}

bool QEVMemoryInFlightGate::waitFor(std::chrono::milliseconds timeout, int atMost) {
  std::unique_lock<std::mutex> guard(lock.native());
  waiters.fetch_add(1, std::memory_order_seq_cst);
  const bool reached = changed.wait_for(
      guard, timeout, [&] { return count.load(std::memory_order_seq_cst) <= atMost; });
  waiters.fetch_sub(1, std::memory_order_seq_cst);
  return reached;
}
