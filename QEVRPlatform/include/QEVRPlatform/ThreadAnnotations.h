// Clang thread-safety annotations and a mutex that carries them.
//
// Every stateful class guards its fields with one `qevr::Mutex lock`; the
// annotations let a clang build with -Wthread-safety prove that each guarded
// field is only touched with the lock held. Under other compilers they vanish.
#pragma once

#include <mutex>

#if defined(__clang__)
#define QEVR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QEVR_THREAD_ANNOTATION(x)
#endif

#define QEVR_CAPABILITY(x) QEVR_THREAD_ANNOTATION(capability(x))
#define QEVR_SCOPED_CAPABILITY QEVR_THREAD_ANNOTATION(scoped_lockable)
#define QEVR_GUARDED_BY(x) QEVR_THREAD_ANNOTATION(guarded_by(x))
#define QEVR_PT_GUARDED_BY(x) QEVR_THREAD_ANNOTATION(pt_guarded_by(x))
#define QEVR_REQUIRES(...) QEVR_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QEVR_EXCLUDES(...) QEVR_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QEVR_ACQUIRE(...) QEVR_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QEVR_RELEASE(...) QEVR_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define QEVR_NO_THREAD_SAFETY_ANALYSIS QEVR_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace qevr {

// A non-recursive mutex that clang's thread-safety analysis understands.
class QEVR_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() QEVR_ACQUIRE() { impl.lock(); }
  void unlock() QEVR_RELEASE() { impl.unlock(); }

  // For std::condition_variable_any and friends.
  std::mutex& native() { return impl; }

 private:
  std::mutex impl;
};

// RAII holder of a Mutex for one scope.
class QEVR_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& m) QEVR_ACQUIRE(m) : mutex(m) { mutex.lock(); }
  ~MutexLock() QEVR_RELEASE() { mutex.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex;
};

}  // namespace qevr
