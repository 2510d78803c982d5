#pragma once

#include <fmt/format.h>
#include <vorn/export.h>

namespace Kiv {
class TraceHandle;
}

// Trace points with fmt-style formats. The format is checked against its arguments when the trace
// point is compiled; the line says where in the sources it comes from.
namespace Velm {

namespace Impl {

// Formats and writes one trace line. Defined only for the handles listed below.
template <typename Handle>
void vfmtrace(const Handle& handle, unsigned short level, const char* className,
              const char* sourcePath, const char* function, int line, fmt::string_view format,
              fmt::format_args args);

// Writes "NAME/LEVEL: Class::function: text", and hands spdlog the place in the sources.
template <>
VORN_EXPORT void vfmtrace<Kiv::TraceHandle>(const Kiv::TraceHandle& handle, unsigned short level,
                                            const char* className, const char* sourcePath,
                                            const char* function, int line, fmt::string_view format,
                                            fmt::format_args args);

}  // namespace Impl

// Writes a trace point, whether or not its level is enabled: the caller tests that first, so that a
// disabled one costs nothing more and evaluates no argument. Throws std::bad_alloc. Any thread.
template <typename Handle, typename... Args>
void fmtrace(const Handle& handle, unsigned short level, const char* sourcePath,
             const char* function, int line, const char* className,
             fmt::format_string<const Args&...> format, const Args&... args) {
  Impl::vfmtrace(handle, level, className, sourcePath, function, line, fmt::string_view(format),
                 fmt::make_format_args(args...));
}

}  // namespace Velm
