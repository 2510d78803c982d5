#pragma once

#include <Velm/Node.h>

#include <cstddef>
#include <type_traits>
#include <utility>

namespace Velm {

// A counted reference to a node, or none. The use count stands in the node itself. One Ptr belongs
// to one thread at a time; Ptrs of several threads may share a node (see ThreadControl).
template <typename T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}

  // Takes over a reference that the caller owns, such as the one that construction makes:
  // Ptr<T>(new T(...)).
  explicit Ptr(T* node) : node_(node) {}

  Ptr(const Ptr& other) : Ptr(newRef(other.node_)) {}
  Ptr(Ptr&& other) noexcept : node_(other.release()) {}

  // A reference to a node of a derived type is one to its base.
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U> other) : node_(other.release()) {}

  ~Ptr() {
    if (node_ != nullptr) node_->decUseImpl();
  }

  // What was referred to before is let go last, so that its end can do no harm here.
  Ptr& operator=(Ptr other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }

  // Takes a reference of its own to a node that something else keeps alive; null gives none.
  static Ptr newRef(T* node) {
    if (node != nullptr) node->incUse();
    return Ptr(node);
  }

  T* get() const { return node_; }
  T* operator->() const { return node_; }
  T& operator*() const { return *node_; }
  explicit operator bool() const { return node_ != nullptr; }

  // Whether both refer to the same node, or to none.
  bool operator==(const Ptr&) const = default;

  // Hands the reference over to the caller, and refers to none from then on.
  [[nodiscard]] T* release() { return std::exchange(node_, nullptr); }

 private:
  T* node_ = nullptr;
};

}  // namespace Velm
