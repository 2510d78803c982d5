#pragma once

// What a coroutine of the kit returns.
//
// A function that returns an rpc::Task<T> and uses co_await or co_return is a coroutine, which ends
// with a T. An rpc::Task<> serves a call and ends with the call's grpc::Status. Another coroutine
// awaits a task, runs it that way to its end and gets its result:
//
//   rpc::Task<int> half(rpc::Call& call, int number);
//
//   rpc::Task<int> quarter(rpc::Call& call, int number) {
//     const int halved = co_await half(call, number);
//     co_return co_await half(call, halved);
//   }
//
// Rules. A task is used once: it is awaited once, or returned to the kit. It starts when it is
// awaited; the kit starts the one of a call when the call has arrived. It owns its frame: a task
// that is destroyed before its end destroys the frame where it waits, and the locals in it. It
// runs on the server's one thread.
//
// Fine print. A coroutine that is given a reference keeps the reference: what it refers to must
// outlive the task, so a coroutine takes what is not its caller's own by value. An exception that
// leaves a coroutine is thrown where its task is awaited. A coroutine that ends without co_return
// although it owes a T ends with a std::logic_error. g++ 12 destroys a temporary in a co_await
// expression twice when it is an aggregate or a lambda with captures: give it a name before. Until
// 12.3 it spoils the frame of a coroutine whose outermost block declares no variable and has a
// co_await in the condition of an if: keep what is awaited in a variable there.

#include <grpcpp/support/status.h>
#include <vorn/export.h>

#include <coroutine>
#include <exception>
#include <optional>
#include <utility>

namespace VornSdkRpc::rpc {

namespace detail {

class Exchange;

[[noreturn]] VORN_EXPORT void throwNoTask();     // a task that is empty or has ended
[[noreturn]] VORN_EXPORT void throwNoOutcome();  // a coroutine that ended without co_return

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
    if (exception) std::rethrow_exception(exception);
    if (!value) throwNoOutcome();
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

}  // namespace detail

// A coroutine that ends with a T. Movable; an empty one can be made, and nothing else be done with
// it.
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

  // Awaited by another coroutine: runs to its end, then returns its result or throws its exception.
  // Throws std::logic_error when there is nothing to run: the task is empty or has ended.
  auto operator co_await() && noexcept { return Awaiter(frame_); }

 private:
  friend class detail::Exchange;

  class [[nodiscard]] Awaiter {
   public:
    explicit Awaiter(std::coroutine_handle<promise_type> frame) noexcept : frame_(frame) {}

    bool await_ready() const {
      if (!frame_ || frame_.done()) detail::throwNoTask();
      return false;
    }
    // Runs the task to its first wait. One that ends without a wait takes no turn of its own, so
    // that a loop over many of them does not pile up on the stack.
    bool await_suspend(std::coroutine_handle<> awaiting) const {
      frame_.resume();
      if (frame_.done()) return false;
      frame_.promise().continuation = awaiting;
      return true;
    }
    T await_resume() const { return frame_.promise().take(); }

   private:
    std::coroutine_handle<promise_type> frame_;
  };

  explicit Task(std::coroutine_handle<promise_type> frame) : frame_(frame) {}

  void start() const {
    if (!frame_ || frame_.done()) detail::throwNoTask();
    frame_.resume();
  }
  bool done() const { return frame_ && frame_.done(); }
  T take() const { return frame_.promise().take(); }

  std::coroutine_handle<promise_type> frame_;
};

}  // namespace VornSdkRpc::rpc
