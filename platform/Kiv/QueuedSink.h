#pragma once

#include <spdlog/sinks/sink.h>
#include <vorn/export.h>

#include <memory>
#include <string>

namespace Kiv {

// A bounded queue in front of a sink that may stand still, and a thread of its own that writes what
// is queued, in order: whoever logs waits for nothing. While the queue is full, lines are dropped,
// and the line "Queue/0: N lines are missing here" stands where they would have been as soon as
// something can be written again. Lines that the sink fails to write are counted among them.
//
//   Kiv::traceLogger().sinks() = {
//       std::make_shared<Kiv::QueuedSink>(std::make_shared<Kiv::FileSink>("trace.log"))};
//
// The thread begins with the sink, in the network namespace of the thread that makes it, and takes
// no signals. It is not there in a forked child, whose lines are dropped: fork only to exec. Any
// thread may use a sink.
class VORN_EXPORT QueuedSink : public spdlog::sinks::sink {
 public:
  // Throws std::system_error when there can be no thread.
  explicit QueuedSink(spdlog::sink_ptr behind);

  // Flushes. What has not been written by then goes with the process.
  ~QueuedSink() override;

  // Never waits for the sink behind. Throws std::bad_alloc; the line is then counted as missing.
  void log(const spdlog::details::log_msg& message) override;

  // Waits until all that is queued by now is written, for a second at most, and not at all while
  // nothing has been written since a wait that was in vain.
  void flush() override;

  void set_pattern(const std::string& pattern) override { behind_->set_pattern(pattern); }
  void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override {
    behind_->set_formatter(std::move(formatter));
  }

 private:
  class Queue;

  const spdlog::sink_ptr behind_;
  const std::shared_ptr<Queue> queue_;  // the thread's as well, which may outlive the sink
};

}  // namespace Kiv
