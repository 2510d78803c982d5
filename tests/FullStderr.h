#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

namespace test {

// Standard error is a pipe that nobody reads, and full, for as long as this lives.
class FullStderr {
 public:
  FullStderr() : before_(dup(STDERR_FILENO)) {
    int ends[2];
    if (pipe(ends) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    reader_ = ends[0];
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    const std::string page(4096, '.');
    while (write(ends[1], page.data(), page.size()) > 0)
      filling_ += page.size();
    fcntl(ends[1], F_SETFL, 0);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
  }
  ~FullStderr() {
    dup2(before_, STDERR_FILENO);
    close(before_);
    close(reader_);
  }
  FullStderr(const FullStderr&) = delete;
  FullStderr& operator=(const FullStderr&) = delete;

  // Reads what it was filled with.
  void drain() {
    while (read_.size() < filling_)
      readMore();
    read_.erase(0, filling_);
  }

  // The next lines, once they are there.
  std::vector<std::string> readLines(std::size_t count) {
    std::vector<std::string> lines;
    while (lines.size() < count) {
      const auto end = read_.find('\n');
      if (end == std::string::npos) {
        readMore();
      } else {
        lines.push_back(read_.substr(0, end));
        read_.erase(0, end + 1);
      }
    }
    return lines;
  }

 private:
  void readMore() {
    char part[4096];
    const auto size = read(reader_, part, sizeof part);
    if (size <= 0) throw std::system_error(errno, std::generic_category(), "read");
    read_.append(part, static_cast<std::size_t>(size));
  }

  int before_;
  int reader_ = -1;
  std::size_t filling_ = 0;
  std::string read_;
};

}  // namespace test
