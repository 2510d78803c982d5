#include <VornSdkRpc/WorkQueue.h>

#include <VornSdkRpc/StreamingToolkit.h>
#include <vorn/mutex.h>
#include <vorn/tracer.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <optional>
#include <thread>
#include <utility>

namespace VornSdkRpc {

namespace {

// More than one step ever does, and little enough to be doubled.
constexpr std::size_t kLongestStep = std::size_t{1} << 20;

bool within(std::size_t used, std::size_t limit, unsigned reservedPercent) {
  const std::size_t percent = std::min(reservedPercent, 100U);
  return limit == 0 || used < limit - limit / 100 * percent - limit % 100 * percent / 100;
}

void trace(const vorn::tracer& tracer, const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& error) {
    tracer.error("work failed: %s", error.what());
  } catch (...) {
    tracer.error("work failed with an unknown exception");
  }
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// Answer

const char* WorkQueue::Dropped::what() const noexcept {
  return "the work was dropped: its queue has been stopped";
}

// What an answer and its items share, so that either may go first.
struct WorkQueue::Answer::State {
  explicit State(rpc::Event& waiting) : event(&waiting) {}

  void expectOne() {
    const vorn::lock_guard lock(mutex);
    ++pending;
  }

  // Returns whether somebody is there to hear it.
  bool tell(const std::exception_ptr& failure) {
    const vorn::lock_guard lock(mutex);
    if (!firstFailure) firstFailure = failure;
    if (--pending == 0 && event) event->set();
    return event;
  }

  mutable vorn::mutex mutex;
  rpc::Event* event VORN_GUARDED_BY(mutex);  // null when the answer is gone
  std::size_t pending VORN_GUARDED_BY(mutex) = 0;
  std::exception_ptr firstFailure VORN_GUARDED_BY(mutex);
};

WorkQueue::Answer::Answer() : state_(std::make_shared<State>(event_)) {}

WorkQueue::Answer::~Answer() {
  const vorn::lock_guard lock(state_->mutex);
  state_->event = nullptr;
}

std::size_t WorkQueue::Answer::pending() const {
  const vorn::lock_guard lock(state_->mutex);
  return state_->pending;
}

void WorkQueue::Answer::get() const {
  const vorn::lock_guard lock(state_->mutex);
  if (state_->firstFailure) std::rethrow_exception(state_->firstFailure);
}

// ------------------------------------------------------------------------------------------------
// Queue: the backlog behind it

class WorkQueue::Queue : private BacklogImplBase {
 public:
  Queue(const char* name, const Velm::Ptr<Tarsk::TaskScheduler>& scheduler, Options options)
      : BacklogImplBase(name, scheduler),
        options_(std::move(options)),
        tracer_(name),
        scheduler_(scheduler) {}

  // From now on a thread of the queue's own runs the scheduler.
  void startThread() {
    thread_ = std::thread([this] { scheduler_->run(); });
  }

  bool add(Work work, std::size_t bytes, Kind kind, std::shared_ptr<Answer::State> answer);
  bool hasRoom(Kind kind) const;
  rpc::Events& room() { return room_; }
  Figures figures() const;
  void stop();

 private:
  using Clock = std::chrono::steady_clock;

  struct Item {
    Work work;
    std::size_t bytes;
    Clock::time_point added;
    std::shared_ptr<Answer::State> answer;
  };

  // What a step has done and not counted yet.
  struct Tally {
    std::size_t items = 0;
    std::size_t bytes = 0;
    std::size_t failed = 0;
  };

  void handleBacklog() override;
  bool takeWaiting();
  void perform(Item item, Tally& tally);
  void count(Tally& tally);
  bool endStep(std::size_t done, bool withinBudget);
  std::size_t mostInStep() const;
  bool isRoom(Kind kind) const VORN_REQUIRES(mutex_);

  const Options options_;
  const vorn::tracer tracer_;
  const Velm::Ptr<Tarsk::TaskScheduler> scheduler_;
  rpc::Events room_;
  std::deque<Item> taken_;  // of the scheduler's thread: what no adding thread has to do with

  mutable vorn::mutex mutex_;
  std::deque<Item> waiting_ VORN_GUARDED_BY(mutex_);
  std::optional<Clock::time_point> oldestTaken_ VORN_GUARDED_BY(mutex_);
  Figures figures_ VORN_GUARDED_BY(mutex_);

  std::atomic<bool> stopped_ = false;
  std::thread thread_;  // when it is the queue's own
};

bool WorkQueue::Queue::add(Work work, std::size_t bytes, Kind kind,
                           std::shared_ptr<Answer::State> answer) {
  Item item{std::move(work), sizeof(Item) + bytes, options_.now(), std::move(answer)};
  {
    const vorn::lock_guard lock(mutex_);
    if (stopped_ || !isRoom(kind)) {
      ++figures_.refused;
      return false;
    }
    waiting_.push_back(std::move(item));
    if (waiting_.back().answer) waiting_.back().answer->expectOne();
    ++figures_.items;
    figures_.bytes += waiting_.back().bytes;
  }
  wake();
  return true;
}

bool WorkQueue::Queue::hasRoom(Kind kind) const {
  const vorn::lock_guard lock(mutex_);
  return !stopped_ && isRoom(kind);
}

bool WorkQueue::Queue::isRoom(Kind kind) const {
  const unsigned reserved = kind == bulk ? options_.singleShare : 0;
  return within(figures_.bytes, options_.maxBytes, reserved) &&
         within(figures_.items, options_.maxItems, reserved);
}

WorkQueue::Figures WorkQueue::Queue::figures() const {
  const auto now = options_.now();
  const vorn::lock_guard lock(mutex_);
  Figures figures = figures_;
  const auto oldest = oldestTaken_       ? *oldestTaken_
                      : waiting_.empty() ? now
                                         : waiting_.front().added;
  figures.oldest = std::max(now - oldest, std::chrono::nanoseconds(0));
  return figures;
}

std::size_t WorkQueue::Queue::mostInStep() const {
  const vorn::lock_guard lock(mutex_);
  return figures_.step;
}

void WorkQueue::Queue::handleBacklog() {
  const std::size_t most = mostInStep();
  const auto begin = options_.now();
  Tally tally;
  std::size_t done = 0;
  std::chrono::nanoseconds taken{0};
  const auto inTime = [&] { return taken < options_.stepBudget; };
  for (; done < most && inTime() && !stopped_ && takeWaiting(); ++done) {
    Item item = std::move(taken_.front());
    taken_.pop_front();
    perform(std::move(item), tally);
    taken = options_.now() - begin;
  }
  count(tally);
  if (options_.stepEnded) options_.stepEnded(taken);
  if (endStep(done, inTime())) wake();
}

// Takes everything that waits at once, so that neither side holds up the other for each item.
bool WorkQueue::Queue::takeWaiting() {
  if (!taken_.empty()) return true;
  const vorn::lock_guard lock(mutex_);
  if (waiting_.empty()) return false;
  taken_.swap(waiting_);
  oldestTaken_ = taken_.front().added;
  return true;
}

void WorkQueue::Queue::perform(Item item, Tally& tally) {
  std::exception_ptr failure;
  try {
    item.work();
  } catch (...) {
    failure = std::current_exception();
    ++tally.failed;
  }
  item.work = nullptr;  // what it holds goes before anybody hears that it is done
  ++tally.items;
  tally.bytes += item.bytes;
  bool heard = false;
  if (item.answer) {
    count(tally);  // so that who hears it finds it counted
    heard = item.answer->tell(failure);
  }
  if (failure && !heard) trace(tracer_, failure);
}

void WorkQueue::Queue::count(Tally& tally) {
  bool moreRoom = false;
  {
    const vorn::lock_guard lock(mutex_);
    const bool before[] = {isRoom(single), isRoom(bulk)};
    // A stop in the middle of an item has counted everything as gone.
    figures_.items -= std::min(tally.items, figures_.items);
    figures_.bytes -= std::min(tally.bytes, figures_.bytes);
    figures_.done += tally.items;
    figures_.failed += tally.failed;
    oldestTaken_ = taken_.empty() ? std::nullopt : std::optional(taken_.front().added);
    moreRoom = (!before[0] && isRoom(single)) || (!before[1] && isRoom(bulk));
  }
  tally = {};
  if (moreRoom) room_.set();
}

// Returns whether more is left to do.
bool WorkQueue::Queue::endStep(std::size_t done, bool withinBudget) {
  const vorn::lock_guard lock(mutex_);
  ++figures_.runs;
  figures_.bestStep = std::max(figures_.bestStep, done);
  if (!withinBudget) {
    figures_.step = done;
  } else if (done == figures_.step) {
    figures_.step = std::min(2 * done, kLongestStep);
  }
  return !stopped_ && figures_.items != 0;
}

void WorkQueue::Queue::stop() {
  stopped_ = true;
  if (thread_.joinable()) {
    scheduler_->stop();
    thread_.join();
  }
  std::array<std::deque<Item>, 2> dropped;
  dropped[0].swap(taken_);
  {
    const vorn::lock_guard lock(mutex_);
    dropped[1].swap(waiting_);
    figures_.items = 0;
    figures_.bytes = 0;
    oldestTaken_.reset();
  }
  for (auto& items : dropped) {
    for (auto& item : items) {
      item.work = nullptr;
      if (item.answer) item.answer->tell(std::make_exception_ptr(Dropped()));
    }
  }
}

// ------------------------------------------------------------------------------------------------
// WorkQueue

WorkQueue::WorkQueue(const char* name, Options options)
    : WorkQueue(name, Velm::Ptr<Tarsk::TaskScheduler>(new Tarsk::TaskScheduler(name)),
                std::move(options)) {
  queue_->startThread();
}

WorkQueue::WorkQueue(const char* name, const Velm::Ptr<Tarsk::TaskScheduler>& scheduler,
                     Options options)
    : queue_(std::make_unique<Queue>(name, scheduler, std::move(options))) {}

WorkQueue::~WorkQueue() { queue_->stop(); }

bool WorkQueue::add(Work work, std::size_t bytes, Kind kind) {
  return queue_->add(std::move(work), bytes, kind, nullptr);
}

bool WorkQueue::add(Work work, std::size_t bytes, Answer& answer, Kind kind) {
  return queue_->add(std::move(work), bytes, kind, answer.state_);
}

bool WorkQueue::hasRoom(Kind kind) const { return queue_->hasRoom(kind); }

rpc::Events& WorkQueue::room() { return queue_->room(); }

WorkQueue::Figures WorkQueue::figures() const { return queue_->figures(); }

void WorkQueue::stop() { queue_->stop(); }

}  // namespace VornSdkRpc
