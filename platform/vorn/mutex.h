#pragma once

// The standard library's mutex and locks, with what clang's thread safety analysis has to know of
// them: which mutex a member is guarded by, and which one a function's caller holds. The clang
// preset turns each breach into an error. Other compilers see the plain classes. A mutex is as
// large as a std::mutex, and costs what that costs.

#include <mutex>

#if defined(__clang__)
#define VORN_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VORN_THREAD_ATTRIBUTE(x)
#endif

// Of a class: its objects can be held, or hold something for as long as they live.
#define VORN_CAPABILITY(kind) VORN_THREAD_ATTRIBUTE(capability(kind))
#define VORN_SCOPED_CAPABILITY VORN_THREAD_ATTRIBUTE(scoped_lockable)

// Of a member: it is used with the mutex held.
#define VORN_GUARDED_BY(mutex) VORN_THREAD_ATTRIBUTE(guarded_by(mutex))

// Of a function: its caller holds the mutex; it acquires or releases it; it returns only where the
// mutex is held.
#define VORN_REQUIRES(...) VORN_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VORN_ACQUIRE(...) VORN_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VORN_TRY_ACQUIRE(...) VORN_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define VORN_ASSERT_HELD(...) VORN_THREAD_ATTRIBUTE(assert_capability(__VA_ARGS__))
#define VORN_RELEASE(...) VORN_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

namespace vorn {

class VORN_CAPABILITY("mutex") mutex : public std::mutex {
 public:
  void lock() VORN_ACQUIRE() { std::mutex::lock(); }
  bool try_lock() VORN_TRY_ACQUIRE(true) { return std::mutex::try_lock(); }
  void unlock() VORN_RELEASE() { std::mutex::unlock(); }

  // For where the analysis can't see that this is the mutex that is held by another name.
  void assert_held() const VORN_ASSERT_HELD() {}
};

// Holds a mutex of any class that is marked as one.
template <typename Mutex>
class VORN_SCOPED_CAPABILITY lock_guard {
 public:
  explicit lock_guard(Mutex& mutex) VORN_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~lock_guard() VORN_RELEASE() { mutex_.unlock(); }
  lock_guard(const lock_guard&) = delete;
  lock_guard& operator=(const lock_guard&) = delete;

 private:
  Mutex& mutex_;
};

// Holds a vorn::mutex, but for while it is released or a std::condition_variable waits with it.
class VORN_SCOPED_CAPABILITY unique_lock {
 public:
  explicit unique_lock(mutex& mutex) VORN_ACQUIRE(mutex) : lock_(mutex) {}
  ~unique_lock() VORN_RELEASE() = default;
  unique_lock(const unique_lock&) = delete;
  unique_lock& operator=(const unique_lock&) = delete;

  void lock() VORN_ACQUIRE() { lock_.lock(); }
  void unlock() VORN_RELEASE() { lock_.unlock(); }

  // For std::condition_variable::wait. A predicate says VORN_REQUIRES(mutex): it is called with it.
  operator std::unique_lock<std::mutex>&() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace vorn
