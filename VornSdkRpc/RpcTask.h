#pragma once

// What a coroutine of the kit returns.
//
// A function that returns an rpc::Task<T> and uses co_await or co_return is a coroutine that ends
// with a T: `rpc::Task<>` serves a call and ends with its grpc::Status. Another coroutine awaits a
// task, which runs it to its end:
//
//   rpc::Task<int> half(rpc::Call& call, int number);
//
//   rpc::Task<int> quarter(rpc::Call& call, int number) {
//     const int halved = co_await half(call, number);
//     co_return co_await half(call, halved);
//   }
//
// A task is used once: it is awaited once, or handed to the kit as what serves a call. It owns its
// coroutine's frame; a task that is destroyed before its end destroys the frame where it waits, and
// the locals in it. It runs on the server's one thread, and belongs to it.

#include <grpcpp/support/status.h>

#include <coroutine>
#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>

namespace VornSdkRpc::rpc {

class Call;

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

 private:
  friend class Call;

  void start() const {
    if (!frame_ || frame_.done())
      throw std::logic_error("an RPC was served with a task that is empty or has ended");
    frame_.resume();
  }
  bool done() const { return frame_ && frame_.done(); }
  T take() const { return frame_.promise().take(); }
  explicit Task(std::coroutine_handle<promise_type> frame) : frame_(frame) {}

  std::coroutine_handle<promise_type> frame_;
};

}  // namespace VornSdkRpc::rpc
