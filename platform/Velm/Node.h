#pragma once

#include <vorn/export.h>

#include <atomic>
#include <cstdint>
#include <utility>

namespace Velm {

class Publisher;
struct ModuleInspectData;

// How the platform's objects are shared between threads.
struct VORN_EXPORT ThreadControl {
  // While set, the use counts and flags of nodes change atomically, so that several threads may
  // hold references to one node. Set from the start; a process that touches its nodes on one thread
  // only may clear it, for plain increments, before it makes the first.
  static std::atomic<bool> tsp_;
};

// The base of the platform's objects: an intrusive use count, held through Velm::Ptr, and a few
// flags, in one 32-bit word. References may be taken and dropped on any thread while
// ThreadControl::tsp_ is set; where the last one may go, and what else may be called where, is up
// to each type.
class VORN_EXPORT Node {
 public:
  // The flags that share the word with the use count.
  enum NodeFlag : std::uint32_t {
    notificationActive = 1U << 29,  // the node listens to what it is subscribed to
    zombieReactors = 1U << 30,      // the node's reactors ignore what they are notified of
  };

  // Starts with a use count of 1, which is the creator's, and all flags clear.
  Node() = default;
  virtual ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  // What happens to a node whose last reference is dropped: it is deleted.
  virtual void lastUserGone();

  // Where to subscribe to the node's notifications; null for a type that makes none.
  virtual Publisher* publisher() const;

  // The module record that describes the node's type, and the type's position in it; null for a
  // type that has none.
  virtual std::pair<const ModuleInspectData*, unsigned> typeData() const;

  // Makes the node's reactors ignore notifications, or heed them again. A type that has reactors
  // overrides this.
  virtual void kivDoZombieReactors(bool zombie);

  // Takes another reference. The caller holds one.
  void incUse() const noexcept {
    if (ThreadControl::tsp_.load(std::memory_order_relaxed)) {
      word_.fetch_add(1, std::memory_order_relaxed);
    } else {
      word_.store(word_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }

  // Takes a reference where the caller holds none but something keeps the destructor from
  // finishing. Returns false, and takes none, when the last one has been dropped already.
  bool incUseIfAlive() const noexcept;

  // Drops one reference; with the last one the node is gone.
  void decUseImpl() const;

  bool nodeFlag(NodeFlag flag) const noexcept {
    return (word_.load(std::memory_order_relaxed) & flag) != 0;
  }

  // Sets or clears one flag; the use count and the other flags stay as they are.
  void nodeFlagSet(NodeFlag flag, bool value) const noexcept;

 private:
  mutable std::atomic<std::uint32_t> word_ = 1;  // the use count below bit 29, the flags above
};

}  // namespace Velm
