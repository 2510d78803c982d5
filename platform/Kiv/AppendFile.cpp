#include <Kiv/AppendFile.h>

#include <fcntl.h>
#include <spdlog/common.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Kiv {

namespace {

int openedFile(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
  if (fd < 0) spdlog::throw_spdlog_ex("cannot open " + path, errno);
  return fd;
}

// Whether a file ends within a line. One that can't be read is taken for one that does not.
bool endsWithinLine(const std::string& path) {
  struct stat status{};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0)
    return false;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char last = '\n';
  const bool read = pread(fd, &last, 1, status.st_size - 1) == 1;
  close(fd);
  return read && last != '\n';
}

}  // namespace

AppendFile::AppendFile(std::string path) : path_(std::move(path)) { reopen(); }

AppendFile::~AppendFile() { close(fd_); }

void AppendFile::reopen() {
  const bool withinLine = endsWithinLine(path_);
  const int before = std::exchange(fd_, openedFile(path_));
  withinLine_ = withinLine;
  if (before >= 0) close(before);
}

// Once only, also when a part was written: another process may have appended by now.
std::size_t AppendFile::append(std::string_view bytes) {
  ssize_t written;
  do
    written = write(fd_, bytes.data(), bytes.size());
  while (written < 0 && errno == EINTR);
  return written < 0 ? 0 : static_cast<std::size_t>(written);
}

}  // namespace Kiv
