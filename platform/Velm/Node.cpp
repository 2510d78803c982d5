#include <Velm/Node.h>

namespace Velm {

namespace {

constexpr std::uint32_t kUseCount = Node::notificationActive - 1;

}  // namespace

constinit std::atomic<bool> ThreadControl::tsp_ = true;

Node::~Node() = default;

void Node::lastUserGone() { delete this; }

Publisher* Node::publisher() const { return nullptr; }

std::pair<const ModuleInspectData*, unsigned> Node::typeData() const { return {nullptr, 0}; }

void Node::kivDoZombieReactors(bool /*zombie*/) {}

bool Node::incUseIfAlive() const noexcept {
  auto word = word_.load(std::memory_order_relaxed);
  do {
    if ((word & kUseCount) == 0) return false;
  } while (!word_.compare_exchange_weak(word, word + 1, std::memory_order_relaxed));
  return true;
}

void Node::decUseImpl() const {
  std::uint32_t before;
  if (ThreadControl::tsp_.load(std::memory_order_relaxed)) {
    before = word_.fetch_sub(1, std::memory_order_acq_rel);
  } else {
    before = word_.load(std::memory_order_relaxed);
    word_.store(before - 1, std::memory_order_relaxed);
  }
  if ((before & kUseCount) == 1) const_cast<Node*>(this)->lastUserGone();
}

void Node::nodeFlagSet(NodeFlag flag, bool value) const noexcept {
  if (ThreadControl::tsp_.load(std::memory_order_relaxed)) {
    if (value) {
      word_.fetch_or(flag, std::memory_order_relaxed);
    } else {
      word_.fetch_and(~std::uint32_t{flag}, std::memory_order_relaxed);
    }
    return;
  }
  const auto rest = word_.load(std::memory_order_relaxed) & ~std::uint32_t{flag};
  word_.store(value ? rest | flag : rest, std::memory_order_relaxed);
}

}  // namespace Velm
