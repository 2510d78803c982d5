#pragma once

#include <VornSdkRpc/GrpcService.h>
#include <VornSdkRpc/Listener.h>
#include <VornSdkRpc/PeerInfo.h>
#include <VornSdkRpc/RequestHandler.h>
#include <VornSdkRpc/ServerProperties.h>
#include <VornSdkRpc/TagManager.h>
#include <grpcpp/grpcpp.h>
#include <vorn/export.h>
#include <vorn/mutex.h>
#include <vorn/tracer.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace VornSdkRpc {

class Turns;

namespace rpc {
class ServiceBase;
}  // namespace rpc

class Later;

// Thrown when the gRPC server can't be built: a port that is taken, say, or a second setup() of one
// GrpcServer. Carries no text; the trace handle "grpc" says why.
class VORN_EXPORT ServerFailedError : public std::exception {
 public:
  const char* what() const noexcept override;
};

// The asynchronous gRPC server of an agent. It builds the server from the agent's builder inside
// the agent's network namespace, starts the services, and runs one loop that takes completed
// operations from one completion queue and hands each to the handler that waits for it.
//
//   grpc::ServerBuilder builder;
//   builder.AddListeningPort("127.0.0.1:50051", grpc::InsecureServerCredentials());
//   VornSdkRpc::ServerProperties properties;
//   VornSdkRpc::GrpcServer server(builder, {std::make_shared<MyService>()}, properties);
//   server.run();  // until another thread calls server.stop()
//
// One thread serves: the one that calls run(). setup(), every handler step and teardown() happen on
// it. stop() may come from any thread, but not from a signal handler. One object serves once; an
// agent that wants to serve again makes a new builder, new services and a new GrpcServer.
//
// gRPC's own listeners never accept again once the process has run out of file descriptors, and
// serve nobody while connections come faster than they accept. A Listener has neither flaw.
class VORN_EXPORT GrpcServer {
 public:
  // Gives every service its position in the list as its id, and the builder, through
  // GrpcService::selfRegister. Owns neither the builder nor the properties: the first must live
  // until setup() has returned, the second as long as this object. `accountingEnabled` only lets
  // teardown() say that accounting has finished; accounting itself is on when the builder holds a
  // LoggingInterceptorFactory. Throws std::invalid_argument for a service that is null, stands
  // twice in the list, or has been given to another GrpcServer before.
  GrpcServer(grpc::ServerBuilder& builder, std::vector<std::shared_ptr<GrpcService>> services,
             ServerProperties& properties, bool accountingEnabled = false);

  // Shuts down whatever run() has left running (when an exception has left it, or the steps were
  // driven by hand), then destroys the handlers, the services' references and the server. run()
  // must have returned. Aborts the process as teardown() does.
  ~GrpcServer();

  GrpcServer(const GrpcServer&) = delete;
  GrpcServer& operator=(const GrpcServer&) = delete;

  // setup(), then one dequeue() after another until stop() is seen, then teardown(). Throws what
  // setup(), a service or a handler throws, but for std::out_of_range (see handleTag).
  void run();

  // Asks the services and the loop to stop, and returns at once. run() returns after at most one
  // poll (200 ms), the step in progress and the teardown. A poll or step that takes longer than
  // 250 ms finds every call cancelled. May be called before run(), and again. Throws the first
  // exception of a service's stoppingChanged(), when all have been asked.
  void stop();

  // Drains the server, and then stops it. gRPC's health service, if the agent has turned it on,
  // says NOT_SERVING, new connections and calls are refused, and the services are told
  // (GrpcService::drainingChanged). Calls in progress go on. The stop follows when the last of them
  // has ended, or when `grace` is over, counted from here. With a Listener, no call that is on its
  // way fails: clients are told first to go elsewhere (GOAWAY), and what they send before they hear
  // of it is taken, for a second or half the grace at most. Returns at once; the drain begins with
  // the next poll. Of several graces the one that ends first holds, and stop() ends them all; one
  // that is not positive is a stop(). May be called before run(). Any thread.
  void stop(std::chrono::milliseconds grace);

  // Whether a stop has been asked for, or a drain is over: an agent's own loop ends then.
  bool stopRequested() const { return stopRequested_; }

  // How many times dequeue() has been called. It goes on growing, several times a second, for as
  // long as the server runs; where it stands still, a handler does not return. Any thread.
  std::uint64_t turns() const { return turns_.load(std::memory_order_relaxed); }

  // How long the server may take to end once everything has been cancelled; 30 s unless it is set,
  // and no limit when it is not positive. What has not ended by then never will, as when gRPC has
  // run out of memory in the middle of a call: a trace line at level 0 says so, and the process is
  // aborted, so that its supervisor can act. To be set before run().
  void stopTimeoutIs(std::chrono::milliseconds timeout) { stopTimeout_ = timeout; }

  // Whoever accepts for the server, beside gRPC's own listeners, if there are any: it starts when
  // the services have started, and stops when the server is drained or stopped. To be set before
  // run().
  void listenerIs(std::shared_ptr<Listener> listener) { listener_ = std::move(listener); }

  // Whether clients take turns: a call of one that has more than its share is put off until those
  // of others, and everything else that can be done, have been served. A client is an IP address
  // or, on a Unix socket, a proven user (Listener::addLocal()). For services of the kit, and for
  // handlers that have a callContext(); not unless it is set. To be set before run().
  void clientsTakeTurnsIs(bool takeTurns);

  // The steps of run(), public so that an agent with an event loop of its own can drive them, on
  // one thread.

  // Builds and starts the server inside the namespace of the properties, then starts the services
  // outside of it. Throws ServerFailedError when gRPC builds no server, with no service started and
  // the thread back in its own namespace, and on every call but the first: one object serves once.
  // Throws std::logic_error when the builder has built the server of another GrpcServer: it builds
  // one only.
  void setup();

  // One poll of the completion queue, for at most 200 ms. Returns whether a completion was handled.
  // Begins a drain that has been asked for, and calls stop() when one is over.
  bool dequeue();

  // Hands a completed operation to the service and handler of its tag. A tag that is unknown or has
  // no handler is traced and dropped. After stop(), a failed operation's tag is forgotten instead.
  // An std::out_of_range from the service or the handler ends the dispatch quietly; any other
  // exception passes on.
  void handleTag(OpaqueId tag, bool ok);

  // After a successful setup(), once: stops the services if stop() has not been called, cancels
  // every call, shuts the server and the queue down, and handles what is left in the queue. A
  // pending grpc::Alarm holds it up, and so does a peer that has stopped reading, until keepalive
  // or TCP gives it up; what takes longer than the stop's timeout aborts the process. Throws what
  // stop() throws.
  void teardown();

  TagManager& tagManager() { return tagManager_; }

  // The gRPC server; null until setup() has succeeded. stop() ends it, nobody else may: services
  // that are not stopping ask a server that has been shut down for calls again and again.
  grpc::Server* server() const { return server_.get(); }

  // Whether the operation that handleTag() is dispatching succeeded. Serving thread, within a
  // dispatch.
  bool completionOk() const { return completionOk_; }

 private:
  using Clock = std::chrono::steady_clock;
  class VORN_NO_EXPORT Emptied;
  friend class GrpcService;
  friend class rpc::ServiceBase;

  VORN_NO_EXPORT bool putOff(OpaqueId tag, RequestHandler& handler);
  VORN_NO_EXPORT void charge();
  VORN_NO_EXPORT void takeTurn();
  VORN_NO_EXPORT void serveWaiting();
  VORN_NO_EXPORT void dispatch(OpaqueId tag, bool ok,
                               void (GrpcService::*step)(OpaqueId, RequestHandler*));
  VORN_NO_EXPORT void claim(std::size_t serviceId);

  VORN_NO_EXPORT void drain(Clock::time_point now);
  VORN_NO_EXPORT void beginDrain(Clock::time_point now);
  VORN_NO_EXPORT void refuseCalls();
  VORN_NO_EXPORT void stopListening();
  VORN_NO_EXPORT void shutQueue();
  VORN_NO_EXPORT void cancelUnlessTurning();
  VORN_NO_EXPORT void leaveLoop();

  grpc::ServerBuilder* builder_;
  std::unique_ptr<grpc::ServerCompletionQueue> cq_;
  std::unique_ptr<grpc::Server> server_;
  std::shared_ptr<Listener> listener_;
  std::vector<std::shared_ptr<GrpcService>> services_;
  vorn::tracer tracer_;
  std::atomic<bool> stopRequested_ = false;
  std::atomic<std::uint64_t> turns_ = 0;
  TagManager tagManager_;
  ServerProperties* properties_;
  bool accountingEnabled_;
  bool completionOk_ = true;
  std::unique_ptr<Turns> clientTurns_;  // null: calls are served as they arrive
  std::string client_;                  // of the call that begins; empty: nobody counts it
  Clock::time_point begunAt_;
  unsigned sinceServed_ = 0;  // completions, while calls wait
  std::chrono::milliseconds stopTimeout_ = std::chrono::seconds(30);
  bool queueShut_ = false;  // nothing new may go through the queue
  bool drained_ = false;    // and it has nothing left
  std::atomic<Clock::time_point> drainEnd_ =
      Clock::time_point::max();  // when no drain is asked for
  // Those that come until then are on their way from clients that have not heard of the drain.
  Clock::time_point refuseCallsAt_ = Clock::time_point::max();  // until a drain begins
  std::unique_ptr<Emptied> emptied_;                            // null until calls are refused
  std::unique_ptr<Emptied> cancelled_;  // by a stop that the loop did not see
  vorn::mutex loopMutex_;
  bool looping_ VORN_GUARDED_BY(loopMutex_) = false;               // after setup(), before the end
  std::unique_ptr<Later> cancelling_ VORN_GUARDED_BY(loopMutex_);  // since stop(), meanwhile
};

}  // namespace VornSdkRpc
