#pragma once

#include <Kiv/TraceHandle.h>
#include <vorn/export.h>

namespace vorn {

// The SDK's trace points, printf-style, at the two levels that the SDK uses: 0 for the lifecycle, 8
// for every event. Lines and levels are those of the trace handle of the same name (Kiv/Trace.h),
// and Kiv::traceSettingIs decides which are written. Any thread may trace.
class VORN_EXPORT tracer {
 public:
  explicit tracer(const char* name) : handle_(name, false) {}

  // Whether a level is written: for a trace point whose arguments cost something to make.
  bool enabled(unsigned level) const noexcept { return handle_.enabled(level); }

  // Writes one line when level 0 is enabled, as Kiv::TraceHandle::write does.
  [[gnu::format(printf, 2, 3)]] void trace0(const char* format, ...) const;

  // The same, as a warning and as an error (Kiv::TraceHandle).
  [[gnu::format(printf, 2, 3)]] void warn(const char* format, ...) const;
  [[gnu::format(printf, 2, 3)]] void error(const char* format, ...) const;

  // The same as trace0() at level 8.
  [[gnu::format(printf, 2, 3)]] void trace8(const char* format, ...) const;

 private:
  Kiv::TraceHandle handle_;
};

}  // namespace vorn
