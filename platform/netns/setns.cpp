#include <netns/setns.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

int setnsByName(const char* name, int nstype) {
  const std::string_view given(name);
  if (given.empty() || given == "." || given == ".." || given.find('/') != std::string_view::npos) {
    errno = EINVAL;
    return -1;
  }
  const std::string path = "/var/run/netns/" + std::string(given);
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) return -1;
  const int status = setns(fd, nstype);
  const int error = errno;
  close(fd);
  errno = error;
  return status;
}
