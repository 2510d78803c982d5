#pragma once

#include <vorn/export.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace spdlog {
struct source_loc;
}

namespace Kiv {

// A named source of trace lines. Any number of handles may have the same name. Not copyable. Any
// thread may use a handle.
class VORN_EXPORT TraceHandle {
 public:
  // `flag` is carried for the platform; this layer has no use for it.
  TraceHandle(const char* name, bool flag);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const std::string& name() const { return name_; }

  // Whether a trace point at `level` is to be evaluated: one load and one bit test.
  bool enabled(unsigned level) const noexcept {
    return ((mask_.load(std::memory_order_relaxed) >> (level & 31U)) & 1U) != 0;
  }

  // Writes "NAME/LEVEL: text" as one line, whether or not the level is enabled: escaped, and cut
  // when it is longer than kLineMax (Kiv/Line.h). Reports nothing.
  void write(unsigned level, std::string_view text) const;
  void write(unsigned level, const spdlog::source_loc& where, std::string_view text) const;

  // write(0, text), as a line of the logger's level warn or err: for what somebody should look at,
  // such as a loss, and for what does not work until somebody mends it.
  void warn(std::string_view text) const;
  void error(std::string_view text) const;

 private:
  friend class TraceRegistry;

  const std::string name_;
  std::atomic<std::uint32_t> mask_{1};
};

}  // namespace Kiv
