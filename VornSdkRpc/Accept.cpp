// gRPC gives up a listening socket for good when accept4() fails, and so an agent that ran out of
// file descriptors once would never hear of another client. This accept4() stands in for libc's in
// a process that links the library: while descriptors or memory are short, it refuses the
// connections that wait (their clients see them close at once and try again later), and then says
// that none is left. In every other case it is libc's.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vorn/export.h>

#include <cerrno>
#include <mutex>

namespace VornSdkRpc {

namespace {

int acceptNext(int listener, sockaddr* address, socklen_t* length, int flags) {
  return static_cast<int>(syscall(SYS_accept4, listener, address, length, flags));
}

bool isShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// A descriptor that is held back, to be given up for as long as it takes to refuse a connection.
class Reserve {
 public:
  // Takes one waiting connection and closes it. Answers whether there was one.
  bool refuseOne(int listener) {
    const std::lock_guard lock(mutex_);
    if (fd_ > 0) close(fd_);
    const int refused = acceptNext(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (refused >= 0) close(refused);
    fd_ = open();
    return refused >= 0;
  }

 private:
  static int open() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

  std::mutex mutex_;
  int fd_ = open();
};

Reserve reserve;

}  // namespace

}  // namespace VornSdkRpc

extern "C" VORN_EXPORT int accept4(int listener, sockaddr* address, socklen_t* length, int flags) {
  using namespace VornSdkRpc;
  const bool nonBlocking = (fcntl(listener, F_GETFL) & O_NONBLOCK) != 0;
  for (;;) {
    const int fd = acceptNext(listener, address, length, flags);
    if (fd >= 0 || !isShortage(errno) || !nonBlocking) return fd;
    if (!reserve.refuseOne(listener)) {
      errno = EAGAIN;
      return -1;
    }
  }
}
