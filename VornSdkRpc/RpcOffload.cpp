#include <VornSdkRpc/RpcOffload.h>

#include <cassert>
#include <stdexcept>
#include <utility>

namespace VornSdkRpc::rpc {

namespace detail {

Offloaded::Offloaded() = default;

Offloaded::~Offloaded() = default;

void Offloaded::run() {
  const bool firstRun = !begun_.exchange(true);
  assert(firstRun && "an executor runs a piece of work once");
  std::exception_ptr thrown;
  try {
    work();
  } catch (...) {
    thrown = std::current_exception();
  }
  over(std::move(thrown));
}

void Offloaded::jobGone() noexcept {
  if (begun_.exchange(true)) return;
  auto dropped =
      std::make_exception_ptr(std::runtime_error("an executor has dropped a piece of work"));
  over(std::move(dropped));  // by now nothing here shares its text
}

// Keeps no reference, so that what was thrown ends on the thread that catches it.
void Offloaded::rethrow() {
  if (exception_) std::rethrow_exception(std::exchange(exception_, nullptr));
}

void Offloaded::over(std::exception_ptr exception) noexcept {
  exception_ = std::move(exception);
  destroy();
  done.set();
}

}  // namespace detail

Job::Job(std::shared_ptr<detail::Offloaded> work) {
  auto* const shared = work.get();
  work_ = {shared, [keep = std::move(work)](detail::Offloaded*) noexcept { keep->jobGone(); }};
}

}  // namespace VornSdkRpc::rpc
