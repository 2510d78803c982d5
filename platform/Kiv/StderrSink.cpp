#include <Kiv/StderrSink.h>

#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vorn/mutex.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>

namespace Kiv {

namespace {

using Clock = std::chrono::steady_clock;

// Whose turn it is to write to standard error.
struct Turns {
  vorn::mutex mutex;
  std::condition_variable free;
  bool taken VORN_GUARDED_BY(mutex) = false;
};

// Never destroyed: what is written at the end of the process goes through it, too.
Turns& turns() {
  static auto* const turns = new Turns;
  return *turns;
}

// The turn to write one line, for as long as this lives, if it came before the deadline.
class Turn {
 public:
  explicit Turn(Clock::time_point deadline) {
    auto& [mutex, free, taken] = turns();
    vorn::unique_lock lock(mutex);
    mine_ = free.wait_until(lock, deadline, [&]() VORN_REQUIRES(mutex) { return !taken; });
    if (mine_) taken = true;
  }
  ~Turn() {
    if (!mine_) return;
    const vorn::lock_guard lock(turns().mutex);
    turns().taken = false;
    turns().free.notify_one();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  bool isMine() const { return mine_; }

 private:
  bool mine_;
};

bool isWritableBy(Clock::time_point deadline) {
  pollfd descriptor{STDERR_FILENO, POLLOUT, 0};
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    const auto timeout = std::clamp<std::int64_t>(left.count(), 0, INT_MAX);
    const int ready = poll(&descriptor, 1, static_cast<int>(timeout));
    if (ready > 0) return true;
    if (ready == 0 && Clock::now() >= deadline) break;
    if (ready < 0 && errno != EINTR) break;
  }
  errno = EAGAIN;
  return false;
}

// No more than a pipe that is writable takes without a wait.
ssize_t writeSome(std::string_view bytes) {
  bytes = bytes.substr(0, PIPE_BUF);
  const auto sent = send(STDERR_FILENO, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0 || errno != ENOTSOCK) return sent;
  return write(STDERR_FILENO, bytes.data(), bytes.size());
}

}  // namespace

std::size_t StderrSink::put(std::string_view bytes) {
  const auto deadline = Clock::now() + (stalled_ ? std::chrono::milliseconds(0) : patience_);
  const Turn turn(deadline);
  std::size_t written = 0;
  errno = EAGAIN;
  while (turn.isMine() && written < bytes.size() && isWritableBy(deadline)) {
    const auto more = writeSome(bytes.substr(written));
    if (more > 0) written += static_cast<std::size_t>(more);
    if (more < 0 && errno != EAGAIN && errno != EINTR) break;
  }
  stalled_ = written < bytes.size();
  return written;
}

}  // namespace Kiv
