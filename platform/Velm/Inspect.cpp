#include <Velm/Inspect.h>

#include <vorn/mutex.h>

#include <algorithm>
#include <vector>

namespace Velm {

namespace {

struct Modules {
  vorn::mutex mutex;
  std::vector<const ModuleInspectData*> records VORN_GUARDED_BY(mutex);
};

// Made by the first module that is announced, and never destroyed.
Modules& modules() {
  static auto* const made = new Modules;
  return *made;
}

}  // namespace

int Inspect::opResEncRelNode(const Node* node, void* result) {
  *static_cast<const Node**>(result) = node;
  return done;
}

void ModuleInspectData::loaded() const {
  auto& known = modules();
  const vorn::lock_guard lock(known.mutex);
  known.records.push_back(this);
}

const ModuleInspectData* ModuleInspectData::find(std::string_view name) {
  auto& known = modules();
  const vorn::lock_guard lock(known.mutex);
  const auto found =
      std::ranges::find(known.records, name, [](const auto* record) { return record->name(); });
  return found == known.records.end() ? nullptr : *found;
}

}  // namespace Velm
