#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace vorn {

// An interface of the device by its name, such as "Ethernet1". The name is not checked; an empty
// one is no interface.
class intf_id_t {
 public:
  intf_id_t(const std::string& name) : name_(name) {}

  std::string to_string() const { return name_; }

  bool operator==(const intf_id_t&) const noexcept = default;

 private:
  friend std::hash<intf_id_t>;

  std::string name_;
};

}  // namespace vorn

template <>
struct std::hash<vorn::intf_id_t> {
  std::size_t operator()(const vorn::intf_id_t& intf) const noexcept {
    return std::hash<std::string>()(intf.name_);
  }
};
