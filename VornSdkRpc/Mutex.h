#pragma once

#include <pthread.h>
#include <vorn/export.h>
#include <vorn/mutex.h>

#include <chrono>

namespace VornSdkRpc {

// A mutual-exclusion lock that does not wait for ever: a lock() that can't be had within the
// timeout is taken for a deadlock and stops the process with a diagnostic, instead of leaving it
// hanging unnoticed. Works with std::lock_guard and std::unique_lock, and with
// vorn::lock_guard, which clang's thread safety analysis understands. Not recursive, not copyable;
// any thread may lock it.
class VORN_CAPABILITY("mutex") VORN_EXPORT Mutex {
 public:
  // A timeout of 600 seconds.
  Mutex() = default;

  // How long one lock() may wait; a timeout beyond the end of the clock never passes.
  explicit Mutex(const std::chrono::nanoseconds& timeout) : timeout_(timeout) {}

  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // Acquires the lock. Never returns without it: when the timeout passes, the process aborts. The
  // timeout is kept on the monotonic clock, so setting the wall clock does not change it.
  void lock() VORN_ACQUIRE();

  // Releases the lock, on the thread that holds it.
  void unlock() VORN_RELEASE();

 private:
  std::chrono::nanoseconds timeout_ = std::chrono::seconds(600);
  pthread_mutex_t native_ = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace VornSdkRpc
