#include <VornSdkRpc/TagManager.h>

#include <vorn/mutex.h>

#include <cassert>
#include <utility>

namespace VornSdkRpc {

TagManager::~TagManager() {
  // The lock goes before the tags, as members do; the handlers must not outlive it.
  const auto handlers = std::move(tags_);
  tags_.clear();
}

OpaqueId TagManager::newTag(std::size_t serviceId) {
  const vorn::lock_guard lock(mutex_);
  auto tag = std::make_unique<Tag>(Tag{serviceId, nullptr});
  const OpaqueId tagId = tag.get();
  // Entering the tag is work, so it stands outside of an assert(); the diagnostic is that of one.
  const bool entered = tags_.emplace(tagId, std::move(tag)).second;
  if (!entered) {
    __assert_fail("tags_.emplace( tagId, std::move( tag ) ).second", __FILE__, __LINE__,
                  __extension__ __PRETTY_FUNCTION__);
  }
  return tagId;
}

void TagManager::storeHandler(std::size_t serviceId, OpaqueId tag, RequestHandlerPtr handler) {
  const vorn::lock_guard lock(mutex_);
  const auto iter = tags_.find(tag);
  assert(iter != tags_.end() && serviceId == iter->second->serviceId);
  iter->second->handler = std::move(handler);
}

bool TagManager::find(OpaqueId tag, std::size_t& serviceId, RequestHandlerPtr& handler) const {
  const vorn::lock_guard lock(mutex_);
  const auto iter = tags_.find(tag);
  if (iter == tags_.end()) return false;
  serviceId = iter->second->serviceId;
  handler = iter->second->handler;
  return true;
}

void TagManager::removeHandler(std::size_t serviceId, OpaqueId tag) {
  const vorn::lock_guard lock(mutex_);
  const auto i = tags_.find(tag);
  if (i == tags_.end()) return;
  assert(i->second->serviceId == serviceId);
  tags_.erase(i);
}

void TagManager::clear() {
  const vorn::lock_guard lock(mutex_);
  tags_.clear();
}

std::size_t TagManager::size() const {
  const vorn::lock_guard lock(mutex_);
  return tags_.size();
}

}  // namespace VornSdkRpc
