#pragma once

// The machinery behind a service of the kit: one class per kind of exchange, and what makes a call
// of a method out of it. Nothing in here is for an agent.

#include <VornSdkRpc/RpcCall.h>
#include <VornSdkRpc/RpcServiceBase.h>
#include <google/protobuf/descriptor.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/async_unary_call.h>
#include <grpcpp/support/byte_buffer.h>

#include <concepts>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace VornSdkRpc::rpc {

// How a method is served.
struct MethodOptions {
  // How many calls of the method may be in progress; one more is refused at once with
  // RESOURCE_EXHAUSTED. Zero: no limit. Without effect on a plain function, which is never in
  // progress: it has answered before the next call is looked at.
  std::size_t limit = 0;

  // How many calls of the method are asked for ahead, so that one poll can pick up several. At
  // least 1.
  std::size_t ahead = 1;
};

namespace detail {

// A method of a service with the function that serves it.
template <typename AsyncService, typename Ask, typename Handler>
struct Method {
  // Asks gRPC for a call, to arrive under the tag.
  template <typename... Arguments>
  void ask(OpaqueId tag, Arguments*... arguments) {
    (async.*askFor)(arguments..., queue, queue, tag);
  }

  ServiceBase& service;
  AsyncService& async;
  grpc::ServerCompletionQueue* queue;
  Ask askFor;
  Handler handler;
  MethodOptions options;
  std::size_t inProgress = 0;
};

// Ends a call that has one reply, which a client is sent only with an OK.
template <typename Responder, typename Reply>
void answer(Responder& responder, const Reply& reply, const grpc::Status& status, OpaqueId tag) {
  if (status.ok()) {
    responder.Finish(reply, status, tag);
  } else {
    responder.FinishWithError(status, tag);
  }
}

template <typename Request, typename Reply>
class UnaryExchange : public Call {
 protected:
  using Call::Call;

  template <typename Method>
  void ask(Method& method, OpaqueId tag) {
    method.ask(tag, &context_, &request_, &grpc_);
  }
  template <typename Handler>
  Task<> serve(Handler& handler) {
    return handler(static_cast<Call&>(*this), std::as_const(request_), reply_);
  }
  void finish(const grpc::Status& status, OpaqueId tag) override {
    answer(grpc_, reply_, status, tag);
  }

 private:
  Request request_;
  Reply reply_;
  grpc::ServerAsyncResponseWriter<Reply> grpc_{&context_};
};

template <typename Request, typename Reply>
class ReadExchange : public Reader<Request> {
 protected:
  using Reader<Request>::Reader;

  template <typename Method>
  void ask(Method& method, OpaqueId tag) {
    method.ask(tag, &this->context_, &grpc_);
  }
  template <typename Handler>
  Task<> serve(Handler& handler) {
    return handler(static_cast<Reader<Request>&>(*this), reply_);
  }
  void startRead(Request& item, OpaqueId tag) override { grpc_.Read(&item, tag); }
  void finish(const grpc::Status& status, OpaqueId tag) override {
    answer(grpc_, reply_, status, tag);
  }

 private:
  Reply reply_;
  grpc::ServerAsyncReader<Reply, Request> grpc_{&this->context_};
};

template <typename Request, typename Reply>
class WriteExchange : public Writer<Reply> {
 protected:
  using Writer<Reply>::Writer;

  template <typename Method>
  void ask(Method& method, OpaqueId tag) {
    method.ask(tag, &this->context_, &request_, &this->grpc_);
  }
  template <typename Handler>
  Task<> serve(Handler& handler) {
    return handler(static_cast<Writer<Reply>&>(*this), std::as_const(request_));
  }
  void finish(const grpc::Status& status, OpaqueId tag) override {
    this->grpc_.Finish(status, tag);
  }

 private:
  Request request_;
};

template <typename Request, typename Reply>
class ReadWriteExchange : public ReaderWriter<Request, Reply> {
 protected:
  using ReaderWriter<Request, Reply>::ReaderWriter;

  template <typename Method>
  void ask(Method& method, OpaqueId tag) {
    method.ask(tag, &this->context_, &this->grpc_);
  }
  template <typename Handler>
  Task<> serve(Handler& handler) {
    return handler(static_cast<ReaderWriter<Request, Reply>&>(*this));
  }
  void finish(const grpc::Status& status, OpaqueId tag) override {
    this->grpc_.Finish(status, tag);
  }
};

// One call of a method that is served by a coroutine.
template <typename Method, typename Exchange>
class CoroutineCall final : public Exchange {
 public:
  CoroutineCall(Method& method, OpaqueId tag) : Exchange(method.service, tag), method_(method) {
    this->ask(method, tag);
  }
  ~CoroutineCall() override { this->abandon(); }

  RequestHandlerPtr spawn(OpaqueId tag) override {
    return std::make_shared<CoroutineCall>(method_, tag);
  }

 private:
  bool takeSlot() override { return this->slot_.take(method_.inProgress, method_.options.limit); }
  Task<> begin() override { return this->serve(method_.handler); }

  Method& method_;
};

// One call of a unary method that is served by a plain function.
template <typename Method, typename Request, typename Reply>
class FunctionCall final : public RequestHandler {
 public:
  FunctionCall(Method& method, OpaqueId tag) : method_(method) {
    opaqueId_ = tag;
    method.ask(tag, &context_, &request_, &grpc_);
  }

  RequestHandlerPtr spawn(OpaqueId tag) override {
    return std::make_shared<FunctionCall>(method_, tag);
  }

  // Answers at once; the state that is left at AWAITING_CALL says so.
  void proceed(OpaqueId tag) override {
    if (!method_.service.completionOk()) return method_.service.removeHandler(tag);  // no call came
    answer(grpc_, reply_, served(), tag);
  }

 private:
  grpc::Status served() {
    try {
      if constexpr (std::invocable<decltype(method_.handler)&, const Request&, Reply&>) {
        return method_.handler(std::as_const(request_), reply_);
      } else {
        return method_.handler(context_, std::as_const(request_), reply_);
      }
    } catch (...) {
      return method_.service.currentExceptionStatus();
    }
  }

  Method& method_;
  grpc::ServerContext context_;
  Request request_;
  Reply reply_;
  grpc::ServerAsyncResponseWriter<Reply> grpc_{&context_};
};

// How many methods the layers of a generated class make asynchronous: AsyncService is
// WithAsyncMethod_A<WithAsyncMethod_B<... Service>>, in the order of the service's methods.
template <typename Layers>
constexpr int kAsyncMethods = 0;
template <template <typename> typename Layer, typename Rest>
constexpr int kAsyncMethods<Layer<Rest>> = 1 + kAsyncMethods<Rest>;

// The generated asynchronous service, whose methods can be asked for by their numbers as well.
template <typename Generated>
class Host : public Generated::AsyncService {
 public:
  // Throws std::logic_error when the classes were not generated as expected.
  static const google::protobuf::ServiceDescriptor& descriptor() {
    static const auto& found = findDescriptor();
    return found;
  }

  // Asks for a call of a method, whatever its messages are.
  void ask(int method, grpc::ServerContext* context, grpc::ByteBuffer* request,
           grpc::ServerAsyncReaderWriter<grpc::ByteBuffer, grpc::ByteBuffer>* stream,
           grpc::ServerCompletionQueue* queue, OpaqueId tag) {
    if (descriptor().method(method)->client_streaming()) {
      this->RequestAsyncClientStreaming(method, context, stream, queue, queue, tag);
    } else {
      this->RequestAsyncUnary(method, context, request, stream, queue, queue, tag);
    }
  }

 private:
  static const google::protobuf::ServiceDescriptor& findDescriptor() {
    const auto* found = google::protobuf::DescriptorPool::generated_pool()->FindServiceByName(
        Generated::service_full_name());
    if (!found || found->method_count() != kAsyncMethods<typename Generated::AsyncService>) {
      throw std::logic_error(std::string(Generated::service_full_name()) +
                             ": the generated classes tell nothing of its methods");
    }
    return *found;
  }
};

// One call of a method that nothing serves. Without it, gRPC would keep such calls for as long as
// their clients wait.
template <typename Host>
class RefusedCall final : public RequestHandler {
 public:
  RefusedCall(GrpcService& service, Host& host, grpc::ServerCompletionQueue* queue, int method,
              OpaqueId tag)
      : service_(service), host_(host), queue_(queue), method_(method) {
    opaqueId_ = tag;
    host.ask(method, &context_, &request_, &grpc_, queue, tag);
  }

  RequestHandlerPtr spawn(OpaqueId tag) override {
    return std::make_shared<RefusedCall>(service_, host_, queue_, method_, tag);
  }

  // Left at AWAITING_CALL: this is the call's last operation.
  void proceed(OpaqueId tag) override {
    if (!service_.completionOk()) return service_.removeHandler(tag);  // no call came
    grpc_.Finish({grpc::StatusCode::UNIMPLEMENTED, ""}, tag);
  }

 private:
  GrpcService& service_;
  Host& host_;
  grpc::ServerCompletionQueue* const queue_;
  const int method_;
  grpc::ServerContext context_;
  grpc::ByteBuffer request_;
  grpc::ServerAsyncReaderWriter<grpc::ByteBuffer, grpc::ByteBuffer> grpc_{&context_};
};

}  // namespace detail

}  // namespace VornSdkRpc::rpc
