#pragma once

#include <unistd.h>

#include <utility>

namespace routing_agent {

// A file descriptor, which it closes; -1: none.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  // What it had is closed with the other one.
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }

  operator int() const { return fd_; }

 private:
  int fd_;
};

}  // namespace routing_agent
