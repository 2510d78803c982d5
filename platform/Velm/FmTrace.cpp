#include <Velm/FmTrace.h>

#include <Kiv/Trace.h>
#include <spdlog/common.h>

namespace Velm::Impl {

template <>
void vfmtrace<Kiv::TraceHandle>(const Kiv::TraceHandle& handle, unsigned short level,
                                const char* className, const char* sourcePath, const char* function,
                                int line, fmt::string_view format, fmt::format_args args) {
  handle.write(level, spdlog::source_loc{sourcePath, line, function},
               fmt::format("{}::{}: {}", className, function, fmt::vformat(format, args)));
}

}  // namespace Velm::Impl
