#pragma once

// Work that would hold up the serving thread, done on another one: a file that is read, a device
// that is asked, a checksum.
//
//   rpc::Task<> load(rpc::Call& call, const file_msg& file, count_msg& count, Executor& executor) {
//     auto work = [name = file.name()] { return readRoutes(name); };
//     const auto routes = co_await rpc::offload(call, executor, work);
//     if (!routes) co_return grpc::Status::CANCELLED;  // the call is over
//     count.set_count(routes->size());
//     co_return grpc::Status::OK;
//   }
//
// An executor is any function that takes a function and has it called once, now or later, on a
// thread of its choice:
//
//   auto onPool = [&pool](auto work) { asio::post(pool, std::move(work)); };
//   auto onThread = [&threads](auto work) { threads.emplace_back(std::move(work)); };
//
// Give the work a name, in a statement of its own. g++ 12 destroys a temporary lambda twice that
// stands in an expression with co_await, and what it has captured with it. One that captures
// nothing but references, pointers and numbers may stand there, nothing being destroyed; another is
// refused when it is compiled.

#include <VornSdkRpc/RpcCall.h>
#include <VornSdkRpc/RpcEvent.h>
#include <VornSdkRpc/RpcTask.h>
#include <vorn/export.h>

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace VornSdkRpc::rpc {

namespace detail {

// A piece of work, and what becomes of it. Shared by the call that waits and by the job that runs
// it, whichever lives longer.
class VORN_EXPORT Offloaded {
 public:
  Offloaded();
  virtual ~Offloaded();
  Offloaded(const Offloaded&) = delete;
  Offloaded& operator=(const Offloaded&) = delete;

  // Does the work, and wakes the call. Asserts that it is the first time.
  void run();

  // The work can't be run any more. Wakes the call, unless it has been run.
  void jobGone() noexcept;

  Event done;

 protected:
  virtual void work() = 0;              // keeps its result
  virtual void destroy() noexcept = 0;  // the function, with what it has captured

  void rethrow();

 private:
  VORN_NO_EXPORT void over(std::exception_ptr exception) noexcept;

  std::atomic<bool> begun_ = false;
  std::exception_ptr exception_;  // written before `done` is set, read by whom that has woken
};

template <typename Work>
class OffloadedWork final : public Offloaded {
 public:
  using Result = std::decay_t<std::invoke_result_t<Work&>>;
  // What co_await returns: empty or false when the call is over.
  using Answer = std::conditional_t<std::is_void_v<Result>, bool, std::optional<Result>>;

  template <typename Function>
  // NOLINTNEXTLINE(bugprone-forwarding-reference-overload): nobody copies one
  explicit OffloadedWork(Function&& function) : work_(std::forward<Function>(function)) {}

  // Throws what the work has thrown. Once.
  Answer take() {
    rethrow();
    return std::move(answer_);
  }

 private:
  void work() override {
    // NOLINTNEXTLINE(bugprone-unchecked-optional-access): it is destroyed afterwards
    Work& work = *work_;
    if constexpr (std::is_void_v<Result>) {
      work();
      answer_ = true;
    } else {
      answer_.emplace(work());
    }
  }
  void destroy() noexcept override { work_.reset(); }

  std::optional<Work> work_;
  Answer answer_{};
};

template <typename Work>
Task<typename OffloadedWork<Work>::Answer> offloaded(Call& call,
                                                     std::shared_ptr<OffloadedWork<Work>> work) {
  typename OffloadedWork<Work>::Answer none{};
  if (!work) co_return none;
  if (!co_await call.waitThroughDrain(work->done)) co_return none;
  co_return work->take();
}

// What may stand in an expression with co_await, whatever g++ 12 does to it: what has a name, or a
// temporary whose destruction does nothing.
template <typename Argument>
concept SafeBesideAwait = std::is_lvalue_reference_v<Argument> ||
                          std::is_trivially_destructible_v<std::remove_reference_t<Argument>>;

// To copy what the caller has named, or to move what can't be copied.
template <typename Work>
decltype(auto) copied(Work& work) {
  if constexpr (std::is_copy_constructible_v<Work>) {
    return std::as_const(work);
  } else {
    return std::move(work);
  }
}

}  // namespace detail

// What an executor is given: a function without arguments or a result, to be called once, on any
// thread. It can be copied, so that it fits into a std::function; of all copies together one may be
// called. When the last copy is destroyed without a call, the call that waits is told so. All of
// that may happen whenever it likes: the call, its service and its server may be gone. Calling it
// twice is a programming error, and ends the process by an assertion.
class VORN_EXPORT Job {
 public:
  void operator()() const { work_->run(); }

 private:
  template <typename Executor, typename Work>
  friend auto offload(Call& call, Executor&& executor, Work&& work);

  explicit Job(std::shared_ptr<detail::Offloaded> work);

  std::shared_ptr<detail::Offloaded> work_;  // its last copy says jobGone()
};

// Hands `work`, a function without arguments, to the executor, at once; co_await waits until it has
// been done. To start several pieces before waiting for the first, keep what this returns:
//
//   auto first = rpc::offload(call, executor, one);
//   auto second = rpc::offload(call, executor, other);
//   const auto firstResult = co_await std::move(first);
//
// co_await returns, on the serving thread,
// - the result, as a std::optional that is empty when the call is over (cancelled, its deadline
//   past); for work without a result, true, and false when the call is over. It does not wait for
//   the work then, which goes on without anybody to take its result. For a call that is over
//   already the work is not even begun. While the server is being drained the work is waited for.
// - what the work has thrown, which ends the call as an exception of the coroutine's own does;
// - std::runtime_error when the executor has dropped the work. What the executor itself throws
//   comes out of offload().
//
// `work` is copied, or moved when it can't be copied. It must own what it uses, or refer to what
// outlives the executor's use of it: the coroutine, the request and the call may be gone before the
// work is done. It and its captures are destroyed on the thread that has run or dropped it, before
// the call goes on. A result that nobody takes is destroyed on that thread or the call's.
//
// What has happened before offload() is seen by the work, and what the work has done is seen by the
// coroutine. Serving thread; the executor is called on it.
template <typename Executor, typename Work>
auto offload(Call& call, Executor&& executor, Work&& work) {
  using State = detail::OffloadedWork<std::decay_t<Work>>;
  static_assert(detail::SafeBesideAwait<Work&&>,
                "give the work a name before the co_await, and hand that over: g++ 12 destroys a "
                "temporary lambda there twice");
  static_assert(detail::SafeBesideAwait<Executor&&>,
                "give the executor a name before the co_await, and hand that over: g++ 12 destroys "
                "a temporary lambda there twice");
  std::shared_ptr<State> state;
  if (!call.cancelled()) {
    state = std::make_shared<State>(detail::copied(work));
    std::invoke(executor, Job(state));
  }
  return detail::offloaded<std::decay_t<Work>>(call, std::move(state));
}

}  // namespace VornSdkRpc::rpc
