#pragma once

// What an agent derives from.

#include <VornSdkRpc/RpcMachinery.h>
#include <VornSdkRpc/RpcServiceBase.h>

#include <algorithm>
#include <concepts>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace VornSdkRpc::rpc {

// A service of the generated class of its name, Routing for `service Routing`. The derived class
// calls method() in its constructor, once per RPC; an RPC without one is answered UNIMPLEMENTED.
// The function is kept as long as the service. Naming an RPC twice throws std::logic_error.
template <typename Generated>
class Service : public ServiceBase {
 public:
  using Async = typename Generated::AsyncService;

 protected:
  // `name` as for GrpcService.
  explicit Service(std::string name) : ServiceBase(std::move(name)) {}

  // Unary. The handler is a function (const Request&, Reply&) or (grpc::ServerContext&, const
  // Request&, Reply&) that answers a grpc::Status, or a coroutine (Call&, const Request&, Reply&)
  // -> Task<>. A function must not ask its context whether the call IsCancelled(): gRPC knows that
  // only of calls whose end is followed, which are those of coroutines.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*ask)(grpc::ServerContext*, Request*,
                                grpc::ServerAsyncResponseWriter<Reply>*, grpc::CompletionQueue*,
                                grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    using Method = detail::Method<Async, decltype(ask), Handler>;
    if constexpr (std::invocable<Handler&, Call&, const Request&, Reply&>) {
      add<Method, detail::CoroutineCall<Method, detail::UnaryExchange<Request, Reply>>>(
          ask, std::move(handler), options);
    } else {
      add<Method, detail::FunctionCall<Method, Request, Reply>>(ask, std::move(handler), options);
    }
  }

  // Client streaming. The handler is a coroutine (Reader<Request>&, Reply&) -> Task<>.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*ask)(grpc::ServerContext*, grpc::ServerAsyncReader<Reply, Request>*,
                                grpc::CompletionQueue*, grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    addCoroutine<detail::ReadExchange<Request, Reply>>(ask, std::move(handler), options);
  }

  // Server streaming. The handler is a coroutine (Writer<Reply>&, const Request&) -> Task<>.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*ask)(grpc::ServerContext*, Request*, grpc::ServerAsyncWriter<Reply>*,
                                grpc::CompletionQueue*, grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    addCoroutine<detail::WriteExchange<Request, Reply>>(ask, std::move(handler), options);
  }

  // Bidirectional streaming. The handler is a coroutine (ReaderWriter<Request, Reply>&) -> Task<>.
  template <typename Base, typename Request, typename Reply, typename Handler>
  void method(void (Base::*ask)(grpc::ServerContext*,
                                grpc::ServerAsyncReaderWriter<Reply, Request>*,
                                grpc::CompletionQueue*, grpc::ServerCompletionQueue*, void*),
              Handler handler, MethodOptions options = {}) {
    addCoroutine<detail::ReadWriteExchange<Request, Reply>>(ask, std::move(handler), options);
  }

  void registerWith(grpc::ServerBuilder& builder) override {
    builder.RegisterService(&async_);
    const int methods = async_.descriptor().method_count();
    for (int method = 0; method < methods; ++method) {
      if (!served_.contains(method)) openers_.push_back([this, method] { refuse(method); });
    }
  }

 private:
  void refuse(int method) {
    using Refused = detail::RefusedCall<detail::Host<Generated>>;
    registerHandler(std::make_shared<Refused>(*this, async_, cq_, method, nextOpaqueId()));
  }

  template <typename Exchange, typename Base, typename... Arguments, typename Handler>
  void addCoroutine(void (Base::*ask)(Arguments...), Handler handler, MethodOptions options) {
    using Ask = decltype(ask);
    using Method = detail::Method<Async, Ask, Handler>;
    add<Method, detail::CoroutineCall<Method, Exchange>>(ask, std::move(handler), options);
  }

  template <typename Method, typename CallType, typename Base, typename... Arguments,
            typename Handler>
  void add(void (Base::*ask)(Arguments...), Handler handler, MethodOptions options) {
    if (!served_.insert(detail::kAsyncMethods<Async> - detail::kAsyncMethods<Base>).second)
      throw std::logic_error("an RPC was given two functions");
    const auto method =
        std::make_shared<Method>(Method{*this, async_, nullptr, ask, std::move(handler), options});
    openers_.push_back([this, method] {
      method->queue = cq_;
      for (std::size_t i = 0; i < std::max<std::size_t>(1, method->options.ahead); ++i) {
        registerHandler(std::make_shared<CallType>(*method, nextOpaqueId()));
      }
    });
  }

  detail::Host<Generated> async_;
  std::set<int> served_;  // by their numbers in the service
};

}  // namespace VornSdkRpc::rpc
