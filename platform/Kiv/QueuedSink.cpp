#include <Kiv/QueuedSink.h>

#include <fmt/format.h>
#include <signal.h>
#include <spdlog/details/log_msg_buffer.h>
#include <vorn/mutex.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

namespace Kiv {

namespace {

// While the thread writes one such heap of lines, another may be gathering.
constexpr std::size_t kLinesMax = 2048;
constexpr std::size_t kBytesMax = 1 << 19;

// While one of these lives, the calling thread takes no signals, nor does a thread that it starts.
class WithoutSignals {
 public:
  WithoutSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~WithoutSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  WithoutSignals(const WithoutSignals&) = delete;
  WithoutSignals& operator=(const WithoutSignals&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

class QueuedSink::Queue {
 public:
  explicit Queue(spdlog::sink_ptr behind) : behind_(std::move(behind)) {}

  void push(const spdlog::details::log_msg& message) {
    const vorn::lock_guard lock(mutex_);
    ++missing_;  // until it is known better
    if (lines_.size() == kLinesMax || bytes_ + message.payload.size() > kBytesMax) return;
    lines_.emplace_back(message);
    bytes_ += message.payload.size();
    --missing_;
    ++pushed_;
    changed_.notify_all();
  }

  void flush() {
    vorn::unique_lock lock(mutex_);
    if (done_ == stuckAt_) return;
    const auto last = pushed_;
    if (!changed_.wait_for(lock, std::chrono::seconds(1),
                           [&]() VORN_REQUIRES(mutex_) { return done_ >= last; }))
      stuckAt_ = done_;
  }

  void close() {
    const vorn::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }

  // The thread's work, until the queue is closed and empty.
  void writeAll() {
    std::vector<spdlog::details::log_msg_buffer> batch;
    std::uint64_t missing = 0;
    while (take(batch, missing)) {
      for (const auto& line : batch)
        missing += write(line) ? 0 : 1;
      missing = tell(missing, batch.empty() ? "queue" : batch.back().logger_name);
      finish(batch, missing);
    }
  }

 private:
  // Waits for lines, and takes those that are queued together with the number of those that are
  // missing behind them. Returns false when there will be none any more.
  bool take(std::vector<spdlog::details::log_msg_buffer>& batch, std::uint64_t& missing) {
    vorn::unique_lock lock(mutex_);
    changed_.wait(lock, [this]() VORN_REQUIRES(mutex_) { return closed_ || !lines_.empty(); });
    std::swap(batch, lines_);
    bytes_ = 0;
    missing = std::exchange(missing_, 0);
    return !batch.empty();
  }

  void finish(std::vector<spdlog::details::log_msg_buffer>& batch, std::uint64_t untold) {
    const vorn::lock_guard lock(mutex_);
    done_ += batch.size();
    missing_ += untold;
    batch.clear();
    changed_.notify_all();
  }

  bool write(const spdlog::details::log_msg& line) noexcept {
    try {
      behind_->log(line);
      return true;
    } catch (...) {
      return false;
    }
  }

  // Returns how many missing lines are still to be told.
  std::uint64_t tell(std::uint64_t missing, spdlog::string_view_t logger) noexcept {
    try {
      if (missing > 0) {
        const std::string text = fmt::format("Queue/0: {} lines are missing here", missing);
        behind_->log({logger, spdlog::level::warn, text});
      }
      behind_->flush();
      return 0;
    } catch (...) {
      return missing;
    }
  }

  const spdlog::sink_ptr behind_;
  vorn::mutex mutex_;
  std::condition_variable changed_;
  std::vector<spdlog::details::log_msg_buffer> lines_ VORN_GUARDED_BY(mutex_);
  std::size_t bytes_ VORN_GUARDED_BY(mutex_) = 0;
  std::uint64_t missing_ VORN_GUARDED_BY(mutex_) = 0;
  std::uint64_t pushed_ VORN_GUARDED_BY(mutex_) = 0;
  std::uint64_t done_ VORN_GUARDED_BY(mutex_) = 0;
  // What done_ was when a wait for more was in vain.
  std::uint64_t stuckAt_ VORN_GUARDED_BY(mutex_) = UINT64_MAX;
  bool closed_ VORN_GUARDED_BY(mutex_) = false;
};

QueuedSink::QueuedSink(spdlog::sink_ptr behind)
    : behind_(std::move(behind)), queue_(std::make_shared<Queue>(behind_)) {
  const WithoutSignals inThread;
  std::thread([queue = queue_] { queue->writeAll(); }).detach();
}

QueuedSink::~QueuedSink() {
  QueuedSink::flush();
  queue_->close();
}

void QueuedSink::log(const spdlog::details::log_msg& message) { queue_->push(message); }

void QueuedSink::flush() { queue_->flush(); }

}  // namespace Kiv
