#pragma once

#include <spdlog/sinks/base_sink.h>
#include <vorn/export.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <thread>

namespace Kiv {

// What sinks that write to a file descriptor have in common: a line is written whole, or it is lost
// and counted. When only a part of a line could be written, the next one begins on a line of its
// own, so that what follows the part is never read as its end. The first line that can be written
// after others were lost is preceded by "LINES_LOST: N lines were not written here".
//
// A line that is lost is an exception of type spdlog::spdlog_ex with the reason; a logger takes it
// for a failed sink. Memory is taken when the sink is made, and by no line of at most kLineMax
// bytes (Kiv/Line.h). Any thread may use a sink.
class VORN_EXPORT LineSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  // How many lines were not written, or not whole, since the sink was made.
  std::uint64_t lost() const { return lost_; }

  // What this thread logs from now on may wait for the next flush, so that many lines are one
  // write. A line of another thread takes those that wait with it.
  void gather();

 protected:
  // `torn`: what is there already ends within a line.
  explicit LineSink(bool torn);

  // What there is from now on ends within a line, or does not. Under the sink's lock.
  void tornIs(bool torn) { torn_ = torn; }

  // Writes the bytes and returns how many of them were written. Sets errno when that is none.
  virtual std::size_t put(std::string_view bytes) = 0;

 private:
  void sink_it_(const spdlog::details::log_msg& message) final;
  void flush_() final;
  void add(const spdlog::details::log_msg& message);
  void putAll();
  std::size_t putLines();
  void tellLoss(const spdlog::details::log_msg& next);

  bool torn_;
  std::thread::id gatherer_;   // nobody: no line waits
  spdlog::memory_buf_t text_;  // the lines that wait, behind a line's end for the first
  std::size_t lines_ = 0;      // their number
  std::uint64_t untold_ = 0;   // lines lost since a loss was last told
  std::atomic<std::uint64_t> lost_ = 0;
};

}  // namespace Kiv
