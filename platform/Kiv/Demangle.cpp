#include <Kiv/Demangle.h>

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <typeindex>
#include <unordered_map>

namespace Kiv {

namespace {

Velm::String askRuntime(const std::type_info& type) {
  constexpr int noMemory = -1;
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  if (status == noMemory) throw std::bad_alloc();
  return name ? name.get() : type.name();
}

struct Names {
  std::shared_mutex mutex;
  std::unordered_map<std::type_index, Velm::String> byType;
};

// Never destroyed, so that static destructors can still ask.
Names& names() {
  static auto* made = new Names;
  return *made;
}

}  // namespace

Velm::String demangle(const std::type_info& type) {
  auto& [mutex, byType] = names();
  {
    const std::shared_lock lock(mutex);
    const auto known = byType.find(type);
    if (known != byType.end()) return known->second;
  }
  const std::unique_lock lock(mutex);
  const auto known = byType.find(type);  // another thread may have been first
  if (known != byType.end()) return known->second;
  return byType.emplace(type, askRuntime(type)).first->second;
}

}  // namespace Kiv
