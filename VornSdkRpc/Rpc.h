#pragma once

// The authoring kit: an RPC as one function. It stands on GrpcService and RequestHandler alone, so
// services written with it and services written by hand live side by side in one GrpcServer.
//
// A service derives from rpc::Service of its generated class and names its methods in its
// constructor, each with the function that serves it:
//
//   namespace rpc = VornSdkRpc::rpc;
//   using namespace std::chrono_literals;
//
//   class RoutingService : public rpc::Service<Routing> {
//    public:
//     RoutingService() : Service("Routing") {
//       // Unary, as a plain function: the fastest, for what is answered at once. It may also take
//       // the grpc::ServerContext& first.
//       method(&Async::RequestSet, [this](const Route& route, Nothing&) { return set(route); });
//
//       // Unary, as a coroutine, for what has to wait before it answers.
//       method(&Async::RequestProbe,
//              [](rpc::Call& call, const Target& target, Result& result) -> rpc::Task<> {
//                while (!result.set(probe(target))) {
//                  if (!co_await call.wait(100ms)) break;
//                }
//                co_return grpc::Status::OK;
//              });
//
//       // Client streaming: read() answers false at the end of the client's stream.
//       method(&Async::RequestLoad,
//              [this](rpc::Reader<Route>& routes, Count& count) -> rpc::Task<> {
//                Route route;
//                while (co_await routes.read(route))
//                  count.set_count(count.count() + set(route).ok());
//                co_return grpc::Status::OK;
//              });
//
//       // Server streaming: write() answers false once the call is dead. One write is outstanding
//       // at a time, so a client that reads slowly holds up its own stream and costs one item of
//       // memory.
//       method(&Async::RequestWatch,
//              [this](rpc::Writer<Route>& watch, const Filter&) -> rpc::Task<> {
//                rpc::Event news;  // set() by any thread wakes the call
//                const auto subscription = table_.subscribe(news);  // ends with the coroutine
//                do {
//                  for (auto& route : table_.changes())
//                    if (!co_await watch.write(route)) break;
//                } while (co_await watch.wait(news));
//                co_return grpc::Status::OK;
//              });
//     }
//   };
//
// (A bidirectional stream is an rpc::ReaderWriter.) Functions and coroutines run on the server's
// one thread, each step to the end before the next, so they need no locks among each other, and
// none may block. A coroutine may be split up: it can co_await another rpc::Task<T>. (Write a
// co_await in a loop's condition alone: g++ 12 evaluates one that stands behind && or || there even
// when it should be skipped.)
//
// When the client cancels, goes away or its deadline passes, what is awaited comes back false, and
// so does everything that is awaited after it; cancelled() tells the end of a client's stream from
// the end of its call. The coroutine runs to its end and its locals are destroyed on the serving
// thread. When the server stops, a coroutine is not resumed any more: its frame is destroyed where
// it waits, on the serving thread or, as most of those that wait for a time or an event, on the one
// that destroys the GrpcServer. Whatever a coroutine refers to must outlive the server object; the
// service does.
//
// An exception ends the call: vorn::invalid_argument_error with INVALID_ARGUMENT,
// vorn::unsupported_error with UNIMPLEMENTED, vorn::configuration_error with FAILED_PRECONDITION,
// vorn::no_scoped_lock_obtained_error with UNAVAILABLE, each with the first 1024 bytes of its
// what(); anything else with INTERNAL and a text that gives nothing away, and a trace line at level
// 0 that says what it was.
// An RPC of the service that has no function is answered UNIMPLEMENTED.

#include <VornSdkRpc/GrpcService.h>
#include <google/protobuf/descriptor.h>
#include <grpc/grpc.h>
#include <grpcpp/alarm.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/async_unary_call.h>
#include <grpcpp/support/byte_buffer.h>
#include <vorn/error.h>

#include <algorithm>
#include <chrono>
#include <concepts>
#include <coroutine>
#include <cstddef>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VornSdkRpc::rpc {

// ------------------------------------------------------------------------------------------------
// Task: what a coroutine of the kit returns

namespace detail {

// Goes on with the coroutine that awaits the one that has ended, if there is one.
struct Continue {
  bool await_ready() const noexcept { return false; }
  template <typename Promise>
  std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> ended) const noexcept {
    const auto next = ended.promise().continuation;
    return next ? next : std::noop_coroutine();
  }
  void await_resume() const noexcept {}
};

template <typename Method, typename Request, typename Reply>
class FunctionCall;

struct PromiseBase {
  std::suspend_always initial_suspend() const noexcept { return {}; }
  Continue final_suspend() const noexcept { return {}; }
  void unhandled_exception() noexcept { exception = std::current_exception(); }

  std::coroutine_handle<> continuation;
  std::exception_ptr exception;
};

template <typename T>
struct Promise : PromiseBase {
  void return_value(T result) { value.emplace(std::move(result)); }
  T take() {
    if (exception || !value) std::rethrow_exception(exception);  // it ended with one of the two
    return std::move(*value);
  }
  std::optional<T> value;
};

template <>
struct Promise<void> : PromiseBase {
  void return_void() const noexcept {}
  void take() const {
    if (exception) std::rethrow_exception(exception);
  }
};

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

// A coroutine that ends with a T: rpc::Task<> serves a call and ends with its grpc::Status. It
// starts when it is first awaited, or by the kit when its call has arrived. Owns its frame;
// movable.
template <typename T = grpc::Status>
class [[nodiscard]] Task {
 public:
  struct promise_type : detail::Promise<T> {
    Task get_return_object() {
      return Task(std::coroutine_handle<promise_type>::from_promise(*this));
    }
  };

  Task() = default;
  Task(Task&& other) noexcept : frame_(std::exchange(other.frame_, {})) {}
  Task& operator=(Task&& other) noexcept {
    std::swap(frame_, other.frame_);
    return *this;
  }
  ~Task() {
    if (frame_) frame_.destroy();
  }

  // Awaited by another coroutine: runs to its end, then answers its result or throws its exception.
  // Throws std::logic_error when there is nothing to run: the task is empty or has ended.
  auto operator co_await() && noexcept {
    struct [[nodiscard]] Awaiter {
      bool await_ready() const {
        if (!frame || frame.done())
          throw std::logic_error("a task was awaited that is empty or has ended");
        return false;
      }
      // Runs the task to its first wait. One that ends without a wait takes no turn of its own, so
      // that a loop over many of them does not pile up on the stack.
      bool await_suspend(std::coroutine_handle<> awaiting) const {
        frame.resume();
        if (frame.done()) return false;
        frame.promise().continuation = awaiting;
        return true;
      }
      T await_resume() const { return frame.promise().take(); }
      std::coroutine_handle<promise_type> frame;
    };
    return Awaiter{frame_};
  }

  // For the kit.
  void start() const {
    if (!frame_ || frame_.done())
      throw std::logic_error("an RPC was served with a task that is empty or has ended");
    frame_.resume();
  }
  bool done() const { return frame_ && frame_.done(); }
  T take() const { return frame_.promise().take(); }

 private:
  explicit Task(std::coroutine_handle<promise_type> frame) : frame_(frame) {}

  std::coroutine_handle<promise_type> frame_;
};

// How a method is served.
struct MethodOptions {
  // How many calls of the method may be in progress; one more is refused at once with
  // RESOURCE_EXHAUSTED. Zero: no limit. Without effect on a plain function, which is never in
  // progress: it has answered before the next call is looked at.
  std::size_t limit = 0;

  // How many calls of the method are asked for ahead, so that one poll can pick up several. At
  // least 1.
  std::size_t ahead = 1;
};

class Call;

// ------------------------------------------------------------------------------------------------
// Event: how another thread wakes a call

// Wakes the one call that waits for it. An event stays set until a wait has seen it, so one that
// comes between a look and the wait is not lost; several before one wait count once. set() may come
// from any thread; whoever calls it must have stopped doing so when the event is destroyed.
class Event {
 public:
  Event() = default;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void set() {
    const std::lock_guard lock(mutex_);
    set_ = true;
    if (waiting_) waiting_->Cancel();
  }

 private:
  friend class Call;

  // Whether it was set; it no longer is.
  bool take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(set_, false);
  }

  // From now on set() ends this alarm; null: none.
  void wakes(grpc::Alarm* alarm) {
    const std::lock_guard lock(mutex_);
    waiting_ = alarm;
    if (waiting_ && set_) waiting_->Cancel();
  }

  std::mutex mutex_;
  bool set_ = false;
  grpc::Alarm* waiting_ = nullptr;
};

// ------------------------------------------------------------------------------------------------
// ServiceBase: what the calls of a service share

class ServiceBase : public GrpcService {
 protected:
  explicit ServiceBase(std::string name) : GrpcService(std::move(name)) {}

  // A derived class that needs these hooks as well calls the ones here from its own.
  void serverStarted() override {
    for (const auto& open : openers_)
      open();
  }
  void stoppingChanged() override {
    if (!stopping()) return;
    const std::lock_guard lock(alarmsMutex_);
    for (grpc::Alarm& alarm : alarms_)
      alarm.Cancel();
  }

  // Each asks for the first calls of one method.
  std::vector<std::function<void()>> openers_;

 private:
  friend class Call;
  template <typename Method, typename Request, typename Reply>
  friend class detail::FunctionCall;

  using AlarmPosition = std::list<grpc::Alarm>::iterator;

  AlarmPosition newAlarm() {
    const std::lock_guard lock(alarmsMutex_);
    return alarms_.emplace(alarms_.end());
  }
  void dropAlarm(AlarmPosition alarm) {
    const std::lock_guard lock(alarmsMutex_);
    alarms_.erase(alarm);
  }
  // An alarm that is set while the service begins to stop is cancelled here or by
  // stoppingChanged().
  void setAlarm(grpc::Alarm& alarm, gpr_timespec deadline, OpaqueId tag) {
    const std::lock_guard lock(alarmsMutex_);
    alarm.Set(cq_, deadline, tag);
    if (stopping()) alarm.Cancel();
  }

  // The status that ends a call whose function has thrown. Called in a catch block.
  grpc::Status currentExceptionStatus() const {
    try {
      throw;
    } catch (const vorn::invalid_argument_error& error) {
      return {grpc::StatusCode::INVALID_ARGUMENT, textOf(error)};
    } catch (const vorn::unsupported_error& error) {
      return {grpc::StatusCode::UNIMPLEMENTED, textOf(error)};
    } catch (const vorn::configuration_error& error) {
      return {grpc::StatusCode::FAILED_PRECONDITION, textOf(error)};
    } catch (const vorn::no_scoped_lock_obtained_error& error) {
      return {grpc::StatusCode::UNAVAILABLE, textOf(error)};
    } catch (const std::exception& error) {
      tracer_.trace0("a call failed: %s", error.what());
    } catch (...) {
      tracer_.trace0("a call failed with an unknown exception");
    }
    return {grpc::StatusCode::INTERNAL, "internal error"};
  }

  // A client refuses a status whose text is larger than the metadata that it takes, 8 KiB.
  static std::string textOf(const std::exception& error) {
    constexpr std::size_t kLongest = 1024;  // three times as many bytes on the wire at most
    return std::string(std::string_view(error.what()).substr(0, kLongest));
  }

  std::mutex alarmsMutex_;
  std::list<grpc::Alarm> alarms_;  // those of the calls that have waited, pending or not
};

// ------------------------------------------------------------------------------------------------
// Call, Reader, Writer, ReaderWriter: what a coroutine is given

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

// ------------------------------------------------------------------------------------------------
// The machinery: one class per kind of exchange, and what makes a call of a method out of it

namespace detail {

// A method of a service with the function that serves it.
template <typename AsyncService, typename Ask, typename Handler>
struct Method {
  // Asks gRPC for a call, to arrive under the tag.
  template <typename... Arguments>
  void ask(OpaqueId tag, Arguments*... arguments) {
    (async.*askFor)(arguments..., queue, queue, tag);
  }

  ServiceBase& service;
  AsyncService& async;
  grpc::ServerCompletionQueue* queue;
  Ask askFor;
  Handler handler;
  MethodOptions options;
  std::size_t inProgress = 0;
};

// Ends a call that has one reply, which a client is sent only with an OK.
template <typename Responder, typename Reply>
void answer(Responder& responder, const Reply& reply, const grpc::Status& status, OpaqueId tag) {
  if (status.ok()) {
    responder.Finish(reply, status, tag);
  } else {
    responder.FinishWithError(status, tag);
  }
}

template <typename Request, typename Reply>
class UnaryExchange : public Call {
 protected:
  using Call::Call;

  template <typename Method>
  void ask(Method& method, OpaqueId tag) {
    method.ask(tag, &context_, &request_, &grpc_);
  }
  template <typename Handler>
  Task<> serve(Handler& handler) {
    return handler(static_cast<Call&>(*this), std::as_const(request_), reply_);
  }
  void finish(const grpc::Status& status, OpaqueId tag) override {
    answer(grpc_, reply_, status, tag);
  }

 private:
  Request request_;
  Reply reply_;
  grpc::ServerAsyncResponseWriter<Reply> grpc_{&context_};
};

template <typename Request, typename Reply>
class ReadExchange : public Reader<Request> {
 protected:
  using Reader<Request>::Reader;

  template <typename Method>
  void ask(Method& method, OpaqueId tag) {
    method.ask(tag, &this->context_, &grpc_);
  }
  template <typename Handler>
  Task<> serve(Handler& handler) {
    return handler(static_cast<Reader<Request>&>(*this), reply_);
  }
  void startRead(Request& item, OpaqueId tag) override { grpc_.Read(&item, tag); }
  void finish(const grpc::Status& status, OpaqueId tag) override {
    answer(grpc_, reply_, status, tag);
  }

 private:
  Reply reply_;
  grpc::ServerAsyncReader<Reply, Request> grpc_{&this->context_};
};

template <typename Request, typename Reply>
class WriteExchange : public Writer<Reply> {
 protected:
  using Writer<Reply>::Writer;

  template <typename Method>
  void ask(Method& method, OpaqueId tag) {
    method.ask(tag, &this->context_, &request_, &this->grpc_);
  }
  template <typename Handler>
  Task<> serve(Handler& handler) {
    return handler(static_cast<Writer<Reply>&>(*this), std::as_const(request_));
  }
  void finish(const grpc::Status& status, OpaqueId tag) override {
    this->grpc_.Finish(status, tag);
  }

 private:
  Request request_;
};

template <typename Request, typename Reply>
class ReadWriteExchange : public ReaderWriter<Request, Reply> {
 protected:
  using ReaderWriter<Request, Reply>::ReaderWriter;

  template <typename Method>
  void ask(Method& method, OpaqueId tag) {
    method.ask(tag, &this->context_, &this->grpc_);
  }
  template <typename Handler>
  Task<> serve(Handler& handler) {
    return handler(static_cast<ReaderWriter<Request, Reply>&>(*this));
  }
  void finish(const grpc::Status& status, OpaqueId tag) override {
    this->grpc_.Finish(status, tag);
  }
};

// One call of a method that is served by a coroutine.
template <typename Method, typename Exchange>
class CoroutineCall final : public Exchange {
 public:
  CoroutineCall(Method& method, OpaqueId tag) : Exchange(method.service, tag), method_(method) {
    this->ask(method, tag);
  }
  ~CoroutineCall() override { this->abandon(); }

  RequestHandlerPtr spawn(OpaqueId tag) override {
    return std::make_shared<CoroutineCall>(method_, tag);
  }

 private:
  bool takeSlot() override { return this->slot_.take(method_.inProgress, method_.options.limit); }
  Task<> begin() override { return this->serve(method_.handler); }

  Method& method_;
};

// One call of a unary method that is served by a plain function.
template <typename Method, typename Request, typename Reply>
class FunctionCall final : public RequestHandler {
 public:
  FunctionCall(Method& method, OpaqueId tag) : method_(method) {
    opaqueId_ = tag;
    method.ask(tag, &context_, &request_, &grpc_);
  }

  RequestHandlerPtr spawn(OpaqueId tag) override {
    return std::make_shared<FunctionCall>(method_, tag);
  }

  // Answers at once; the state that is left at AWAITING_CALL says so.
  void proceed(OpaqueId tag) override {
    if (!method_.service.completionOk()) return method_.service.removeHandler(tag);  // no call came
    answer(grpc_, reply_, served(), tag);
  }

 private:
  grpc::Status served() {
    try {
      if constexpr (std::invocable<decltype(method_.handler)&, const Request&, Reply&>) {
        return method_.handler(std::as_const(request_), reply_);
      } else {
        return method_.handler(context_, std::as_const(request_), reply_);
      }
    } catch (...) {
      return method_.service.currentExceptionStatus();
    }
  }

  Method& method_;
  grpc::ServerContext context_;
  Request request_;
  Reply reply_;
  grpc::ServerAsyncResponseWriter<Reply> grpc_{&context_};
};

// How many methods the layers of a generated class make asynchronous: AsyncService is
// WithAsyncMethod_A<WithAsyncMethod_B<... Service>>, in the order of the service's methods.
template <typename Layers>
constexpr int kAsyncMethods = 0;
template <template <typename> typename Layer, typename Rest>
constexpr int kAsyncMethods<Layer<Rest>> = 1 + kAsyncMethods<Rest>;

// The generated asynchronous service, whose methods can be asked for by their numbers as well.
template <typename Generated>
class Host : public Generated::AsyncService {
 public:
  // Throws std::logic_error when the classes were not generated as expected.
  static const google::protobuf::ServiceDescriptor& descriptor() {
    static const auto& found = findDescriptor();
    return found;
  }

  // Asks for a call of a method, whatever its messages are.
  void ask(int method, grpc::ServerContext* context, grpc::ByteBuffer* request,
           grpc::ServerAsyncReaderWriter<grpc::ByteBuffer, grpc::ByteBuffer>* stream,
           grpc::ServerCompletionQueue* queue, OpaqueId tag) {
    if (descriptor().method(method)->client_streaming()) {
      this->RequestAsyncClientStreaming(method, context, stream, queue, queue, tag);
    } else {
      this->RequestAsyncUnary(method, context, request, stream, queue, queue, tag);
    }
  }

 private:
  static const google::protobuf::ServiceDescriptor& findDescriptor() {
    const auto* found = google::protobuf::DescriptorPool::generated_pool()->FindServiceByName(
        Generated::service_full_name());
    if (!found || found->method_count() != kAsyncMethods<typename Generated::AsyncService>) {
      throw std::logic_error(std::string(Generated::service_full_name()) +
                             ": the generated classes tell nothing of its methods");
    }
    return *found;
  }
};

// One call of a method that nothing serves. Without it, gRPC would keep such calls for as long as
// their clients wait.
template <typename Host>
class RefusedCall final : public RequestHandler {
 public:
  RefusedCall(GrpcService& service, Host& host, grpc::ServerCompletionQueue* queue, int method,
              OpaqueId tag)
      : service_(service), host_(host), queue_(queue), method_(method) {
    opaqueId_ = tag;
    host.ask(method, &context_, &request_, &grpc_, queue, tag);
  }

  RequestHandlerPtr spawn(OpaqueId tag) override {
    return std::make_shared<RefusedCall>(service_, host_, queue_, method_, tag);
  }

  // Left at AWAITING_CALL: this is the call's last operation.
  void proceed(OpaqueId tag) override {
    if (!service_.completionOk()) return service_.removeHandler(tag);  // no call came
    grpc_.Finish({grpc::StatusCode::UNIMPLEMENTED, ""}, tag);
  }

 private:
  GrpcService& service_;
  Host& host_;
  grpc::ServerCompletionQueue* const queue_;
  const int method_;
  grpc::ServerContext context_;
  grpc::ByteBuffer request_;
  grpc::ServerAsyncReaderWriter<grpc::ByteBuffer, grpc::ByteBuffer> grpc_{&context_};
};

}  // namespace detail

// ------------------------------------------------------------------------------------------------
// Service: what an agent derives from

// A service of the generated class of its name, Routing for `service Routing`. The derived class
// calls method() in its constructor, once per RPC; an RPC without one is answered UNIMPLEMENTED.
// The function is kept as long as the service. Naming an RPC twice throws std::logic_error.
template <typename Generated>
class Service : public ServiceBase {
 public:
  using Async = typename Generated::AsyncService;

 protected:
  // `name` as for GrpcService.
  explicit Service(std::string name) : ServiceBase(std::move(name)) {}

  // Unary. The handler is a function (const Request&, Reply&) or (grpc::ServerContext&, const
  // Request&, Reply&) that answers a grpc::Status, or a coroutine (Call&, const Request&, Reply&)
  // -> Task<>. A function must not ask its context whether the call IsCancelled(): gRPC knows that
  // only of calls whose end is followed, which are those of coroutines.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*ask)(grpc::ServerContext*, Request*,
                                grpc::ServerAsyncResponseWriter<Reply>*, grpc::CompletionQueue*,
                                grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    using Method = detail::Method<Async, decltype(ask), Handler>;
    if constexpr (std::invocable<Handler&, Call&, const Request&, Reply&>) {
      add<Method, detail::CoroutineCall<Method, detail::UnaryExchange<Request, Reply>>>(
          ask, std::move(handler), options);
    } else {
      add<Method, detail::FunctionCall<Method, Request, Reply>>(ask, std::move(handler), options);
    }
  }

  // Client streaming. The handler is a coroutine (Reader<Request>&, Reply&) -> Task<>.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*ask)(grpc::ServerContext*, grpc::ServerAsyncReader<Reply, Request>*,
                                grpc::CompletionQueue*, grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    addCoroutine<detail::ReadExchange<Request, Reply>>(ask, std::move(handler), options);
  }

  // Server streaming. The handler is a coroutine (Writer<Reply>&, const Request&) -> Task<>.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*ask)(grpc::ServerContext*, Request*, grpc::ServerAsyncWriter<Reply>*,
                                grpc::CompletionQueue*, grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    addCoroutine<detail::WriteExchange<Request, Reply>>(ask, std::move(handler), options);
  }

  // Bidirectional streaming. The handler is a coroutine (ReaderWriter<Request, Reply>&) -> Task<>.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*ask)(grpc::ServerContext*,
                                grpc::ServerAsyncReaderWriter<Reply, Request>*,
                                grpc::CompletionQueue*, grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    addCoroutine<detail::ReadWriteExchange<Request, Reply>>(ask, std::move(handler), options);
  }

  void registerWith(grpc::ServerBuilder& builder) override {
    builder.RegisterService(&async_);
    const int methods = async_.descriptor().method_count();
    for (int method = 0; method < methods; ++method) {
      if (!served_.contains(method)) openers_.push_back([this, method] { refuse(method); });
    }
  }

 private:
  void refuse(int method) {
    using Refused = detail::RefusedCall<detail::Host<Generated>>;
    registerHandler(std::make_shared<Refused>(*this, async_, cq_, method, nextOpaqueId()));
  }

  template <typename Exchange, typename Base, typename... Arguments, typename Handler>
  void addCoroutine(void (Base::*ask)(Arguments...), Handler handler, MethodOptions options) {
    using Ask = decltype(ask);
    using Method = detail::Method<Async, Ask, Handler>;
    add<Method, detail::CoroutineCall<Method, Exchange>>(ask, std::move(handler), options);
  }

  template <typename Method, typename CallType, typename Base, typename... Arguments,
            typename Handler>
  void add(void (Base::*ask)(Arguments...), Handler handler, MethodOptions options) {
    if (!served_.insert(detail::kAsyncMethods<Async> - detail::kAsyncMethods<Base>).second)
      throw std::logic_error("an RPC was given two functions");
    const auto method =
        std::make_shared<Method>(Method{*this, async_, nullptr, ask, std::move(handler), options});
    openers_.push_back([this, method] {
      method->queue = cq_;
      for (std::size_t i = 0; i < std::max<std::size_t>(1, method->options.ahead); ++i) {
        registerHandler(std::make_shared<CallType>(*method, nextOpaqueId()));
      }
    });
  }

  detail::Host<Generated> async_;
  std::set<int> served_;  // by their numbers in the service
};

}  // namespace VornSdkRpc::rpc
