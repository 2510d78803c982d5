#pragma once

#include <vorn/export.h>

#include <cstdint>
#include <memory>

namespace grpc {
class ServerContext;
}  // namespace grpc

// One call in flight, as the server sees it. An agent derives a class per RPC method; one object
// serves one call, and the server advances it by one step whenever an operation of it completes on
// the completion queue.
namespace VornSdkRpc {

// A completion-queue tag: the address of the tag registry's own record of it. Made by
// GrpcService::nextOpaqueId and assignExtraTag, never by hand.
using OpaqueId = void*;

class RequestHandler;
using RequestHandlerPtr = std::shared_ptr<RequestHandler>;

// Everything but the destructor runs on the thread of GrpcServer::run(), so a handler needs no
// lock. The destructor runs where the last reference is dropped, which may be under the tag
// registry's lock: it must not call back into the registry (through GrpcService or TagManager).
class VORN_EXPORT RequestHandler {
 public:
  enum State : std::uint32_t {
    // gRPC has been asked for a call; the next completion means that one has arrived.
    AWAITING_CALL = 0,
    // In the middle of the exchange; every completion advances the handler.
    IN_PROGRESS = 1,
    // Nothing is left to do; the next completion of a tag makes the registry forget it.
    FINISHED = 2,
  };

  virtual ~RequestHandler();

  // Advances the call by the completion of `tag`: the handler's primary tag or one of its extra
  // tags. Whether the operation succeeded is answered by GrpcService::completionOk(). A handler
  // that leaves `state_` at AWAITING_CALL has handed gRPC its last operation, and is FINISHED for
  // the server.
  virtual void proceed(OpaqueId tag) = 0;

  // Makes the handler of the method's next call: a fresh one of the same kind, whose opaqueId_ is
  // `tag` and which has asked gRPC for a call under it. The caller registers it. Called once, when
  // this handler's call has arrived and before it is advanced. One that throws leaves its method
  // without a handler.
  virtual RequestHandlerPtr spawn(OpaqueId tag) = 0;

  // Called in place of proceed() on a handler that waits for a call, when the server is being
  // drained and gRPC has given back the request for one: no call will come. The registry forgets
  // `tag` afterwards, and no successor is spawned. For what the handler has to give up besides.
  virtual void withdrawn(OpaqueId /*tag*/) {}

  // The context of the call, for a server whose clients take turns: the call may then wait after it
  // has arrived, and its first proceed() comes later. Null, as here: the call never waits.
  virtual const grpc::ServerContext* callContext() const { return nullptr; }

  // Called when the call begins to wait for its turn; it is IN_PROGRESS until that comes. A handler
  // that has asked for AsyncNotifyWhenDone() registers for that tag here: the call may end.
  virtual void putOff() {}

  State state_ = AWAITING_CALL;

  // The primary tag: from GrpcService::nextOpaqueId() for a method's first handler, from spawn()
  // for the others.
  OpaqueId opaqueId_ = nullptr;
};

}  // namespace VornSdkRpc
