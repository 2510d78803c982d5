#pragma once

#include <vorn/export.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace Kiv {

// A file that is appended to, and that another program may take away: logrotate renames it and asks
// for a new one, or cuts it to nothing. One thread at a time.
class VORN_EXPORT AppendFile {
 public:
  // Opens the file, or makes it with mode 0600. Throws spdlog::spdlog_ex, which names the file and
  // the reason.
  explicit AppendFile(std::string path);
  ~AppendFile();
  AppendFile(const AppendFile&) = delete;
  AppendFile& operator=(const AppendFile&) = delete;

  // Opens the file that has this path by now, in place of the one that is open. Throws as the
  // constructor does, and the one that is open stays.
  void reopen();

  // Whether the file, as it was opened, ended within a line.
  bool openedWithinLine() const { return withinLine_; }

  // One write(2) to the end of the file. Returns how many of the bytes were written; sets errno
  // when that is none.
  std::size_t append(std::string_view bytes);

 private:
  const std::string path_;
  int fd_ = -1;
  bool withinLine_ = false;
};

}  // namespace Kiv
