#pragma once

// What a coroutine is given: the call that it serves, and its streams.

#include <VornSdkRpc/RequestHandler.h>
#include <VornSdkRpc/RpcEvent.h>
#include <VornSdkRpc/RpcServiceBase.h>
#include <VornSdkRpc/RpcTask.h>
#include <grpc/grpc.h>
#include <grpcpp/alarm.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/support/async_stream.h>

#include <chrono>
#include <coroutine>
#include <cstddef>
#include <memory>
#include <optional>
#include <utility>

namespace VornSdkRpc::rpc {

namespace detail {

// One of the calls that a method may have in progress, until it is released or destroyed.
class Slot {
 public:
  Slot() = default;
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;
  ~Slot() { release(); }

  // Answers false when `used` has reached the limit.
  bool take(std::size_t& used, std::size_t limit) {
    if (limit != 0 && used >= limit) return false;
    used_ = &used;
    ++*used_;
    return true;
  }
  void release() {
    if (used_) --*std::exchange(used_, nullptr);
  }

 private:
  std::size_t* used_ = nullptr;
};

// What makes gRPC hold an item back would keep the coroutine that awaits the write waiting.
inline grpc::WriteOptions atOnce(grpc::WriteOptions options) {
  return options.clear_buffer_hint().clear_last_message();
}

inline grpc::Status tooManyCalls() {
  return {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many calls of this method are in progress"};
}

}  // namespace detail

// One call that is served by a coroutine. Everything is for the serving thread, and for the
// coroutine of this call; it awaits one thing at a time.
class Call : public RequestHandler {
 public:
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  grpc::ServerContext& context() { return context_; }

  // Whether the call is over before its time: cancelled, its client gone, or its deadline past.
  // After a read() or write() that answered false it is known at once.
  bool cancelled() const { return over_; }

  // Waits for a time to pass: co_await answers whether the call still lives, at once when it
  // doesn't.
  template <typename Rep, typename Period>
  auto wait(std::chrono::duration<Rep, Period> duration) {
    return operation(Awaited::time, [this, duration](OpaqueId tag) {
      service_.setAlarm(alarm(), deadlineIn(duration), tag);
    });
  }

  // Waits until the event is set, or takes it at once when it is: co_await answers whether the call
  // still lives.
  auto wait(Event& event) { return EventWait(*this, event); }

  void proceed(OpaqueId tag) final {
    if (state_ != AWAITING_CALL) {
      operationOk_ = service_.completionOk();
      std::exchange(suspended_, nullptr).resume();
    } else if (service_.completionOk()) {
      arrived();
    } else {
      // The server takes no more calls, and the notice of this one's end will not come.
      service_.removeHandler(notice_->opaqueId_);
      service_.removeHandler(tag);
      return;
    }
    if (task_.done()) conclude(outcome());
  }

 protected:
  // Follows the end of the call. A record of its own in the registry, because it may complete after
  // the call's own tag, and after a stop does not complete for the handler at all.
  class Notice : public RequestHandler {
   public:
    Notice(Call& call, OpaqueId tag) : call_(&call), service_(call.service_) {
      opaqueId_ = tag;
      state_ = IN_PROGRESS;
    }
    void proceed(OpaqueId tag) override {
      service_.removeHandler(tag);
      if (call_) call_->ended();
    }
    RequestHandlerPtr spawn(OpaqueId) override { return nullptr; }
    void callGone() { call_ = nullptr; }

   private:
    Call* call_;
    ServiceBase& service_;
  };

  Call(ServiceBase& service, OpaqueId tag)
      : service_(service), notice_(std::make_shared<Notice>(*this, service.nextOpaqueId())) {
    opaqueId_ = tag;
    context_.AsyncNotifyWhenDone(notice_->opaqueId_);
  }

  // abandon() has been called by then: the coroutine refers to what derived classes hold.
  ~Call() override {
    notice_->callGone();
    if (alarm_) service_.dropAlarm(*alarm_);
  }

  // Destroys the coroutine, wherever it is.
  void abandon() { task_ = {}; }

  enum class Awaited { time, read, write };

  // An operation of gRPC that is started with the call's tag and comes back with its ok flag.
  template <typename Start>
  auto operation(Awaited what, Start start) {
    struct [[nodiscard]] Awaiter {
      bool await_ready() const { return call.over_; }
      void await_suspend(std::coroutine_handle<> awaiting) {
        call.suspended_ = awaiting;
        start(call.opaqueId_);
      }
      bool await_resume() const { return call.succeeded(what); }
      Call& call;
      Awaited what;
      Start start;
    };
    return Awaiter{*this, what, std::move(start)};
  }

  virtual bool takeSlot() = 0;
  virtual Task<> begin() = 0;
  virtual void finish(const grpc::Status& status, OpaqueId tag) = 0;

  ServiceBase& service_;
  detail::Slot slot_;
  grpc::ServerContext context_;

 private:
  class [[nodiscard]] EventWait {
   public:
    EventWait(Call& call, Event& event) : call_(call), event_(event) {}
    EventWait(const EventWait&) = delete;
    EventWait& operator=(const EventWait&) = delete;
    ~EventWait() { event_.wakes(nullptr); }

    bool await_ready() { return call_.over_ || event_.take(); }
    void await_suspend(std::coroutine_handle<> awaiting) {
      call_.suspended_ = awaiting;
      grpc::Alarm& alarm = call_.alarm();
      call_.service_.setAlarm(alarm, gpr_inf_future(GPR_CLOCK_REALTIME), call_.opaqueId_);
      event_.wakes(&alarm);
    }
    bool await_resume() {
      event_.wakes(nullptr);
      event_.take();
      return !call_.over_;
    }

   private:
    Call& call_;
    Event& event_;
  };

  template <typename Rep, typename Period>
  static gpr_timespec deadlineIn(std::chrono::duration<Rep, Period> duration) {
    constexpr auto kForever = std::chrono::hours(24 * 365);
    if (duration >= kForever) return gpr_inf_future(GPR_CLOCK_REALTIME);
    if (duration <= duration.zero()) return gpr_now(GPR_CLOCK_MONOTONIC);
    const auto whole = std::chrono::duration_cast<std::chrono::nanoseconds>(duration);
    return gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC),
                        gpr_time_from_nanos(whole.count(), GPR_TIMESPAN));
  }

  // The alarm of this call; most calls never need one.
  grpc::Alarm& alarm() {
    if (!alarm_) alarm_ = service_.newAlarm();
    return **alarm_;
  }

  void arrived() {
    state_ = IN_PROGRESS;
    service_.registerHandler(notice_);  // its tag completes for every call that has arrived
    if (!takeSlot()) return conclude(detail::tooManyCalls());
    try {
      task_ = begin();
      task_.start();
    } catch (...) {
      return conclude(service_.currentExceptionStatus());
    }
  }

  // Whether the operation that has been awaited did what it should. One that failed may tell of the
  // end of the call before the notice does.
  bool succeeded(Awaited what) {
    if (!operationOk_ &&
        (what == Awaited::write ||
         (what == Awaited::read && grpc_call_failed_before_recv_message(context_.c_call()) != 0))) {
      over_ = true;
    }
    return !over_ && operationOk_;
  }

  // The call is over on the wire. What waits for gRPC comes back by itself; a waiting alarm is
  // woken.
  void ended() {
    over_ = true;
    if (alarm_) (*alarm_)->Cancel();
  }

  grpc::Status outcome() const {
    try {
      return task_.take();
    } catch (...) {
      return service_.currentExceptionStatus();
    }
  }

  void conclude(const grpc::Status& status) {
    abandon();
    slot_.release();
    state_ = FINISHED;
    finish(status, opaqueId_);
  }

  std::shared_ptr<Notice> notice_;
  std::optional<ServiceBase::AlarmPosition> alarm_;
  Task<> task_;
  std::coroutine_handle<> suspended_;  // the innermost coroutine that waits
  bool operationOk_ = false;
  bool over_ = false;
};

// A call whose client streams.
template <typename Request>
class Reader : public Call {
 public:
  // Reads the next item: co_await answers false at the end of the client's stream and when the call
  // is dead, which cancelled() tells apart, and `item` then holds nothing of use. To gRPC, bytes
  // that are no Request end the client's stream as well.
  auto read(Request& item) {
    return operation(Call::Awaited::read, [this, &item](OpaqueId tag) { startRead(item, tag); });
  }

 protected:
  using Call::Call;
  virtual void startRead(Request& item, OpaqueId tag) = 0;
};

// A call whose server streams.
template <typename Reply>
class Writer : public Call {
 public:
  // Writes an item, and waits until gRPC has taken it: co_await answers false when the call is
  // dead. Options that ask gRPC to hold the item back for the next one, or for the end of the
  // stream, are passed over.
  auto write(const Reply& item, grpc::WriteOptions options = {}) {
    return operation(Awaited::write, [this, &item, options](OpaqueId tag) {
      grpc_.Write(item, detail::atOnce(options), tag);
    });
  }

 protected:
  using Call::Call;
  grpc::ServerAsyncWriter<Reply> grpc_{&context_};
};

// A call in which both sides stream.
template <typename Request, typename Reply>
class ReaderWriter : public Call {
 public:
  // As Reader::read.
  auto read(Request& item) {
    return operation(Awaited::read, [this, &item](OpaqueId tag) { grpc_.Read(&item, tag); });
  }

  // As Writer::write.
  auto write(const Reply& item, grpc::WriteOptions options = {}) {
    return operation(Awaited::write, [this, &item, options](OpaqueId tag) {
      grpc_.Write(item, detail::atOnce(options), tag);
    });
  }

 protected:
  using Call::Call;
  grpc::ServerAsyncReaderWriter<Reply, Request> grpc_{&context_};
};

}  // namespace VornSdkRpc::rpc
