#include <Kiv/LineSink.h>

#include <fmt/format.h>

#include <cerrno>
#include <string>

namespace Kiv {

void LineSink::sink_it_(const spdlog::details::log_msg& message) {
  if (untold_ > 0) tellLoss(message);
  errno = 0;
  if (putLine(message)) return;
  const int reason = errno;
  ++untold_;
  ++lost_;
  if (reason == 0) spdlog::throw_spdlog_ex("only a part of a line could be written");
  spdlog::throw_spdlog_ex("a line could not be written", reason);
}

// Returns false when the message is not written as a whole; errno is then 0 when a part of it is.
bool LineSink::putLine(const spdlog::details::log_msg& message) {
  spdlog::memory_buf_t line;
  if (torn_) line.push_back('\n');
  formatter_->format(message, line);
  const std::size_t taken = put({line.data(), line.size()});
  if (taken == 0) return false;
  torn_ = line[taken - 1] != '\n';
  if (taken == line.size()) return true;
  errno = 0;
  return false;
}

void LineSink::tellLoss(const spdlog::details::log_msg& next) {
  const std::string text = fmt::format("LINES_LOST: {} lines were not written here", untold_);
  const spdlog::details::log_msg told(next.time, {}, next.logger_name, spdlog::level::warn, text);
  if (putLine(told)) untold_ = 0;
}

}  // namespace Kiv
