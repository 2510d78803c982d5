#include <VornSdkRpc/ProtobufLog.h>

#include <google/protobuf/stubs/common.h>

#if GOOGLE_PROTOBUF_VERSION < 4022000

#include <Kiv/Trace.h>
#include <fmt/format.h>
#include <google/protobuf/stubs/logging.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace VornSdkRpc {

namespace {

// Lets one message in ten seconds through.
class Limit {
 public:
  // The number of messages that were held back before this one, or nothing when it is held back.
  std::optional<std::uint64_t> admit() {
    const std::lock_guard lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    if (next_ && now < *next_) {
      ++heldBack_;
      return {};
    }
    next_ = now + std::chrono::seconds(10);
    return std::exchange(heldBack_, 0);
  }

 private:
  std::mutex mutex_;
  std::optional<std::chrono::steady_clock::time_point> next_;
  std::uint64_t heldBack_ = 0;
};

void write(google::protobuf::LogLevel level, const char* file, int line,
           const std::string& message) try {
  // Never destroyed: messages are parsed until the process is gone.
  static auto* const handle = new Kiv::TraceHandle("protobuf", false);
  static auto* const limit = new Limit;
  const bool fatal = level == google::protobuf::LOGLEVEL_FATAL;
  const auto heldBack = limit->admit();
  if (!heldBack && !fatal) return;
  handle->write(0, fmt::format("{} ({}:{}; {} messages were left out before it)", message, file,
                               line, heldBack.value_or(0)));
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
