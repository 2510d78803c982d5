#pragma once

#include <cstddef>
#include <functional>

namespace vorn {

// What happens to a packet's label stack.
enum class mpls_action_t { none = 0, push = 1, swap = 2, pop = 3 };

// An MPLS label by its number. A label has 20 bits; the number is kept as it is given and not
// checked.
class mpls_label_t {
 public:
  constexpr mpls_label_t(unsigned int label) noexcept : label_(label) {}

  constexpr unsigned int label() const noexcept { return label_; }

  constexpr bool operator==(const mpls_label_t&) const noexcept = default;

 private:
  unsigned int label_;
};

}  // namespace vorn

template <>
struct std::hash<vorn::mpls_label_t> {
  std::size_t operator()(const vorn::mpls_label_t& label) const noexcept {
    return std::hash<unsigned int>()(label.label());
  }
};
