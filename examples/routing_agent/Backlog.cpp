#include "examples/routing_agent/Backlog.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

namespace routing_agent {

namespace {

constexpr std::size_t kChangesPerStep = 64;

}  // namespace

Backlog::Drain::Drain(Backlog& backlog, const Velm::Ptr<Tarsk::TaskScheduler>& scheduler)
    : BacklogImplBase("RoutingBacklog", scheduler),
      backlog_(backlog),
      task_(backlogSm_->backlogTask()) {}

void Backlog::Drain::handleBacklog() {
  std::vector<Change> changes;
  try {
    changes = backlog_.next();
  } catch (const std::bad_alloc&) {
    return wake();  // nothing has been taken; later there may be memory again
  }
  for (const auto& change : changes) {
    try {
      change();
    } catch (const std::exception& error) {
      backlog_.tracer_.trace0("a change could not be programmed: %s", error.what());
    } catch (...) {
      backlog_.tracer_.trace0("a change could not be programmed");
    }
  }
  std::this_thread::sleep_for(backlog_.stepTime_);
  if (backlog_.done(changes.size())) wake();
}

Backlog::Backlog(std::chrono::milliseconds stepTime)
    : stepTime_(stepTime),
      scheduler_(new Tarsk::TaskScheduler("RoutingScheduler")),
      drain_(*this, scheduler_),
      thread_([this] { scheduler_->run(); }) {}

Backlog::~Backlog() { stop(); }

void Backlog::stop() {
  if (!thread_.joinable()) return;
  scheduler_->stop();
  thread_.join();
}

void Backlog::add(Change change) {
  {
    const std::lock_guard lock(mutex_);
    changes_.push_back(std::move(change));
    ++waiting_;
  }
  drain_.wake();
}

std::size_t Backlog::waiting() const {
  const std::lock_guard lock(mutex_);
  return waiting_;
}

std::vector<Backlog::Change> Backlog::next() {
  const std::lock_guard lock(mutex_);
  const auto end =
      changes_.begin() + static_cast<std::ptrdiff_t>(std::min(changes_.size(), kChangesPerStep));
  std::vector<Change> step(std::move_iterator(changes_.begin()), std::move_iterator(end));
  changes_.erase(changes_.begin(), end);
  return step;
}

bool Backlog::done(std::size_t changes) {
  const std::lock_guard lock(mutex_);
  waiting_ -= changes;
  return waiting_ != 0;
}

}  // namespace routing_agent
