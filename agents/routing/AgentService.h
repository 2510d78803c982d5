#pragma once

#include <VornSdkRpc/CallNote.h>
#include <VornSdkRpc/MessagePrinters.h>
#include <VornSdkRpc/PeerInfo.h>
#include <VornSdkRpc/Rpc.h>
#include <vorn/tracer.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agents/routing/Backlog.h"
#include "agents/routing/Check.h"
#include "agents/routing/RoutingAgent.grpc.pb.h"
#include "agents/routing/Tables.h"

namespace routing_agent {

namespace rpc = VornSdkRpc::rpc;

// Whether the caller may change anything: everybody on this host, and from elsewhere those whose
// connection has proven an identity. `listen` are the addresses that the agent listens on.
inline bool mayChange(const grpc::ServerContext& context, const std::vector<std::string>& listen) {
  for (const auto& address : listen) {
    if (VornSdkRpc::isLocalIpAddr(context.peer(), address)) return true;
  }
  const auto identity = context.auth_context();
  return identity && !identity->FindPropertyValues("peer-authenticated").empty();
}

// The operation of a message that sets or deletes something, as records of calls have it.
template <typename Message>
const char* operationOf(const Message& message) {
  return message.request_delete() ? "delete" : "set";
}

inline grpc::Status ok() { return grpc::Status::OK; }
inline grpc::Status notFound(const std::string& what) {
  return {grpc::StatusCode::NOT_FOUND, "there is no " + what};
}
inline grpc::Status mayNot() {
  return {grpc::StatusCode::PERMISSION_DENIED,
          "only local and authenticated peers may change anything"};
}
inline grpc::Status tooMuchWaits() {
  return {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many changes wait to be programmed"};
}

// What the agent's services have in common.
template <typename Generated>
class AgentService : public rpc::Service<Generated> {
 protected:
  AgentService(std::string name, Backlog& backlog, const std::vector<std::string>& listen)
      : rpc::Service<Generated>(std::move(name)), backlog_(backlog), listen_(listen) {}

  // One line for each message that arrives, at level 8.
  template <typename Message>
  void traceArrival(const Message& message) const {
    if (this->tracer_.enabled(8)) this->tracer_.trace8("received %s", toString(message).c_str());
  }

  // A message that asks for a change: checked, and put on the backlog after the bookkeeping of what
  // is wanted. Possible for callers who may, while the backlog has room; deleting a key, when it is
  // there. Throws vorn::invalid_argument_error when the message can't be used.
  template <typename Message, typename Key>
  grpc::Status change(grpc::ServerContext& context, const Message& message, std::set<Key>& wanted,
                      const Key& key, bool deletes, const char* what, Backlog::Change program,
                      Backlog::Kind kind = Backlog::single) {
    traceArrival(message);
    if (!mayChange(context, listen_)) return mayNot();
    check(message);
    if (deletes && !wanted.contains(key)) return notFound(what);
    const bool isNew = !deletes && wanted.insert(key).second;
    if (!backlog_.add(std::move(program), message.SpaceUsedLong(), kind)) {
      if (isNew) wanted.erase(key);
      return tooMuchWaits();
    }
    if (deletes) wanted.erase(key);
    return ok();
  }

  Backlog& backlog_;
  const std::vector<std::string> listen_;
};

}  // namespace routing_agent
