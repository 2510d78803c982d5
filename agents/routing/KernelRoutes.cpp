// KernelSync: routes.
#include <vorn/mutex.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "agents/routing/KernelSync.h"

namespace routing_agent {

namespace {

constexpr std::size_t kWritesPerStep = 256;
constexpr std::size_t kRoutesPerStep = 4096;  // that may need no write
constexpr const char* kForeign = "another owner's route has this metric";

}  // namespace

// Does one step; returns whether there is more.
bool KernelSync::programRoutes() {
  std::vector<Write> writes;
  {
    const vorn::lock_guard lock(mutex_);
    markRoutesOfNewObjects();
    if (dirtyRoutes_.empty()) return false;
    writes = takeWrites();
    flying_ += writes.size();
  }
  perform(writes);
  const vorn::lock_guard lock(mutex_);
  return !dirtyRoutes_.empty();
}

NetlinkRequest KernelSync::requestFor(const Write& write) {
  return write.object == 0 ? deleteRoute(write.prefix)
                           : newRoute(write.prefix, write.object, write.replaces);
}

// What has to be written for the next routes of the queue.
std::vector<KernelSync::Write> KernelSync::takeWrites() {
  std::vector<Write> writes;
  auto left = std::min(dirtyRoutes_.size(), kRoutesPerStep);
  for (; left != 0 && writes.size() < kWritesPerStep; --left) {
    const PrefixKey prefix = dirtyRoutes_.front();
    dirtyRoutes_.pop_front();
    const auto found = routes_.find(prefix);
    if (found == routes_.end()) continue;
    Route& route = found->second;
    route.pending.queued = false;
    if (route.group && route.group->second.pending) {
      markRoute(*found);  // behind its group
    } else if (auto write = writeOf(prefix, route)) {
      route.pending.flying = true;
      writes.push_back(*write);
    } else if (!route.group) {
      swept_(prefix);  // adopted, and gone before somebody has set it
      routes_.erase(found);
    } else {
      route.since = now();
      if (watch_) watch_->changed(prefix);
    }
  }
  return writes;
}

std::optional<KernelSync::Write> KernelSync::writeOf(const PrefixKey& prefix, Route& route) const {
  const bool there = inKernel(route);
  const auto object =
      route.group ? objects_.find(route.group->second.object[familyOf(prefix)]) : objects_.end();
  if (object != objects_.end() && !object->second.members.empty()) {
    const bool right = there && route.object == object->first;
    if (right) route.refusal = nullptr;
    if (right) return std::nullopt;
    return Write{prefix, object->first, object->second.epoch, there};
  }
  route.refusal = nullptr;
  if (!there || kept(route)) return std::nullopt;
  return Write{prefix, 0, 0, false};
}

void KernelSync::written(const Write& write, const KernelAnswer& answer) {
  const auto found = routes_.find(write.prefix);
  if (found == routes_.end()) return;
  Route& route = found->second;
  route.pending.flying = false;
  route.since = now();
  if (watch_) watch_->changed(write.prefix);
  const bool removed = write.object == 0 && (answer.error == 0 || answer.error == ESRCH);
  if (removed || (write.object != 0 && answer.error == 0)) {
    route.object = write.object;
    route.epoch = write.epoch;
    route.refusal = nullptr;
    route.foreign = false;
    if (removed && !route.group && !route.pending) routes_.erase(found);
    return;
  }
  const bool taken = answer.error == EEXIST;
  // Whose it is, is read once there is nothing else to do.
  if (taken && !std::exchange(route.foreign, true)) readRoutes_ = true;
  if (!taken) readNexthops_ = true;  // its object may be gone
  const auto* const former = route.refusal;
  route.refusal = &*texts_.insert(taken ? kForeign : troubleOf(answer).reason).first;
  if (route.refusal != former)
    warn("route " + prefixText(write.prefix), {Programming::FAILED, *route.refusal});
}

void KernelSync::markRoute(Routes::value_type& entry) {
  if (std::exchange(entry.second.pending.queued, true)) return;
  dirtyRoutes_.push_back(entry.first);
}

void KernelSync::markRoutesOfNewObjects() {
  if (newObjects_.empty()) return;
  for (auto& entry : routes_) {
    const auto* const group = entry.second.group;
    if (group && newObjects_.contains(group->second.object[familyOf(entry.first)]))
      markRoute(entry);
  }
  newObjects_.clear();
}

void KernelSync::leaveGroup(const PrefixKey& prefix, Route& route) {
  auto* const group = std::exchange(route.group, nullptr);
  if (!group) return;
  --group->second.routes[familyOf(prefix)];
  if (!group->second.set && !group->second.pending) markGroup(*group);  // it may be forgotten
}

// What was adopted and has not been set since goes, and what was set without its group.
void KernelSync::removeUnclaimed() {
  std::vector<PrefixKey> swept;
  {
    const vorn::lock_guard lock(mutex_);
    for (auto& entry : routes_) {
      const auto* const group = entry.second.group;
      if (group && group->second.set) continue;
      if (!group) swept.push_back(entry.first);
      markRoute(entry);
    }
    removeUnclaimedMplsRoutes();
  }
  if (!swept.empty()) tracer_.trace0("%zu adopted routes are removed", swept.size());
  for (const auto& prefix : swept)
    swept_(prefix);
}

bool KernelSync::inKernel(const Route& route) const {
  if (route.object == 0) return false;
  if (route.epoch == 0) return true;  // it needs no object of ours
  const auto object = objects_.find(route.object);
  return object != objects_.end() && object->second.epoch == route.epoch;
}

bool KernelSync::isThere(std::uint32_t object) const {
  const auto found = objects_.find(object);
  return found != objects_.end() && !found->second.members.empty();
}

bool KernelSync::kept(const Route& route) const {
  return grace_ && route.group && !route.group->second.set && inKernel(route);
}

}  // namespace routing_agent
