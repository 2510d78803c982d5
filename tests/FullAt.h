#pragma once

#include <sys/resource.h>

namespace test {

// The disk is full at a size, for as long as this lives. SIGXFSZ must be ignored.
class FullAt {
 public:
  explicit FullAt(rlim_t size) {
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{size, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FullAt() { setrlimit(RLIMIT_FSIZE, &before_); }
  FullAt(const FullAt&) = delete;
  FullAt& operator=(const FullAt&) = delete;

 private:
  rlimit before_;
};

}  // namespace test
