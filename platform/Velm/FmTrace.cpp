#include <Kiv/Trace.h>
#include <Velm/FmTrace.h>
#include <spdlog/common.h>

namespace Velm::Impl {

template <>
void vfmtrace<Kiv::TraceHandle>(Kiv::TraceHandle const& handle, unsigned short level,
                                char const* className, char const* sourcePath, char const* function,
                                int line, fmt::string_view format, fmt::format_args args) {
  handle.write(level, spdlog::source_loc{sourcePath, line, function},
               fmt::format("{}::{}: {}", className, function, fmt::vformat(format, args)));
}

}  // namespace Velm::Impl
