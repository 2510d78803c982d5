#pragma once

// Wakes what sleeps on the serving thread, at a time or from another thread. Nothing in here is for
// an agent.
//
// All sleepers of a service share one grpc::Alarm, which fires for the earliest of their times or,
// in the past, when another thread has made one of them ready. What is made ready on the serving
// thread itself, during a turn, runs at the end of that turn and does not pass the queue.

#include <VornSdkRpc/RequestHandler.h>
#include <grpcpp/alarm.h>
#include <vorn/export.h>
#include <vorn/mutex.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <thread>

namespace grpc {
class ServerCompletionQueue;
}  // namespace grpc

namespace VornSdkRpc {
class GrpcService;
}  // namespace VornSdkRpc

namespace VornSdkRpc::rpc {

// The clock of every wait: it is never set.
using Clock = std::chrono::steady_clock;

namespace detail {

class Wakeups;

// Something that can be woken. Belongs to the serving thread, but for ready().
class VORN_EXPORT Sleeper {
 public:
  // woken(owner) is called on the serving thread, once for each time that it is woken.
  Sleeper(Wakeups& wakeups, void* owner, void (*woken)(void* owner)) noexcept
      : wakeups_(wakeups), owner_(owner), woken_(woken) {}
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;
  ~Sleeper() { cancel(); }

  // Wakes it. Several calls before it is woken count once. Any thread.
  void ready() noexcept;

  // Wakes it at that time, in place of one given before. During a turn.
  void at(Clock::time_point time);

  // Drops its time and its wake-up. No other thread may call ready() any more.
  void cancel() noexcept;

 private:
  friend class Wakeups;
  using Timers = std::multimap<Clock::time_point, Sleeper*>;

  Wakeups& wakeups_;
  void* const owner_;
  void (*const woken_)(void* owner);
  std::optional<Timers::iterator> timer_;

  // Under the lock of the wakeups.
  bool ready_ = false;
  Sleeper* next_ = nullptr;
  Sleeper* previous_ = nullptr;
};

// Those of one service.
class VORN_EXPORT Wakeups final : public RequestHandler {
 public:
  explicit Wakeups(GrpcService& service) : service_(service) {}

  // Called when the server runs, with a tag of the service for the alarm. Serving thread.
  VORN_NO_EXPORT void open(grpc::ServerCompletionQueue& queue, OpaqueId tag);

  // Cancels the alarm; none is set afterwards. Any thread.
  VORN_NO_EXPORT void close();

  // The time by which sleepers are woken. Any thread.
  Clock::time_point now() const;

  // From now on time stands still, at this point, until it is called again. Any thread.
  void timeIs(Clock::time_point now);

  // What runs on the serving thread and may make sleepers ready. finish() ends the turn: it wakes
  // those that are ready by then.
  class VORN_EXPORT Turn {
   public:
    explicit Turn(Wakeups& wakeups) noexcept : wakeups_(wakeups) { wakeups_.inTurn_ = true; }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn();
    void finish();

   private:
    Wakeups& wakeups_;
  };

  void proceed(OpaqueId tag) override;
  RequestHandlerPtr spawn(OpaqueId tag) override;

  bool onServingThread() const { return std::this_thread::get_id() == thread_; }

 private:
  friend class Sleeper;

  VORN_NO_EXPORT void wakeReady();
  VORN_NO_EXPORT void wakeLate();
  VORN_NO_EXPORT void settle() noexcept;
  VORN_NO_EXPORT void unlink(Sleeper& sleeper) noexcept VORN_REQUIRES(mutex_);
  VORN_NO_EXPORT void ring() noexcept VORN_REQUIRES(mutex_);
  VORN_NO_EXPORT void setAlarm(Clock::time_point time) noexcept VORN_REQUIRES(mutex_);

  GrpcService& service_;
  grpc::ServerCompletionQueue* queue_ VORN_GUARDED_BY(mutex_) = nullptr;
  std::thread::id thread_;
  bool inTurn_ = false;  // of the serving thread
  bool newTimer_ = false;
  Sleeper::Timers timers_;
  std::atomic<Clock::rep> stoodStill_ = 0;  // where time stands still; 0: it does not

  vorn::mutex mutex_;
  Sleeper* first_ VORN_GUARDED_BY(mutex_) = nullptr;  // of those that are ready
  Sleeper* last_ VORN_GUARDED_BY(mutex_) = nullptr;
  std::atomic<std::size_t> readyOnes_ = 0;
  grpc::Alarm alarm_ VORN_GUARDED_BY(mutex_);
  bool open_ VORN_GUARDED_BY(mutex_) = false;
  bool set_ VORN_GUARDED_BY(mutex_) = false;      // the alarm's completion is to come
  bool ringing_ VORN_GUARDED_BY(mutex_) = false;  // and soon
  Clock::time_point alarmTime_ VORN_GUARDED_BY(mutex_);
};

}  // namespace detail

}  // namespace VornSdkRpc::rpc
