#pragma once

#include <VornSdkRpc/ServerProperties.h>
#include <grpcpp/security/auth_metadata_processor.h>
#include <grpcpp/server_builder.h>
#include <vorn/export.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace VornSdkRpc {

class ListeningSocket;

// Listens for a server in place of gRPC's own listeners, which never accept again once a process
// has run out of file descriptors (gRPC up to 1.53.1). It also limits the connections of one peer,
// takes over sockets that listen already, refuses a taken port with the reason, and counts.
//
//   grpc::ServerBuilder builder;
//   const auto listener = std::make_shared<VornSdkRpc::Listener>(builder, properties);
//   const int port = listener->add("[::]:0", credentials);  // instead of AddListeningPort()
//   VornSdkRpc::GrpcServer server(builder, services, properties);
//   server.listenerIs(listener);
//   server.run();
//
// Clients can connect from add() on, and wait in the kernel's queue until the server has started. A
// thread of the listener's own accepts them and hands them to gRPC.
//
// While file descriptors are short, what comes is refused: the client sees its connection close at
// once, and may try again. A connection is refused when its descriptor would be one of the last 16
// of the process, which are the agent's; when not even those are left, the connections that wait
// are refused with a descriptor that is held back, 64 in 50 ms at most. What was refused is traced
// at level 0, once a second at most.
//
// An agent may close the listener's descriptors, and open files of its own under their numbers:
// those are left alone. All operations throw std::bad_alloc when memory runs out.
class VORN_EXPORT Listener {
 public:
  // What became of the connections so far.
  struct Figures {
    std::uint64_t accepted = 0;               // handed to gRPC
    std::uint64_t refusedForDescriptors = 0;  // for want of descriptors or memory
    std::uint64_t refusedForCallers = 0;      // over the number of addLocal()
    std::uint64_t refusedForPeer = 0;         // over the limit of their peer
    std::uint64_t refusedForFlood = 0;        // within FloodLimits::shutOut of their peer
    std::uint64_t closedForFlood = 0;         // over a limit of FloodLimits

    bool operator==(const Figures&) const = default;
  };

  // What a client may send over one TCP connection that comes to nothing; 0: any amount.
  struct FloodLimits {
    // Calls that are open or were abandoned (reset, or out of time, before their answer), of which
    // a tenth of the limit is forgotten in a second. To be above maxConcurrentStreams
    // (ServerArguments.h), by as many calls as an honest client may abandon at once.
    std::size_t abandonedCalls = 0;

    // Bytes for each open call, and one more, while no call begins and no message is whole. To be
    // above the largest message that is taken (maxReceiveMessageBytes), several times where the
    // agent lets messages wait.
    std::size_t bytesWithoutMessage = 0;

    // How long a new connection is refused from the address that one was closed of; those that are
    // open stay. To be 0 where many clients come from one address, as behind a proxy.
    std::chrono::milliseconds shutOut{0};

    bool any() const { return abandonedCalls != 0 || bytesWithoutMessage != 0; }
  };

  // For the server that `builder` will build. The builder must live until then. Of `properties`,
  // the name of the network namespace is read here: the sockets are opened inside of it.
  Listener(grpc::ServerBuilder& builder, const ServerProperties& properties);

  // Stops. The server must not be running any more, unless stop() has been called.
  ~Listener();

  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // How many connections one peer may have open; 0, the default, is no limit. A peer is an IP
  // address (an IPv4 address is the same one when it comes through an IPv6 socket) or, on a Unix
  // socket, a user. One more is closed at once. To be set before start().
  void connectionsPerPeerIs(std::size_t limit) { connectionsPerPeer_ = limit; }

  // How long a peer may leave data unacknowledged, or its window closed, until the kernel gives the
  // connection up (TCP_USER_TIMEOUT); 0, the default, is the kernel's own time, a quarter of an
  // hour. A stop waits for such a connection. To be set before start().
  void unacknowledgedTimeIs(std::chrono::milliseconds time) { unacknowledgedTime_ = time; }

  // Closes TCP connections, with TLS or without, over which more comes than `limits` allows: what
  // keeps gRPC busy and never reaches the agent (calls that are reset at once, headers without an
  // end). Who is over is closed within 50 ms or so, while the others are served on; it is traced at
  // level 0, once a second at most. It takes a thread of the listener's, and gRPC's own counts of
  // each connection: nothing is closed with GRPC_ARG_ENABLE_CHANNELZ off. To be set before start().
  void floodLimitsAre(const FloodLimits& limits) { floodLimits_ = limits; }

  // Listens on an address, with the given credentials, and returns the TCP port, or 0 for a Unix
  // socket:
  //
  //   HOST:PORT, [IPV6]:PORT   all addresses of the host; port 0 is a free one, the same for all
  //   0.0.0.0:PORT             every IPv4 address
  //   [::]:PORT, :PORT         every address
  //   unix:PATH, unix:///PATH  the file's mode follows the umask; one that a process has left
  //   behind
  //                            is replaced, and it is removed in the end if it is still the same
  //   unix-abstract:NAME
  //
  // A scheme in front of a host (ipv4:, ipv6:, dns:) may stand there. Throws std::system_error when
  // the kernel refuses (EADDRINUSE when somebody else listens there), std::invalid_argument for an
  // address that can't be read or a host that has none, and std::logic_error after start(). All of
  // them name the address. Before the server is built.
  int add(const std::string& address, std::shared_ptr<grpc::ServerCredentials> credentials);

  // Listens on a Unix socket (unix:PATH or unix-abstract:NAME) whose callers the kernel proves, and
  // gives each connection these properties of its authentication context:
  //
  //   peer-authenticated           the name of the user, or uid:NUMBER for one without a name
  //   peer-proof                   kernel
  //   session-id                   a name that no other connection of any agent has
  //   local-uid, local-user        the process that has connected: its effective user,
  //   local-gid, local-group       its effective group and supplementary groups, one value each,
  //   local-pid                    and its number, 0 in another process namespace
  //
  // A client can't choose any of them: what it binds its own end of the connection to, and what it
  // says in its metadata, is not looked at. `next` is asked after that, if there is one: a policy
  // (policyProcessor) for example. Transport security is gRPC's local one. Names are looked up on
  // the listener's thread, and kept for a minute. There are `connections` of them at most, each at
  // the price of about 5 KiB from the start; one more is closed at once. Throws as add() does, and
  // std::invalid_argument for another kind of address.
  int addLocal(const std::string& address, std::shared_ptr<grpc::AuthMetadataProcessor> next = {},
               std::size_t connections = 256);

  // add() for a stream socket that listens already and was handed to the process, by its
  // supervisor for example. The listener owns the descriptor from here on; it is closed in the end,
  // and the socket's file is not removed. The socket becomes non-blocking for everybody who shares
  // it. Throws std::invalid_argument, and leaves the descriptor alone, when it is no such socket.
  int addInherited(int fd, std::shared_ptr<grpc::ServerCredentials> credentials);

  // addInherited() for a Unix socket, with callers as those of addLocal(). The kernel proves who
  // has connected, also of those who did so before the process was there. Throws
  // std::invalid_argument for another kind of socket as well.
  int addInheritedLocal(int fd, std::shared_ptr<grpc::AuthMetadataProcessor> next = {},
                        std::size_t connections = 256);

  // Begins to accept, when the server has been built and started, and ends with the sockets closed:
  // from then on clients are refused by the kernel. The connections that have been accepted are not
  // touched. With a server of gRPC's own, stop() comes before its Shutdown(); GrpcServer calls both
  // in time. stop() may be called from any thread, again, and without a start(). start() throws
  // std::system_error when no thread can be started.
  void start();
  void stop();

  // Closes every connection that is still open, once the listener has stopped, however much there
  // is left to write: gRPC's shutdown waits for a peer that reads no more. GrpcServer calls it
  // 300 ms after everything was cancelled. Any thread.
  void closeConnections();

  // Any thread.
  Figures figures() const;

  // How many connections are open; it looks at each. Any thread.
  std::size_t openConnections() const;

 private:
  class VORN_NO_EXPORT Accepting;

  VORN_NO_EXPORT void mustNotHaveStarted(const std::string& what) const;
  VORN_NO_EXPORT std::vector<ListeningSocket> listenInNamespace(const std::string& address);
  VORN_NO_EXPORT std::vector<ListeningSocket> inherited(int fd) const;
  VORN_NO_EXPORT int addLocal(std::vector<ListeningSocket> sockets,
                              const std::shared_ptr<grpc::AuthMetadataProcessor>& next,
                              std::size_t connections);
  VORN_NO_EXPORT std::shared_ptr<grpc::experimental::ExternalConnectionAcceptor> acceptor(
      std::shared_ptr<grpc::ServerCredentials> credentials);

  grpc::ServerBuilder* builder_;
  const std::string nsName_;
  std::size_t connectionsPerPeer_ = 0;
  std::chrono::milliseconds unacknowledgedTime_ = std::chrono::seconds(20);
  FloodLimits floodLimits_;
  std::unique_ptr<Accepting> accepting_;
};

}  // namespace VornSdkRpc
