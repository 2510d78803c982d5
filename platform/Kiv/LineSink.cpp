#include <Kiv/LineSink.h>

#include <Kiv/Line.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

namespace Kiv {

namespace {

// So much is one write, at most; and what stands in front of a line's text.
constexpr std::size_t kEnough = 3 * kLineMax;
constexpr std::size_t kFrontMax = 256;

}  // namespace

LineSink::LineSink(bool torn) : torn_(torn) {
  text_.reserve(kEnough + kLineMax + kFrontMax);
  text_.push_back('\n');
}

void LineSink::gather() {
  const std::lock_guard lock(mutex_);
  gatherer_ = std::this_thread::get_id();
}

void LineSink::sink_it_(const spdlog::details::log_msg& message) {
  if (untold_ > 0 && lines_ == 0) tellLoss(message);
  add(message);
  if (gatherer_ != std::this_thread::get_id() || text_.size() > kEnough) putAll();
}

void LineSink::flush_() {
  gatherer_ = {};
  if (lines_ > 0) putAll();
}

void LineSink::add(const spdlog::details::log_msg& message) {
  const auto before = text_.size();
  try {
    formatter_->format(message, text_);
  } catch (...) {
    text_.resize(before);
    throw;
  }
  ++lines_;
}

void LineSink::putAll() {
  errno = 0;
  const auto lost = putLines();
  if (lost == 0) return;
  const int reason = errno;
  untold_ += lost;
  lost_ += lost;
  if (reason == 0) spdlog::throw_spdlog_ex("only a part of a line could be written");
  spdlog::throw_spdlog_ex("a line could not be written", reason);
}

// Returns how many of the lines are not written as a whole; errno is then 0 when a part is written.
std::size_t LineSink::putLines() {
  std::string_view text(text_.data(), text_.size());
  if (!torn_) text.remove_prefix(1);
  const auto taken = text.substr(0, put(text));
  std::size_t lost = std::exchange(lines_, 0);
  if (taken.size() == text.size()) {
    lost = 0;
  } else if (!taken.empty()) {
    const auto ends = std::count(taken.begin(), taken.end(), '\n') - (torn_ ? 1 : 0);
    lost -= static_cast<std::size_t>(ends);
    errno = 0;
  }
  if (!taken.empty()) torn_ = taken.back() != '\n';
  text_.resize(1);
  return lost;
}

void LineSink::tellLoss(const spdlog::details::log_msg& next) {
  const std::string text = fmt::format("LINES_LOST: {} lines were not written here", untold_);
  add({next.time, {}, next.logger_name, spdlog::level::warn, text});
  if (putLines() == 0) untold_ = 0;
}

}  // namespace Kiv
