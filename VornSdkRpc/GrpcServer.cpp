#include <VornSdkRpc/GrpcServer.h>

#include <Kiv/Trace.h>
#include <VornSdkRpc/Completion.h>
#include <VornSdkRpc/Goaway.h>
#include <VornSdkRpc/GrpcLog.h>
#include <VornSdkRpc/Later.h>
#include <VornSdkRpc/ProtobufLog.h>
#include <VornSdkRpc/ScopedNamespace.h>
#include <VornSdkRpc/Turns.h>
#include <grpc/grpc.h>
#include <grpcpp/health_check_service_interface.h>
#include <grpcpp/impl/server_builder_option.h>
#include <time.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>

namespace VornSdkRpc {

using NextStatus = grpc::CompletionQueue::NextStatus;

namespace {

// gRPC starts threads of its own with the first server of the process, and a thread begins in the
// namespace of the one that starts it. An idle server that is made outside of the agent's
// namespace, and held while the real one is built inside, keeps those threads, and every connection
// that they ever open, outside as well. (The threads of synchronous services, such as reflection,
// start inside: they serve that server and nothing else.)
struct DestroyServer {
  void operator()(grpc_server* server) const { grpc_server_destroy(server); }
};
using IdleServer = std::unique_ptr<grpc_server, DestroyServer>;

// gRPC takes itself down with its last object, and that waits for a poller of its own: up to ten
// seconds when a peer has just stopped reading. An agent that ends must not hang there, so gRPC
// stays up until the process is gone.
void keepGrpcUp() {
  static const bool up = (grpc_init(), true);
  static_cast<void>(up);
}

// The monotonic clock as of its last tick, some milliseconds ago: to read it exactly, once a poll,
// is a hundredth of what a small call costs.
std::chrono::steady_clock::time_point coarseNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::steady_clock::time_point(std::chrono::seconds(now.tv_sec) +
                                               std::chrono::nanoseconds(now.tv_nsec));
}

// An option of a builder that has no effect but on a second server: the builder keeps a pointer to
// the queue of its first one, and gRPC would go on with that, freed or not.
class BuildsOnce : public grpc::ServerBuilderOption {
 public:
  void UpdateArguments(grpc::ChannelArguments*) override {
    if (std::exchange(built_, true))
      throw std::logic_error("the grpc::ServerBuilder has built a server already: it builds one");
  }
  void UpdatePlugins(std::vector<std::unique_ptr<grpc::ServerBuilderPlugin>>*) override {}

 private:
  bool built_ = false;
};

// Sees to it that what has been cancelled ends, unless it is destroyed before.
class EndsInTime {
 public:
  EndsInTime(const vorn::tracer& tracer, grpc_server* server, Listener* listener,
             std::chrono::milliseconds timeout) {
    // A flood may keep gRPC from cancelling what it was told to. And it waits for every connection
    // to close, when it can't even tell a peer that does not read.
    constexpr std::chrono::milliseconds kToHearOfIt{300};
    cut_.emplace(kToHearOfIt, [server, listener] {
      grpc_server_cancel_all_calls(server);
      if (listener) listener->closeConnections();
    });
    if (timeout > timeout.zero())
      abort_.emplace(timeout, [&tracer, timeout] { abandon(tracer, timeout); });
    if (!cut_->planned() || (abort_ && !abort_->planned()))
      tracer.warn("The stop has no timeout, for want of a thread.");
  }

 private:
  [[noreturn]] static void abandon(const vorn::tracer& tracer, std::chrono::milliseconds timeout) {
    tracer.error("The server has not ended %lld ms after everything was cancelled: aborted.",
                 static_cast<long long>(timeout.count()));
    Kiv::traceLogger().flush();
    std::abort();
  }

  std::optional<Later> cut_, abort_;
};

// Calls `tell` for every service, whatever the others throw. Returns the first exception, or null.
template <typename Tell>
std::exception_ptr tellAll(const std::vector<std::shared_ptr<GrpcService>>& services, Tell tell) {
  std::exception_ptr failure;
  for (const auto& service : services) {
    try {
      tell(*service);
    } catch (...) {
      if (!failure) failure = std::current_exception();
    }
  }
  return failure;
}

}  // namespace

// What gRPC puts on the queue when a server that takes no calls any more has no call and no
// connection left.
class GrpcServer::Emptied : public grpc::internal::CompletionQueueTag {
 public:
  bool FinalizeResult(void** tag, bool*) override {
    *tag = this;
    return true;
  }
  bool come = false;
};

const char* ServerFailedError::what() const noexcept { return ""; }

GrpcServer::GrpcServer(grpc::ServerBuilder& builder,
                       std::vector<std::shared_ptr<GrpcService>> services,
                       ServerProperties& properties, bool accountingEnabled)
    : builder_(&builder),
      services_(std::move(services)),
      tracer_("GrpcServer"),
      properties_(&properties),
      accountingEnabled_(accountingEnabled) {
  keepGrpcUp();
  builder.SetOption(std::make_unique<BuildsOnce>());
  protobufLogToTrace();
  grpcLogToTrace();
  Kiv::traceLogger();  // whose thread is to begin outside of the agent's namespace
  for (std::size_t id = 0; id < services_.size(); ++id) {
    claim(id);
    services_[id]->selfRegister(id, builder);
  }
}

// gRPC ends the process when a service is registered a second time.
void GrpcServer::claim(std::size_t serviceId) {
  const std::string which = "service " + std::to_string(serviceId) + " of the server";
  const auto& service = services_[serviceId];
  if (!service) throw std::invalid_argument(which + " is null");
  if (std::exchange(service->claimed_, true)) {
    throw std::invalid_argument(which + ", " + service->name() +
                                ", is one of a server already: a service serves once");
  }
}

GrpcServer::~GrpcServer() {
  if (!server_ || drained_) return;
  // The queue must be empty before it is destroyed. What completes now is not dispatched any more:
  // the handlers go with the registry.
  try {
    stop();
  } catch (...) {
    tracer_.error("A service failed to stop.");
  }
  leaveLoop();
  stopListening();
  const EndsInTime limits(tracer_, server_->c_server(), listener_.get(), stopTimeout_);
  server_->Shutdown(std::chrono::system_clock::now());
  shutQueue();
  OpaqueId tag = nullptr;
  bool ok = false;
  while (cq_->Next(&tag, &ok)) {
  }
}

void GrpcServer::run() {
  setup();
  while (!stopRequested_)
    dequeue();
  teardown();
  tracer_.trace0("Server is being shut down.");
}

void GrpcServer::stop() {
  const auto failure = tellAll(services_, [](auto& service) { service.stoppingIs(true); });
  stopRequested_ = true;
  cancelUnlessTurning();
  if (failure) std::rethrow_exception(failure);
}

// gRPC accepts and reads on the thread that polls, and goes on for as long as a flood of
// connections or calls does: the poll never returns, and the loop never sees the stop.
void GrpcServer::cancelUnlessTurning() {
  constexpr std::chrono::milliseconds kMoreThanAPoll{250};
  const vorn::lock_guard lock(loopMutex_);
  if (!looping_ || cancelling_) return;
  cancelling_ = std::make_unique<Later>(kMoreThanAPoll, [this, turn = turns()] {
    if (turns() != turn) return;
    stopListening();
    grpc_server_shutdown_and_notify(server_->c_server(), cq_->cq(), cancelled_.get());
    grpc_server_cancel_all_calls(server_->c_server());
  });
}

// From here on the thread that calls this ends the server.
void GrpcServer::leaveLoop() {
  std::unique_ptr<Later> cancelling;  // ends with the lock released
  const vorn::lock_guard lock(loopMutex_);
  looping_ = false;
  cancelling = std::move(cancelling_);
}

void GrpcServer::stop(std::chrono::milliseconds grace) {
  if (grace <= grace.zero()) return stop();
  const auto end = Clock::now() + std::min(grace, Later::kLongest);
  auto before = drainEnd_.load();
  while (end < before && !drainEnd_.compare_exchange_weak(before, end)) {
  }
}

void GrpcServer::drain(Clock::time_point now) {
  if (refuseCallsAt_ == Clock::time_point::max()) beginDrain(now);
  if (!emptied_ && now >= refuseCallsAt_) refuseCalls();
}

void GrpcServer::beginDrain(Clock::time_point now) {
  tracer_.trace0("Server is being drained.");
  if (auto* health = server_->GetHealthCheckService()) health->Shutdown();
  stopListening();
  refuseCallsAt_ = now;
  // Clients who leave come back at once where gRPC itself still listens.
  if (!listener_ || !tellClientsToLeave(server_->c_server())) return;
  constexpr Clock::duration kToHearOfIt = std::chrono::seconds(1);
  refuseCallsAt_ += std::min(kToHearOfIt, (drainEnd_.load() - now) / 2);
}

void GrpcServer::refuseCalls() {
  emptied_ = std::make_unique<Emptied>();
  // Closes gRPC's own listening sockets, tells the clients, and gives the services' requests for
  // calls back. (grpc::Server::Shutdown() would wait here until the last call has ended.)
  grpc_server_shutdown_and_notify(server_->c_server(), cq_->cq(), emptied_.get());
  const auto failure = tellAll(services_, [](auto& service) { service.drainingIs(true); });
  if (failure) std::rethrow_exception(failure);
}

void GrpcServer::setup() {
  if (cq_) throw ServerFailedError();
  cq_ = builder_->AddCompletionQueue(true);
  const IdleServer threadsOutside(grpc_server_create(nullptr, nullptr));
  {
    const ScopedNamespace scope(properties_->nsName);
    server_ = builder_->BuildAndStart();
    if (!server_) throw ServerFailedError();
  }
  for (const auto& service : services_)
    service->started(*this, *cq_, *properties_);
  if (listener_) listener_->start();
  cancelled_ = std::make_unique<Emptied>();
  const vorn::lock_guard lock(loopMutex_);
  looping_ = true;
}

// Before gRPC is told that the server goes down: a connection that the listener hands over after
// that ends the process.
void GrpcServer::stopListening() {
  if (listener_) listener_->stop();
}

void GrpcServer::shutQueue() {
  if (!std::exchange(queueShut_, true)) cq_->Shutdown();
}

bool GrpcServer::dequeue() {
  turns_.store(turns_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  const auto drainEnd = stopRequested_ ? Clock::time_point::max() : drainEnd_.load();
  const bool drains = drainEnd != Clock::time_point::max();
  const auto now = drains ? Clock::now() : coarseNow();
  if (drains) drain(now);
  const bool clientsLeave = drains && !emptied_;
  if (now >= drainEnd) {
    stop();
    return false;
  }
  const bool lastPoll = !stopRequested_ && emptied_ && emptied_->come;
  if (clientTurns_ && clientTurns_->waiting() && !stopRequested_) {
    takeTurn();
    return true;
  }
  // A point in time: gRPC starts a span anew after each completion that is not the agent's, and a
  // client that makes such calls would keep the poll from ending. On the clock that nobody sets.
  constexpr Clock::duration kPoll = std::chrono::milliseconds(200);
  constexpr Clock::duration kPollForLeaving = std::chrono::milliseconds(20);
  const auto end =
      lastPoll ? now : std::min(now + (clientsLeave ? kPollForLeaving : kPoll), drainEnd);
  const gpr_timespec deadline =
      gpr_time_from_nanos(end.time_since_epoch().count(), GPR_CLOCK_MONOTONIC);
  OpaqueId tag = nullptr;
  bool ok = false;
  const NextStatus nextStatus = completion::next(*cq_, &tag, &ok, deadline, stopRequested_);
  assert(nextStatus != NextStatus::SHUTDOWN);
  if (nextStatus == NextStatus::GOT_EVENT) {
    handleTag(tag, ok);
    return true;
  }
  if (lastPoll) stop();
  if (clientsLeave && listener_->openConnections() == 0) refuseCallsAt_ = now;
  return false;
}

void GrpcServer::clientsTakeTurnsIs(bool takeTurns) {
  clientTurns_ = takeTurns ? std::make_unique<Turns>() : nullptr;
}

// A call has arrived. Returns whether it waits for its turn.
bool GrpcServer::putOff(OpaqueId tag, RequestHandler& handler) {
  client_.clear();
  const auto* const context = clientTurns_ ? handler.callContext() : nullptr;
  if (!context || !completionOk_) return false;
  client_ = Turns::clientOf(*context);
  begunAt_ = Clock::now();
  if (clientTurns_->admits(client_, begunAt_)) return false;
  clientTurns_->add({tag, std::move(client_)});
  handler.state_ = RequestHandler::IN_PROGRESS;
  handler.putOff();
  return true;
}

// The call that begins has done its own work; what follows is gRPC's, and may be for anybody.
void GrpcServer::charge() {
  if (client_.empty()) return;
  clientTurns_->used(client_, begunAt_, Clock::now());
  client_.clear();
}

// While calls wait, what has completed and what the sockets bring come first.
void GrpcServer::takeTurn() {
  constexpr int kPolls = 4;              // each looks at one socket, the first one at none
  constexpr unsigned kMostBefore = 256;  // completions, lest they keep those that wait from a turn
  OpaqueId tag = nullptr;
  bool ok = false;
  const gpr_timespec atOnce = gpr_inf_past(GPR_CLOCK_MONOTONIC);
  for (int poll = 0; poll < kPolls && sinceServed_ < kMostBefore; ++poll) {
    if (completion::next(*cq_, &tag, &ok, atOnce, stopRequested_) == NextStatus::GOT_EVENT) {
      ++sinceServed_;
      return handleTag(tag, ok);
    }
  }
  serveWaiting();
}

// Serves calls whose turn has come, for a short while.
void GrpcServer::serveWaiting() {
  constexpr std::chrono::microseconds kAtOnce{250};
  sinceServed_ = 0;
  const auto end = Clock::now() + kAtOnce;
  while (clientTurns_->waiting() && !stopRequested_) {
    begunAt_ = Clock::now();
    if (begunAt_ >= end) break;
    auto [tag, client] = clientTurns_->take();
    client_ = std::move(client);
    dispatch(tag, true, &GrpcService::beginInTurn);
  }
}

void GrpcServer::handleTag(OpaqueId tag, bool ok) {
  if (cancelled_ && tag == cancelled_.get()) return;
  if (emptied_ && tag == emptied_.get()) {
    emptied_->come = true;
    return;
  }
  dispatch(tag, ok, &GrpcService::process);
}

void GrpcServer::dispatch(OpaqueId tag, bool ok,
                          void (GrpcService::*step)(OpaqueId, RequestHandler*)) try {
  std::size_t serviceId = 0;
  RequestHandlerPtr handler;  // keeps the handler alive while its tag is removed
  if (!tagManager_.find(tag, serviceId, handler)) {
    tracer_.trace8("no handler for tag %p", tag);
    return;
  }
  GrpcService& service = *services_.at(serviceId);
  if (!handler) {
    tracer_.trace8("no handler for tag %p", tag);
    return;
  }
  if (!stopRequested_ || ok) {
    completionOk_ = ok;
    (service.*step)(tag, handler.get());
  } else {
    tracer_.trace8("tag %p cancelled", tag);
    tagManager_.removeHandler(serviceId, tag);
  }
} catch (const std::out_of_range&) {
  // A tag of no service of this server, or a handler's own: this dispatch is over, the server goes
  // on.
}

void GrpcServer::teardown() {
  // A service that is not stopping would ask for a new call in place of every one that fails,
  // without an end.
  if (!stopRequested_) stop();
  leaveLoop();
  stopListening();
  const EndsInTime limits(tracer_, server_->c_server(), listener_.get(), stopTimeout_);
  server_->Shutdown(std::chrono::system_clock::now());
  // Until a poll is quiet, but not for as long as somebody has something to complete.
  constexpr auto kLongEnough = std::chrono::seconds(1);
  const auto end = std::chrono::steady_clock::now() + kLongEnough;
  while (dequeue() && std::chrono::steady_clock::now() < end) {
  }
  shutQueue();
  OpaqueId tag = nullptr;
  bool ok = false;
  const gpr_timespec never = gpr_inf_future(GPR_CLOCK_REALTIME);
  while (completion::next(*cq_, &tag, &ok, never, true) == NextStatus::GOT_EVENT) {
    handleTag(tag, ok);
  }
  drained_ = true;
  if (accountingEnabled_) tracer_.trace0("Accounting thread finished");
}

}  // namespace VornSdkRpc
