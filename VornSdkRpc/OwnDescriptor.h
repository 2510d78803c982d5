#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace VornSdkRpc {

// The file behind a descriptor: the number alone says nothing once somebody may have closed it and
// opened another file.
class FileIdentity {
 public:
  explicit FileIdentity(int fd) {
    struct stat file;
    if (fd >= 0 && fstat(fd, &file) == 0) *this = FileIdentity(file);
  }
  explicit FileIdentity(const struct stat& file)
      : exists_(true), device_(file.st_dev), inode_(file.st_ino) {}

  bool exists() const { return exists_; }
  bool operator==(const FileIdentity&) const = default;

 private:
  bool exists_ = false;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

// A descriptor of the library's own, which is closed in the end. Somebody may do that before, as a
// daemon that closes everything it has inherited does; then another file that has got the number
// is left alone. (Not for an eventfd and its like: they are all one file.)
class OwnDescriptor {
 public:
  OwnDescriptor() = default;
  explicit OwnDescriptor(int fd) : fd_(fd), file_(fd) {}
  OwnDescriptor(OwnDescriptor&& other) noexcept
      : fd_(std::exchange(other.fd_, -1)), file_(other.file_) {}
  OwnDescriptor& operator=(OwnDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    std::swap(file_, other.file_);
    return *this;
  }
  ~OwnDescriptor() { close(); }

  // Negative when there is none.
  int get() const { return fd_; }

  // Whether the number still is that of the file that it was made of.
  bool intact() const { return fd_ >= 0 && file_.exists() && FileIdentity(fd_) == file_; }

  void close() {
    if (intact()) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
  FileIdentity file_{-1};
};

}  // namespace VornSdkRpc
