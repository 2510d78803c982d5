#pragma once

#include <VornSdkRpc/CallAccounting.h>
#include <VornSdkRpc/Listener.h>

#include <string>
#include <vector>

#include "agents/routing/Identity.h"
#include "agents/routing/Options.h"

// Where the agent listens, and who may open its Unix sockets.
namespace routing_agent {

// One address, or one socket that the service manager has opened.
struct Place {
  std::string address;  // as gRPC writes it
  int inherited = -1;   // the socket's descriptor; -1: it is yet to be opened
};

// Answers the sockets that the service manager has handed over (LISTEN_FDS), and the addresses of
// the options; the default address when there are neither. Takes the manager's variables out of the
// environment. Throws std::system_error for a socket that can't be named.
std::vector<Place> placesOf(const Options& options);

// Listens on a place, with what `access` says of its address, and returns the port. A Unix socket
// that is opened here gets the mode and the group of the options; until it has them, it is the
// agent's user's alone. Throws as Listener::add() does, and std::system_error when the file can't
// be given away.
int listen(const Place& place, const SocketOptions& options, VornSdkRpc::Listener& listener,
           const Access& access, VornSdkRpc::CallAccounting* accounting);

}  // namespace routing_agent
