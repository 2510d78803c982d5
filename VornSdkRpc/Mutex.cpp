#include <VornSdkRpc/Mutex.h>

#include <cassert>

#if defined(__SANITIZE_THREAD__) && !defined(__clang__) && __GNUC__ < 13
#include <sanitizer/tsan_interface.h>
#define TSAN_MISSES_CLOCKLOCK
#endif

namespace VornSdkRpc {

namespace {

// The end of time, when the timeout reaches beyond it.
std::chrono::steady_clock::time_point deadlineIn(std::chrono::nanoseconds timeout) {
  using TimePoint = std::chrono::steady_clock::time_point;
  const auto now = std::chrono::steady_clock::now();
  return timeout < TimePoint::max() - now ? now + timeout : TimePoint::max();
}

timespec toTimespec(std::chrono::steady_clock::time_point time) {
  const auto sinceEpoch = time.time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
  const std::chrono::nanoseconds rest = sinceEpoch - seconds;
  return {.tv_sec = seconds.count(), .tv_nsec = rest.count()};
}

// The thread sanitizer of g++ 12 does not see pthread_mutex_clocklock; it has to be told of the
// lock.
void tellSanitizer([[maybe_unused]] pthread_mutex_t* locked) {
#ifdef TSAN_MISSES_CLOCKLOCK
  __tsan_mutex_pre_lock(locked, 0);
  __tsan_mutex_post_lock(locked, 0, 0);
#endif
}

}  // namespace

Mutex::~Mutex() { pthread_mutex_destroy(&native_); }

void Mutex::lock() {
  // A free lock, which is what nearly every call finds, needs no clock.
  if (pthread_mutex_trylock(&native_) == 0) return;
  const auto deadline = deadlineIn(timeout_);
  const timespec absolute = toTimespec(deadline);
  while (pthread_mutex_clocklock(&native_, CLOCK_MONOTONIC, &absolute) != 0) {
    assert(std::chrono::steady_clock::now() < deadline &&
           "Unable to acquire the lock during the specified time");
  }
  tellSanitizer(&native_);
}

void Mutex::unlock() { pthread_mutex_unlock(&native_); }

}  // namespace VornSdkRpc
