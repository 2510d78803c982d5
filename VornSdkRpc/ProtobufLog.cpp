#include <VornSdkRpc/ProtobufLog.h>

#include <google/protobuf/stubs/common.h>

#if GOOGLE_PROTOBUF_VERSION < 4022000

#include <Kiv/Trace.h>
#include <VornSdkRpc/MessageLimit.h>
#include <fmt/format.h>
#include <google/protobuf/stubs/logging.h>

#include <exception>
#include <string>

namespace VornSdkRpc {

namespace {

void write(google::protobuf::LogLevel level, const char* file, int line,
           const std::string& message) try {
  // Never destroyed: messages are parsed until the process is gone.
  static auto* const handle = new Kiv::TraceHandle("protobuf", false);
  static auto* const limit = new MessageLimit;
  const bool fatal = level == google::protobuf::LOGLEVEL_FATAL;
  const auto heldBack = limit->admit();
  if (!heldBack && !fatal) return;
  const std::string text = fmt::format("{} ({}:{}; {} messages were left out before it)", message,
                                       file, line, heldBack.value_or(0));
  level >= google::protobuf::LOGLEVEL_ERROR ? handle->error(text) : handle->warn(text);
  if (fatal) Kiv::traceLogger().flush();  // protobuf ends the process now
} catch (const std::exception&) {
  // Without memory there is no message.
}

}  // namespace

void protobufLogToTrace() {
  static const bool set = (google::protobuf::SetLogHandler(&write), true);
  static_cast<void>(set);
}

}  // namespace VornSdkRpc

#else

void VornSdkRpc::protobufLogToTrace() {}

#endif
