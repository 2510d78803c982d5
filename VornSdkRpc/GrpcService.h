#pragma once

#include <VornSdkRpc/RequestHandler.h>
#include <VornSdkRpc/ServerProperties.h>
#include <vorn/export.h>
#include <vorn/tracer.h>

#include <atomic>
#include <cstddef>
#include <string>

namespace grpc {
class Server;
class ServerBuilder;
class ServerCompletionQueue;
}  // namespace grpc

namespace VornSdkRpc {

class GrpcServer;

// The base of every gRPC service that a GrpcServer hosts. An agent derives one class per service
// and gives it the generated AsyncService; this base gives it a name and a trace, the started
// server and its completion queue, a stopping flag, and the bookkeeping that ties completion-queue
// tags to request handlers.
//
// A service's life: construction; selfRegister (by the GrpcServer's constructor, which calls
// registerWith); started (by GrpcServer::setup(), which calls serverStarted, where the service
// makes one handler per method and asks gRPC for the first calls); process for every completed tag;
// stoppingIs(true) (by GrpcServer::stop()); destruction.
//
// Everything that touches tags is valid from started() on. Tags may be made, registered and removed
// on any thread; the hooks say where they run.
class VORN_EXPORT GrpcService {
 public:
  // The service's name, and that of its trace, is `name` with "-service" appended.
  explicit GrpcService(std::string name);
  virtual ~GrpcService();
  GrpcService(const GrpcService&) = delete;
  GrpcService& operator=(const GrpcService&) = delete;

  // Gives the service its position in the server's list of services, and registers it with the
  // builder through registerWith(). Clears the flags for stopping and draining without a
  // notification.
  void selfRegister(std::size_t serviceId, grpc::ServerBuilder& builder);

  // Hands over the running server, its queue and the agent's settings, all of which outlive the
  // service's use of them, and calls serverStarted(). Serving thread.
  void started(GrpcServer& server, grpc::ServerCompletionQueue& cq, ServerProperties& properties);

  // Sets the stopping flag, and calls stoppingChanged() on this thread when that changes it. A
  // stopping service ignores completions. Any thread.
  void stoppingIs(bool stopping);

  // Whether the service is stopping. Any thread.
  bool stopping() const { return stopping_; }

  // Sets the draining flag, and calls drainingChanged() on this thread when that changes it. Done
  // by the server, on the serving thread, when GrpcServer::stop(grace) takes effect. A draining
  // service is given the completions of its calls in progress, and no new calls.
  void drainingIs(bool draining);

  // Whether the server is being drained: what can end by itself should. Any thread.
  bool draining() const { return draining_; }

  // The gRPC server that hosts the service. Valid from started() on.
  grpc::Server* server();

  // Whether the operation whose completion is being dispatched succeeded. For a handler's
  // proceed(), on the serving thread: a failed write or finish is a dead call, a failed read that
  // or the end of the client's stream, which grpc_call_failed_before_recv_message(context.c_call())
  // tells apart.
  bool completionOk() const;

  // A new tag of this service, without a handler. Store its handler before gRPC is given the tag.
  OpaqueId nextOpaqueId();

  // Stores a handler under its primary tag, opaqueId_.
  void registerHandler(RequestHandlerPtr handler);

  // Stores a handler under a tag of this service, in place of one stored before.
  void registerHandlerAs(OpaqueId tag, RequestHandlerPtr handler);

  // A further tag for a handler, stored already: for a second operation that is outstanding at the
  // same time.
  OpaqueId assignExtraTag(const RequestHandlerPtr& handler);

  // The handler of a tag, without a reference: it lives as long as the registry or the dispatch
  // holds it. Null when the tag is unknown or has no handler. Asserts that a known tag belongs to
  // this service.
  RequestHandler* findHandler(OpaqueId tag) const;

  // Forgets a tag; an unknown one is ignored.
  void removeHandler(OpaqueId tag);

  // Advances the handler of a completed tag, by its state: a handler that waited for a call gets
  // its successor and then proceeds, one in progress proceeds, for a finished one the tag is
  // forgotten. A handler whose call will not come, because the server is being drained, is
  // withdrawn instead. Does nothing while the service is stopping. Serving thread.
  void process(OpaqueId tag, RequestHandler* handler);

  const std::string& name() const { return name_; }
  std::size_t serviceId() const { return serviceId_; }

 protected:
  // Registers the gRPC service, and whatever else it needs, with the builder.
  virtual void registerWith(grpc::ServerBuilder& builder) = 0;

  // The server runs: make and register the first handler of each method, and ask for the first
  // calls. Serving thread, outside of the server's network namespace.
  virtual void serverStarted() = 0;

  // The stopping flag has changed. Runs on the thread that changed it, so it must be safe beside
  // process() on the serving thread. A service with alarms on the queue cancels them here: a
  // pending one holds up the stop.
  virtual void stoppingChanged();

  // The draining flag has changed: calls that could go on for long should end now. The base version
  // does nothing. Serving thread, between two dispatches.
  virtual void drainingChanged();

  std::string name_;
  std::size_t serviceId_ = 0;
  GrpcServer* server_ = nullptr;
  grpc::ServerCompletionQueue* cq_ = nullptr;
  vorn::tracer tracer_;

 private:
  std::atomic<bool> stopping_ = false;

 protected:
  ServerProperties* properties_ = nullptr;

 private:
  friend class GrpcServer;

  // What process() does with a call that has arrived, and the server with one whose turn has come.
  VORN_NO_EXPORT void begin(OpaqueId tag, RequestHandler* handler);
  VORN_NO_EXPORT void beginInTurn(OpaqueId tag, RequestHandler* handler);

  std::atomic<bool> draining_ = false;
  bool claimed_ = false;  // by a server
};

}  // namespace VornSdkRpc
