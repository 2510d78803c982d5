#pragma once

#include <Kiv/LineSink.h>

#include <chrono>

namespace Kiv {

// A sink for standard error that does not hang when nobody reads it: a line that has not been taken
// within the sink's patience is lost, which is counted and told (LineSink.h). From then on, until
// one is taken again, lines are lost at once. It bypasses the C library's stream, whose lock a
// writer that hangs would keep from the rest of the process. Lines of several of these sinks don't
// mix. The bound holds for pipes and sockets; a terminal that was halted may hold a line longer.
class VORN_EXPORT StderrSink : public LineSink {
 public:
  // As good as without a bound: for a thread that nobody waits for.
  static constexpr std::chrono::milliseconds kForever = std::chrono::hours(24 * 365 * 100);

  explicit StderrSink(std::chrono::milliseconds patience = std::chrono::seconds(1))
      : LineSink(false), patience_(patience) {}

 private:
  std::size_t put(std::string_view bytes) override;

  const std::chrono::milliseconds patience_;
  bool stalled_ = false;  // the last line was not taken
};

}  // namespace Kiv
