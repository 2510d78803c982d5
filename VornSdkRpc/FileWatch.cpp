#include <VornSdkRpc/FileWatch.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <stop_token>
#include <system_error>
#include <utility>

namespace VornSdkRpc {

namespace {

class File {
 public:
  explicit File(const std::string& path) : path_(path) {
    fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd_ < 0) fail(errno);
  }
  ~File() {
    if (fd_ >= 0) close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  std::string contents(std::size_t limit) const {
    struct stat status{};
    if (fstat(fd_, &status) != 0) fail(errno);
    if (S_ISDIR(status.st_mode)) fail(EISDIR);
    if (!S_ISREG(status.st_mode)) fail(EINVAL);
    std::string text;
    for (char part[4096];;) {
      const auto size = read(fd_, part, sizeof part);
      if (size < 0 && errno == EINTR) continue;
      if (size < 0) fail(errno);
      if (size == 0) return text;
      text.append(part, static_cast<std::size_t>(size));
      if (text.size() > limit) fail(EFBIG);
    }
  }

 private:
  [[noreturn]] void fail(int error) const {
    throw std::system_error(error, std::generic_category(), "cannot read " + path_);
  }

  const std::string& path_;
  int fd_ = -1;
};

}  // namespace

std::string readFile(const std::string& path, std::size_t limit) {
  return File(path).contents(limit);
}

FileWatch::FileWatch(std::chrono::milliseconds interval, std::function<void()> look) {
  if (interval <= interval.zero()) return;
  thread_ = std::jthread([interval, look = std::move(look)](const std::stop_token& ended) {
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::condition_variable_any never;
    while (!never.wait_for(lock, ended, interval, [&] { return ended.stop_requested(); })) {
      try {
        look();
      } catch (const std::exception&) {
        // Without memory, say: the next look comes.
      }
    }
  });
}

}  // namespace VornSdkRpc
