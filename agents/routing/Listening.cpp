#include "agents/routing/Listening.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agents/routing/Options.h"

namespace routing_agent {

void checkSocketFile(const std::string& address) {
  if (!address.starts_with("unix:")) return;
  const std::string path = address.substr(address.starts_with("unix://") ? 7 : 5);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (path.size() >= sizeof name.sun_path)
    throw UsageError("the path of " + address + " is too long");
  std::memcpy(name.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw UsageError("cannot listen on " + address + ": " + std::strerror(errno));
  const bool taken = connect(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
  close(fd);
  if (taken) throw UsageError("cannot listen on " + address + ": another server does");
}

}  // namespace routing_agent
