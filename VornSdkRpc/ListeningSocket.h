#pragma once

#include <VornSdkRpc/OwnDescriptor.h>

#include <string>
#include <utility>
#include <vector>

namespace VornSdkRpc {

// A socket that listens. Its end closes it, and removes its file if it is a Unix socket that was
// made here and the file is still its own.
class ListeningSocket {
 public:
  // Takes over a stream socket that listens already, and makes it non-blocking (which whoever
  // shares it sees, too). Throws std::invalid_argument when `fd` is nothing like that; it is the
  // caller's then.
  static ListeningSocket inherited(int fd);

  ListeningSocket(ListeningSocket&& other) noexcept
      : socket_(std::move(other.socket_)),
        path_(std::exchange(other.path_, {})),
        file_(other.file_) {}
  ListeningSocket& operator=(ListeningSocket&&) = delete;
  ~ListeningSocket();

  int fd() const { return socket_.get(); }
  bool intact() const { return socket_.intact(); }

  // The TCP port; 0 for a Unix socket.
  int port() const;

 private:
  friend std::vector<ListeningSocket> listenOn(const std::string& address);

  explicit ListeningSocket(OwnDescriptor socket, std::string path = {});

  OwnDescriptor socket_;
  std::string path_;  // of the file to remove; empty: none
  FileIdentity file_{-1};
};

// Opens the sockets of a Listener::add() in the calling thread's network namespace: one, or as many
// as a host name has addresses. Throws as that does.
std::vector<ListeningSocket> listenOn(const std::string& address);

}  // namespace VornSdkRpc
