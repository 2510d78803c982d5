#include "VornSdkRpc/Mutex.h"

#include <cassert>

namespace VornSdkRpc {

namespace {

timespec toTimespec(std::chrono::steady_clock::time_point time) {
  const auto sinceEpoch = time.time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
  const std::chrono::nanoseconds rest = sinceEpoch - seconds;
  return {.tv_sec = seconds.count(), .tv_nsec = rest.count()};
}

}  // namespace

Mutex::~Mutex() { pthread_mutex_destroy(&native_); }

void Mutex::lock() {
  const auto deadline = std::chrono::steady_clock::now() + timeout_;
  const timespec absolute = toTimespec(deadline);
  while (pthread_mutex_clocklock(&native_, CLOCK_MONOTONIC, &absolute) != 0) {
    assert(std::chrono::steady_clock::now() < deadline &&
           "Unable to acquire the lock during the specified time");
  }
}

void Mutex::unlock() { pthread_mutex_unlock(&native_); }

}  // namespace VornSdkRpc
