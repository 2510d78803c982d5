#include <VornSdkRpc/RpcWakeups.h>

#include <VornSdkRpc/GrpcService.h>
#include <grpc/support/time.h>
#include <grpcpp/completion_queue.h>

#include <iterator>
#include <utility>

namespace VornSdkRpc::rpc::detail {

// ------------------------------------------------------------------------------------------------
// Sleeper

void Sleeper::ready() noexcept {
  const vorn::lock_guard lock(wakeups_.mutex_);
  if (std::exchange(ready_, true)) return;
  previous_ = wakeups_.last_;
  next_ = nullptr;
  (previous_ ? previous_->next_ : wakeups_.first_) = this;
  wakeups_.last_ = this;
  wakeups_.readyOnes_.fetch_add(1, std::memory_order_relaxed);
  if (!(wakeups_.onServingThread() && wakeups_.inTurn_)) wakeups_.ring();
}

void Sleeper::at(Clock::time_point time) {
  if (timer_) wakeups_.timers_.erase(*timer_);
  timer_.reset();  // should the next line throw
  timer_ = wakeups_.timers_.emplace(time, this);
  wakeups_.newTimer_ = true;
}

void Sleeper::cancel() noexcept {
  if (timer_) wakeups_.timers_.erase(*timer_);
  timer_.reset();
  if (!ready_) return;
  const vorn::lock_guard lock(wakeups_.mutex_);
  wakeups_.unlink(*this);
}

// ------------------------------------------------------------------------------------------------
// Wakeups

void Wakeups::open(grpc::ServerCompletionQueue& queue, OpaqueId tag) {
  opaqueId_ = tag;
  state_ = IN_PROGRESS;
  thread_ = std::this_thread::get_id();
  const vorn::lock_guard lock(mutex_);
  queue_ = &queue;
  open_ = true;
}

void Wakeups::close() {
  const vorn::lock_guard lock(mutex_);
  open_ = false;
  if (set_) alarm_.Cancel();
}

Clock::time_point Wakeups::now() const {
  const auto stoodStill = stoodStill_.load();
  return stoodStill == 0 ? Clock::now() : Clock::time_point(Clock::duration(stoodStill));
}

void Wakeups::timeIs(Clock::time_point now) {
  stoodStill_ = now.time_since_epoch().count();
  const vorn::lock_guard lock(mutex_);
  ring();
}

Wakeups::Turn::~Turn() {
  if (wakeups_.newTimer_ || wakeups_.readyOnes_.load(std::memory_order_relaxed) != 0)
    wakeups_.settle();
  wakeups_.inTurn_ = false;
}

void Wakeups::Turn::finish() {
  if (wakeups_.readyOnes_.load(std::memory_order_relaxed) != 0) wakeups_.wakeReady();
}

void Wakeups::proceed(OpaqueId) {
  Turn turn(*this);
  {
    const vorn::lock_guard lock(mutex_);
    set_ = ringing_ = false;
  }
  newTimer_ = true;  // the alarm is to be set for the next one
  wakeLate();
  wakeReady();
}

RequestHandlerPtr Wakeups::spawn(OpaqueId) { return nullptr; }

// As many as are ready now, so that those which make themselves ready again hold up nobody.
void Wakeups::wakeReady() {
  for (auto left = readyOnes_.load(std::memory_order_relaxed); left > 0; --left) {
    Sleeper* sleeper = nullptr;
    {
      const vorn::lock_guard lock(mutex_);
      sleeper = first_;
      if (!sleeper) return;
      unlink(*sleeper);
    }
    if (service_.stopping()) return;
    sleeper->woken_(sleeper->owner_);
  }
}

// As wakeReady() does.
void Wakeups::wakeLate() {
  const auto until = now();
  for (auto left = std::distance(timers_.begin(), timers_.upper_bound(until)); left > 0; --left) {
    if (timers_.empty() || timers_.begin()->first > until || service_.stopping()) return;
    Sleeper& sleeper = *timers_.begin()->second;
    timers_.erase(timers_.begin());
    sleeper.timer_ = std::nullopt;
    sleeper.woken_(sleeper.owner_);
  }
}

// Sees to it that the alarm fires for what is still to be woken.
void Wakeups::settle() noexcept {
  newTimer_ = false;
  const vorn::lock_guard lock(mutex_);
  if (!open_) return;
  if (first_) return ring();
  if (timers_.empty()) return;
  const auto earliest = timers_.begin()->first;
  if (stoodStill_ != 0) {
    if (earliest <= now()) ring();  // timeIs() does for the others
    return;
  }
  if (!set_) return setAlarm(earliest);
  if (!ringing_ && earliest < alarmTime_) ring();
}

void Wakeups::unlink(Sleeper& sleeper) noexcept {
  (sleeper.previous_ ? sleeper.previous_->next_ : first_) = sleeper.next_;
  (sleeper.next_ ? sleeper.next_->previous_ : last_) = sleeper.previous_;
  sleeper.ready_ = false;
  readyOnes_.fetch_sub(1, std::memory_order_relaxed);
}

void Wakeups::ring() noexcept {
  if (!open_ || ringing_) return;
  if (set_) {
    alarm_.Cancel();
  } else {
    setAlarm(Clock::time_point::min());
  }
  ringing_ = true;
}

void Wakeups::setAlarm(Clock::time_point time) noexcept {
  gpr_timespec deadline = gpr_inf_past(GPR_CLOCK_MONOTONIC);
  if (time != Clock::time_point::min()) {
    deadline = gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC),
                            gpr_time_from_nanos((time - Clock::now()).count(), GPR_TIMESPAN));
  }
  set_ = true;
  alarmTime_ = time;
  alarm_.Set(queue_, deadline, opaqueId_);
}

}  // namespace VornSdkRpc::rpc::detail
