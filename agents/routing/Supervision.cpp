#include "agents/routing/Supervision.h"

#include <systemd/sd-daemon.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace routing_agent {

namespace {

// Failures are nobody's business: the service manager acts on what it is not told.
void tell(const std::string& state) { sd_notify(0, state.c_str()); }

std::uint64_t microsecondsSinceBoot() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

Supervision::Supervision(std::function<std::string()> status, std::vector<Moving> moving)
    : status_(std::move(status)), moving_(std::move(moving)), last_(moving_.size(), 0) {
  if (std::getenv("NOTIFY_SOCKET") == nullptr) return;
  std::uint64_t watchdog = 0;  // microseconds
  if (sd_watchdog_enabled(0, &watchdog) > 0) {
    // Twice in its time, so that one look that comes late is no reason to end the agent; but the
    // serving thread may wait for 200 ms.
    interval_ = std::clamp<std::chrono::microseconds>(std::chrono::microseconds(watchdog / 2),
                                                      kLeastInterval, interval_);
  }
  thread_ = std::thread([this] { run(); });
}

Supervision::~Supervision() {
  if (!thread_.joinable()) return;
  {
    const vorn::lock_guard lock(mutex_);
    over_ = true;
    changed_.notify_one();
  }
  thread_.join();
  tell("STOPPING=1");
}

void Supervision::ready() {
  if (!thread_.joinable()) return;
  tell("READY=1\nSTATUS=" + status_());
  const vorn::lock_guard lock(mutex_);
  ready_ = true;
}

void Supervision::stopping(std::chrono::milliseconds atMost) {
  if (!thread_.joinable()) return;
  const auto microseconds = std::chrono::microseconds(atMost).count();
  tell("STOPPING=1\nEXTEND_TIMEOUT_USEC=" + std::to_string(microseconds));
  const vorn::lock_guard lock(mutex_);
  stopping_ = true;
}

void Supervision::reloading() {
  if (!thread_.joinable()) return;
  tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microsecondsSinceBoot()));
}

void Supervision::run() {
  vorn::unique_lock lock(mutex_);
  while (!changed_.wait_for(lock, interval_, [this]() VORN_REQUIRES(mutex_) { return over_; })) {
    const bool looks = ready_ && !stopping_;
    lock.unlock();
    if (looks) {
      look();
    } else {
      tell("WATCHDOG=1");  // starting and ending have time limits of their own
    }
    lock.lock();
  }
}

void Supervision::look() {
  bool moves = true;
  for (std::size_t i = 0; i < moving_.size(); ++i) {
    const bool idle =
        moving_[i].idle();  // before the count: what begins in between counts next time
    const auto count = moving_[i].count();
    if (count == std::exchange(last_[i], count) && !idle) {
      moves = false;
      tracer_.error("the %s stands still: the watchdog is not told that the agent lives",
                    moving_[i].name.c_str());
    }
  }
  tell(std::string(moves ? "WATCHDOG=1\n" : "") + "STATUS=" + status_());
}

}  // namespace routing_agent
