// Bounds the disk work a producer may have in flight, and paces the
// producer when the pool falls behind.
#pragma once

#include <QEVRPlatform/ThreadAnnotations.h>

#include <atomic>
#include <chrono>
#include <condition_variable>

// Counts work in flight. A thread that brings more while `limit` items are
// in flight waits until no more than a quarter of them are left, not merely
// for the next free place: a producer that outruns the pool then pauses once
// per three quarters of `limit` instead of at each item. It runs nothing while it
// waits. Should the pool not get there within `longestWait` (its threads may
// be the very producers that wait), the thread is let through and told to do
// its work itself.
//
// Thread safety: every member may be called from any thread. `lock` guards
// no field: it orders a waiter's test of the count against the wake-up that
// follows a decrement, so that no wake-up is lost.
class QEVMemoryInFlightGate {
 public:
  static constexpr std::chrono::milliseconds kDefaultLongestWait{200};
  // The count at which a paced thread goes on.
  static constexpr int resumeAtFor(int limit) { return limit / 4; }

  explicit QEVMemoryInFlightGate(int limit,
                                 std::chrono::milliseconds longestWait = kDefaultLongestWait);

  // Counts one more item in flight, after waiting if the limit is reached.
  // True when the item may go to the pool; false when the wait timed out
  // and the caller has to do the work itself (the item counts all the same).
  bool enter();
  // Counts one item fewer, waking the threads that wait for it.
  void leave();
  // Blocks until nothing is in flight, at most `timeout`; says whether so.
  // Must not be called from the work itself.
  bool waitUntilIdle(std::chrono::milliseconds timeout);

  int inFlight() const { return count.load(std::memory_order_acquire); }
  // Threads in enter() or waitUntilIdle() that are waiting.
  int waitingThreads() const { return waiters.load(std::memory_order_acquire); }

 private:
  bool waitFor(std::chrono::milliseconds timeout, int atMost);

  const int limit;
  const int resumeAt;
  const std::chrono::milliseconds longestWait;
  std::atomic<int> count{0};
  std::atomic<int> waiters{0};
  qevr::Mutex lock;
  std::condition_variable changed;
};
