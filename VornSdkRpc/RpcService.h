#pragma once

// What an agent derives from: a service, whose RPCs are functions. (Rpc.h shows one.)
//
// Rules. Every RPC is named once, in the constructor. Functions and coroutines run on the server's
// one thread, and none may block. What a service does besides when the server starts, is drained or
// stops goes into opened(), drainBegun() and closing(); what every call has to pass before its
// function goes into admit().
//
// Fine print. One RPC may be served by handlers that are written by hand, in the same service:
// byHand().

#include <VornSdkRpc/GrpcService.h>
#include <VornSdkRpc/RpcCall.h>
#include <VornSdkRpc/RpcLimits.h>
#include <VornSdkRpc/RpcMachinery.h>
#include <VornSdkRpc/RpcStatus.h>
#include <VornSdkRpc/RpcTask.h>
#include <VornSdkRpc/RpcWakeups.h>
#include <grpcpp/grpcpp.h>
#include <vorn/error.h>  // what a function throws
#include <vorn/export.h>

#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace google::protobuf {
class ServiceDescriptor;
}  // namespace google::protobuf

namespace VornSdkRpc::rpc {

// A call in progress, as the list of a service shows it.
struct CallInProgress {
  std::string method;  // "/package.Service/Method"
  std::string peer;    // as grpc::ServerContext::peer() says it
  Clock::duration age;
  std::string waitsFor;  // "a message", "a write", "an event", "a time", ...
};

// What all services of the kit have.
class VORN_EXPORT ServiceBase : public GrpcService {
 public:
  // The calls of coroutines that are in progress, the oldest first. Serving thread.
  std::vector<CallInProgress> calls() const;

  // Traces each of them at level 0. Serving thread.
  void traceCalls() const;

  // The time that the service's waits go by. Any thread.
  Clock::time_point now() const;

  // For tests: from now on time stands still for the service, at this point, until it is called
  // again. Waits whose time has come by then end. Any thread.
  void timeIs(Clock::time_point now);

  ~ServiceBase() override;

 protected:
  // `name` as for GrpcService.
  explicit ServiceBase(std::string name);

  // The server runs, and the first calls are about to be asked for. Serving thread.
  virtual void opened();

  // The server is being drained: calls that wait have been told and go on behind this. Serving
  // thread.
  virtual void drainBegun();

  // The server stops: from now on the service sees no completion. Runs on the thread that stops,
  // and must be safe beside a step of a call on the serving thread. What it throws leaves
  // GrpcServer::stop().
  virtual void closing();

  // What every call of the service passes before its function: a status refuses the call. `method`
  // is "/package.Service/Method". An exception refuses it as one of a function does. Methods by
  // hand do not pass here. Serving thread.
  virtual std::optional<grpc::Status> admit(grpc::ServerContext& context,
                                            const std::string& method);

  // What each client may have in progress of the service. To be set before the server runs.
  void limitsAre(std::shared_ptr<Limits> limits) { limits_ = std::move(limits); }

 private:
  template <typename Generated>
  friend class Service;
  friend class detail::Exchange;
  friend class detail::FunctionCall;
  friend class detail::Method;

  void registerWith(grpc::ServerBuilder& builder) final;
  void serverStarted() final;
  void stoppingChanged() final;
  void drainingChanged() final;

  void hostIs(grpc::Service& generated, const char* name, int methods);
  void add(std::unique_ptr<detail::Method> method);
  VORN_NO_EXPORT void ask(const detail::Method& method, grpc::ServerContext& context,
                          detail::Arriving* request, detail::AnyStream& stream, OpaqueId tag) const;

  // A call that begins has done what is its own.
  VORN_NO_EXPORT void chargeClient() const;
  VORN_NO_EXPORT std::optional<grpc::Status> refusal(grpc::ServerContext& context,
                                                     const detail::Method& method,
                                                     const detail::Mark& mark);
  // The status that ends a call whose function has thrown. Called in a catch block.
  VORN_NO_EXPORT grpc::Status thrown(const grpc::ServerContext& context,
                                     const detail::Method& method) const;
  VORN_NO_EXPORT void traceFailure(const grpc::ServerContext& context, const detail::Method& method,
                                   const grpc::Status& status) const;

  grpc::Service* generated_ = nullptr;
  const google::protobuf::ServiceDescriptor* descriptor_ = nullptr;
  std::vector<std::unique_ptr<detail::Method>> methods_;
  std::shared_ptr<Limits> limits_;
  std::shared_ptr<detail::Wakeups> wakeups_;
  detail::Exchange* firstCall_ = nullptr;
  detail::Exchange* lastCall_ = nullptr;
};

// A service of the generated class of its name, Routing for `service Routing`. An RPC that is not
// named is answered UNIMPLEMENTED. A function is kept as long as the service. Naming an RPC twice
// throws std::logic_error.
template <typename Generated>
class Service : public ServiceBase {
 public:
  using Async = typename Generated::AsyncService;

 protected:
  // `name` as for GrpcService.
  explicit Service(std::string name) : ServiceBase(std::move(name)) {
    hostIs(async_, Generated::service_full_name(), detail::kAsyncMethods<Async>);
  }

  // Unary. The handler is a function (const Request&, Reply&) or (grpc::ServerContext&, const
  // Request&, Reply&) that returns a grpc::Status, or a coroutine (Call&, const Request&, Reply&)
  // -> Task<>. A function must not ask its context whether the call IsCancelled(): gRPC knows that
  // only of calls whose end is followed, which are those of coroutines.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*)(grpc::ServerContext*, Request*,
                             grpc::ServerAsyncResponseWriter<Reply>*, grpc::CompletionQueue*,
                             grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    if constexpr (kServes<Handler&, Call&, const Request&, Reply&>) {
      addCoroutine<Base, Call, Request, Reply>(detail::Kind::unary, handler, options);
    } else if constexpr (kAnswers<Handler&, const Request&, Reply&> ||
                         kAnswers<Handler&, grpc::ServerContext&, const Request&, Reply&>) {
      add(std::make_unique<detail::FunctionMethod<Handler, Request, Reply>>(
          *this, numberOf<Base>(), std::move(options), std::move(handler)));
    } else if constexpr (kServes<Handler&, const Request&, Reply&>) {
      static_assert(kWrong<Handler>, "a coroutine of the kit takes its rpc::Call& first");
    } else if constexpr (kTakes<Handler&, const Reply&, Request&> ||
                         kTakes<Handler&, Call&, const Reply&, Request&>) {
      static_assert(kWrong<Handler>, "the messages are swapped: the request comes first");
    } else {
      static_assert(kWrong<Handler>,
                    "a unary RPC is served by a function (const Request&, Reply&) -> grpc::Status "
                    "or a coroutine (rpc::Call&, const Request&, Reply&) -> rpc::Task<>");
    }
  }

  // Client streaming. The handler is a coroutine (Reader<Request>&, Reply&) -> Task<>.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*)(grpc::ServerContext*, grpc::ServerAsyncReader<Reply, Request>*,
                             grpc::CompletionQueue*, grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    if constexpr (kServes<Handler&, Reader<Request>&, Reply&>) {
      addCoroutine<Base, Reader<Request>, Request, Reply>(detail::Kind::clientStreaming, handler,
                                                          options);
    } else if constexpr (kAnswers<Handler&, Reader<Request>&, Reply&>) {
      static_assert(kWrong<Handler>,
                    "a stream is served by a coroutine, which returns rpc::Task<>");
    } else if constexpr (kTakes<Handler&, Reader<Reply>&, Request&>) {
      static_assert(kWrong<Handler>,
                    "the messages are swapped: it reads Requests, and answers a Reply");
    } else {
      static_assert(kWrong<Handler>,
                    "an RPC whose client streams is served by a coroutine (rpc::Reader<Request>&, "
                    "Reply&) -> rpc::Task<>");
    }
  }

  // Server streaming. The handler is a coroutine (Writer<Reply>&, const Request&) -> Task<>.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*)(grpc::ServerContext*, Request*, grpc::ServerAsyncWriter<Reply>*,
                             grpc::CompletionQueue*, grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    if constexpr (kServes<Handler&, Writer<Reply>&, const Request&>) {
      addCoroutine<Base, Writer<Reply>, Request, Reply>(detail::Kind::serverStreaming, handler,
                                                        options);
    } else if constexpr (kAnswers<Handler&, Writer<Reply>&, const Request&>) {
      static_assert(kWrong<Handler>,
                    "a stream is served by a coroutine, which returns rpc::Task<>");
    } else if constexpr (kTakes<Handler&, Writer<Request>&, const Reply&>) {
      static_assert(kWrong<Handler>,
                    "the messages are swapped: it takes a Request, and writes Replies");
    } else {
      static_assert(kWrong<Handler>,
                    "an RPC whose server streams is served by a coroutine (rpc::Writer<Reply>&, "
                    "const Request&) -> rpc::Task<>");
    }
  }

  // Bidirectional streaming. The handler is a coroutine (ReaderWriter<Request, Reply>&) -> Task<>.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*)(grpc::ServerContext*, grpc::ServerAsyncReaderWriter<Reply, Request>*,
                             grpc::CompletionQueue*, grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    if constexpr (kServes<Handler&, ReaderWriter<Request, Reply>&>) {
      addCoroutine<Base, ReaderWriter<Request, Reply>, Request, Reply>(detail::Kind::bidirectional,
                                                                       handler, options);
    } else if constexpr (kAnswers<Handler&, ReaderWriter<Request, Reply>&>) {
      static_assert(kWrong<Handler>,
                    "a stream is served by a coroutine, which returns rpc::Task<>");
    } else if constexpr (kTakes<Handler&, ReaderWriter<Reply, Request>&>) {
      static_assert(kWrong<Handler>,
                    "the messages are swapped: it reads Requests, and writes Replies");
    } else {
      static_assert(kWrong<Handler>,
                    "an RPC in which both sides stream is served by a coroutine "
                    "(rpc::ReaderWriter<Request, Reply>&) -> rpc::Task<>");
    }
  }

  // An RPC that is served by handlers of the agent's own (RequestHandler.h). factory(tag) makes the
  // first one, as its spawn() does the others: a handler whose opaqueId_ is the tag and which has
  // asked for a call under it, by async() and cq_.
  template <typename Base, typename... Arguments, typename Factory>
  void byHand(void (Base::*)(Arguments...), Factory factory) {
    add(std::make_unique<detail::HandMethod<Factory>>(*this, numberOf<Base>(), std::move(factory)));
  }

  // The generated service. For methods by hand.
  Async& async() { return async_; }

 private:
  template <typename Handler>
  static constexpr bool kWrong = false;
  template <typename... Asked>
  static constexpr bool kAnswers = std::is_invocable_r_v<grpc::Status, Asked...>;
  template <typename... Asked>
  static constexpr bool kServes = std::is_invocable_r_v<Task<>, Asked...>;
  template <typename... Asked>
  static constexpr bool kTakes = std::is_invocable_v<Asked...>;

  template <typename Base>
  static constexpr int numberOf() {
    return detail::kAsyncMethods<Async> - detail::kAsyncMethods<Base>;
  }

  template <typename Base, typename View, typename Request, typename Reply, typename Handler>
  void addCoroutine(detail::Kind kind, Handler& handler, MethodOptions& options) {
    add(std::make_unique<detail::CoroutineMethod<Handler, View, Request, Reply>>(
        *this, kind, numberOf<Base>(), std::move(options), std::move(handler)));
  }

  Async async_;
};

}  // namespace VornSdkRpc::rpc
