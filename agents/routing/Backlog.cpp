#include "agents/routing/Backlog.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

namespace routing_agent {

namespace {

constexpr std::size_t kChangesPerStep = 64;

// What a change takes on the backlog beside what it holds.
constexpr std::size_t kBytesPerChange = 64;

}  // namespace

Backlog::Drain::Drain(Backlog& backlog, const Velm::Ptr<Tarsk::TaskScheduler>& scheduler)
    : BacklogImplBase("RoutingBacklog", scheduler), backlog_(backlog) {}

void Backlog::Drain::handleBacklog() {
  std::vector<Waiting> changes;
  try {
    changes = backlog_.next();
  } catch (const std::bad_alloc&) {
    return wake();  // nothing has been taken; later there may be memory again
  }
  for (const auto& [change, bytes] : changes) {
    try {
      change();
    } catch (const std::exception& error) {
      backlog_.tracer_.trace0("a change could not be programmed: %s", error.what());
    } catch (...) {
      backlog_.tracer_.trace0("a change could not be programmed");
    }
  }
  std::this_thread::sleep_for(backlog_.stepTime_);
  if (backlog_.done(changes)) wake();
}

Backlog::Backlog(std::chrono::milliseconds stepTime, std::size_t limit)
    : stepTime_(stepTime),
      limit_(limit),
      scheduler_(new Tarsk::TaskScheduler("RoutingScheduler")),
      drain_(*this, scheduler_),
      thread_([this] { scheduler_->run(); }) {}

Backlog::~Backlog() { stop(); }

void Backlog::stop() {
  if (!thread_.joinable()) return;
  scheduler_->stop();
  thread_.join();
}

void Backlog::add(Change change, std::size_t bytes) {
  {
    const std::lock_guard lock(mutex_);
    changes_.push_back({std::move(change), kBytesPerChange + bytes});
    ++waiting_;
    bytes_ += kBytesPerChange + bytes;
  }
  drain_.wake();
}

bool Backlog::full() const {
  const std::lock_guard lock(mutex_);
  return bytes_ >= limit_;
}

std::size_t Backlog::waiting() const {
  const std::lock_guard lock(mutex_);
  return waiting_;
}

std::vector<Backlog::Waiting> Backlog::next() {
  const std::lock_guard lock(mutex_);
  const auto end =
      changes_.begin() + static_cast<std::ptrdiff_t>(std::min(changes_.size(), kChangesPerStep));
  std::vector<Waiting> step(std::move_iterator(changes_.begin()), std::move_iterator(end));
  changes_.erase(changes_.begin(), end);
  return step;
}

bool Backlog::done(const std::vector<Waiting>& changes) {
  const std::lock_guard lock(mutex_);
  waiting_ -= changes.size();
  const bool wasFull = bytes_ >= limit_;
  for (const auto& done : changes)
    bytes_ -= done.bytes;
  if (wasFull && bytes_ < limit_) room.set();
  return waiting_ != 0;
}

}  // namespace routing_agent
