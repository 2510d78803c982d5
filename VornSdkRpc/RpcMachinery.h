#pragma once

// The machinery behind a service of the kit: its methods, and the calls of them. Nothing in here is
// for an agent.
//
// What differs from one message to another is kept small, so that an agent's services compile fast:
// to gRPC every message to be sent is a MessageLite and every one to be received an Arriving. What
// is no template is in the library.

#include <VornSdkRpc/RequestHandler.h>
#include <VornSdkRpc/RpcCall.h>
#include <VornSdkRpc/RpcLimits.h>
#include <VornSdkRpc/RpcTask.h>
#include <VornSdkRpc/RpcWakeups.h>
#include <google/protobuf/message_lite.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/async_unary_call.h>
#include <vorn/export.h>

#include <concepts>
#include <coroutine>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace VornSdkRpc::rpc {

class ServiceBase;

namespace detail {

// A message that gRPC is to receive. Never defined: an Arriving* is the address of the message in a
// Received, as a MessageLite, so that an interceptor finds there what it does without the kit.
class Arriving;

}  // namespace detail

}  // namespace VornSdkRpc::rpc

namespace grpc {

template <>
class SerializationTraits<VornSdkRpc::rpc::detail::Arriving, void> {
 public:
  VORN_EXPORT static Status Deserialize(ByteBuffer* bytes,
                                        VornSdkRpc::rpc::detail::Arriving* arriving);
};

}  // namespace grpc

namespace VornSdkRpc::rpc::detail {

using google::protobuf::MessageLite;

grpc::Status noMessage();  // the status for bytes that are no message

// Lies before the message in memory. gRPC treats bytes that are no message as the end of the
// stream, and drops a unary call silently. Here they arrive, with a mark.
struct alignas(std::max_align_t) Mark {
  bool malformed = false;
  std::size_t size = 0;  // in bytes, as it arrived
};

template <typename Message>
struct Received {
  Arriving* arriving() {
    static_assert(alignof(Message) <= alignof(Mark));  // nothing stands between the two
    return reinterpret_cast<Arriving*>(static_cast<MessageLite*>(&message));
  }

  Mark mark;
  Message message;
};

using Stream = grpc::ServerAsyncReaderWriter<MessageLite, Arriving>;
using UnaryStream =
    grpc::ServerAsyncResponseWriter<MessageLite>;  // a unary call's: less than a stream
using AnyStream = grpc::internal::ServerAsyncStreamingInterface;

enum class Kind : std::uint8_t { unary, clientStreaming, serverStreaming, bidirectional };

// A method of a service with the function that serves it.
class VORN_EXPORT Method {
 public:
  Method(ServiceBase& service, Kind kind, int number, MethodOptions options);
  virtual ~Method();
  Method(const Method&) = delete;
  Method& operator=(const Method&) = delete;

  // A handler for one call, which has asked for it under the tag.
  virtual RequestHandlerPtr make(OpaqueId tag) = 0;

  // Asks gRPC for a call, to arrive under the tag; a request that is null is not read.
  void ask(grpc::ServerContext& context, Arriving* request, AnyStream& stream, OpaqueId tag) const;

  // "/package.Service/Method"
  const std::string& path() const { return path_; }

  ServiceBase& service() const { return service_; }
  const Kind kind;
  const int number;  // in the service
  const MethodOptions options;
  std::size_t inProgress = 0;

 private:
  ServiceBase& service_;
  std::string path_;
};

// One call of a method that is served by a coroutine.
class VORN_EXPORT Exchange : public RequestHandler, public std::enable_shared_from_this<Exchange> {
 public:
  ~Exchange() override;

  void proceed(OpaqueId tag) final;
  RequestHandlerPtr spawn(OpaqueId tag) final;
  void withdrawn(OpaqueId tag) final;
  const grpc::ServerContext* callContext() const final { return &context_; }
  void putOff() final;

  // For Call and Wait. begin() returns whether the wait has ended already.
  grpc::ServerContext& context() { return context_; }
  VORN_NO_EXPORT EndedBy endedBy() const;
  VORN_NO_EXPORT std::chrono::nanoseconds remaining() const;
  VORN_NO_EXPORT bool begin(Wait& wait);
  VORN_NO_EXPORT void suspend(Wait& wait, std::coroutine_handle<> awaiting);
  VORN_NO_EXPORT void forget(Wait& wait) noexcept;

  // For the service.
  ServiceBase& service() const { return method_.service(); }
  const Method& method() const { return method_; }
  VORN_NO_EXPORT Clock::duration age(Clock::time_point now) const;
  VORN_NO_EXPORT const char* waitsFor() const;
  VORN_NO_EXPORT void look();  // resumes the coroutine when its wait has ended
  Sleeper& sleeper() { return sleeper_; }

 protected:
  Exchange(Method& method, OpaqueId tag);

  // Derived classes hold the stream and the messages.
  void ask(Arriving* request, AnyStream& stream) {
    method_.ask(context_, request, stream, opaqueId_);
  }
  void abandon() noexcept;  // destroys the coroutine, wherever it is

  virtual AnyStream& wire() = 0;
  virtual void startRead(OpaqueId tag) = 0;
  virtual void startWrite(const MessageLite& item, grpc::WriteOptions options, OpaqueId tag) = 0;
  virtual void sendStatus(const grpc::Status& status, OpaqueId tag) = 0;

  virtual Task<> serve() = 0;
  virtual Mark& mark() = 0;
  virtual Arriving* arriving() = 0;
  virtual void giveTo(MessageLite& item) = 0;
  virtual const MessageLite& reply() const = 0;

  grpc::ServerContext context_;

 private:
  friend class rpc::ServiceBase;

  VORN_NO_EXPORT void arrived();
  VORN_NO_EXPORT void hearOfEnd();
  VORN_NO_EXPORT std::optional<grpc::Status> refusal();
  VORN_NO_EXPORT void enter();
  VORN_NO_EXPORT void leave() noexcept;
  VORN_NO_EXPORT void mayBeIdle();
  VORN_NO_EXPORT grpc::Status outcome();
  VORN_NO_EXPORT void conclude(grpc::Status status);
  VORN_NO_EXPORT void finish(const grpc::Status& status);
  VORN_NO_EXPORT EndedBy whyGone() const;
  VORN_NO_EXPORT void over(EndedBy why);
  VORN_NO_EXPORT std::optional<Woke> reasonOf(Wait& wait);
  VORN_NO_EXPORT std::optional<Woke> readReason(Wait& wait);
  VORN_NO_EXPORT bool isWritten(Wait& wait);
  VORN_NO_EXPORT void readDone(bool ok);
  VORN_NO_EXPORT void writeDone(bool ok);
  VORN_NO_EXPORT void active();

  Method& method_;
  const OpaqueId endTag_;       // completes when the call is over on the wire
  OpaqueId readTag_ = nullptr;  // made when it is needed

  Task<> task_;
  std::coroutine_handle<> suspended_;  // the innermost coroutine that waits
  Wait* wait_ = nullptr;               // what it waits for
  Sleeper sleeper_;                    // wakes it

  bool reading_ = false;   // gRPC has a read
  bool received_ = false;  // a message is here that nobody has taken
  bool streamEnded_ = false;
  bool writing_ = false;  // gRPC has a write, or the initial metadata
  bool metadataSent_ = false;
  bool toldOfDrain_ = false;
  bool hearsOfEnd_ = false;  // the handler is registered for endTag_
  bool concluding_ = false;  // the coroutine has ended, and the write is still to come back
  bool entered_ = false;     // in the service's list of calls
  bool counted_ = false;     // among those of its method
  EndedBy endedBy_ = EndedBy::nothing;
  std::optional<grpc::Status> settled_;  // what ends the call, whatever its coroutine says

  std::vector<Limits::Claim> claims_;
  std::optional<Clock::time_point> begunAt_;  // its first wait
  Clock::time_point activeAt_;
  std::optional<Sleeper> idle_;  // ends a stream that does nothing
  Exchange* next_ = nullptr;
  Exchange* previous_ = nullptr;
};

// The two kinds of exchange that there are on the wire.
class VORN_EXPORT UnaryExchange : public Exchange {
 protected:
  UnaryExchange(Method& method, OpaqueId tag);
  ~UnaryExchange() override;

  AnyStream& wire() final;
  void startRead(OpaqueId tag) final;
  void startWrite(const MessageLite& item, grpc::WriteOptions options, OpaqueId tag) final;
  void sendStatus(const grpc::Status& status, OpaqueId tag) final;

 private:
  UnaryStream answer_{&context_};
};

class VORN_EXPORT StreamExchange : public Exchange {
 protected:
  StreamExchange(Method& method, OpaqueId tag);
  ~StreamExchange() override;

  AnyStream& wire() final;
  void startRead(OpaqueId tag) final;
  void startWrite(const MessageLite& item, grpc::WriteOptions options, OpaqueId tag) final;
  void sendStatus(const grpc::Status& status, OpaqueId tag) final;

 private:
  Stream stream_{&context_};
};

// One call of a unary method that is served by a plain function.
class VORN_EXPORT FunctionCall : public RequestHandler {
 public:
  ~FunctionCall() override;

  void proceed(OpaqueId tag) final;
  RequestHandlerPtr spawn(OpaqueId tag) final;
  const grpc::ServerContext* callContext() const final { return &context_; }

 protected:
  FunctionCall(Method& method, OpaqueId tag);

  void ask(Arriving* request) { method_.ask(context_, request, answer_, opaqueId_); }

  virtual grpc::Status serve(grpc::ServerContext& context) = 0;
  virtual const Mark& mark() const = 0;
  virtual const MessageLite& reply() const = 0;

  Method& method_;

 private:
  VORN_NO_EXPORT grpc::Status outcome();

  grpc::ServerContext context_;
  UnaryStream answer_{&context_};
};

// A method without a function. Without this, gRPC would hold its calls until their clients give up.
class VORN_EXPORT UnservedMethod final : public Method {
 public:
  using Method::Method;
  RequestHandlerPtr make(OpaqueId tag) override;
};

// ------------------------------------------------------------------------------------------------
// What is a template: the messages of a call, its handle, and the function that serves it

template <typename Base>
class Handle final : public Base {
 public:
  explicit Handle(Exchange& exchange) : Base(exchange) {}
};

template <typename Handler, typename View, typename Request, typename Reply>
class CoroutineMethod final : public Method {
 public:
  CoroutineMethod(ServiceBase& service, Kind kind_, int number_, MethodOptions options_,
                  Handler handler)
      : Method(service, kind_, number_, std::move(options_)), handler_(std::move(handler)) {}

  RequestHandlerPtr make(OpaqueId tag) override { return std::make_shared<One>(*this, tag); }

 private:
  using Base = std::conditional_t<std::same_as<View, Call>, UnaryExchange, StreamExchange>;

  class One final : public Base {
   public:
    One(CoroutineMethod& method, OpaqueId tag) : Base(method, tag), handler_(method.handler_) {
      this->ask(request_.arriving(), this->wire());
    }
    ~One() override { this->abandon(); }

   private:
    Task<> serve() override {
      View& view = view_;
      if constexpr (std::same_as<View, Call>) {
        return handler_(view, std::as_const(request_.message), reply_);
      } else if constexpr (std::same_as<View, Reader<Request>>) {
        return handler_(view, reply_);
      } else if constexpr (std::same_as<View, Writer<Reply>>) {
        return handler_(view, std::as_const(request_.message));
      } else {
        return handler_(view);
      }
    }
    Mark& mark() override { return request_.mark; }
    Arriving* arriving() override { return request_.arriving(); }
    void giveTo(MessageLite& item) override { static_cast<Request&>(item).Swap(&request_.message); }
    const MessageLite& reply() const override { return reply_; }

    Handler& handler_;
    Handle<View> view_{*this};
    Received<Request> request_;
    Reply reply_;
  };

  Handler handler_;
};

template <typename Handler, typename Request, typename Reply>
class FunctionMethod final : public Method {
 public:
  FunctionMethod(ServiceBase& service, int number_, MethodOptions options_, Handler handler)
      : Method(service, Kind::unary, number_, std::move(options_)), handler_(std::move(handler)) {}

  RequestHandlerPtr make(OpaqueId tag) override { return std::make_shared<One>(*this, tag); }

 private:
  class One final : public FunctionCall {
   public:
    One(FunctionMethod& method, OpaqueId tag)
        : FunctionCall(method, tag), handler_(method.handler_) {
      ask(request_.arriving());
    }

   private:
    grpc::Status serve(grpc::ServerContext& context) override {
      if constexpr (std::invocable<Handler&, const Request&, Reply&>) {
        return handler_(std::as_const(request_.message), reply_);
      } else {
        return handler_(context, std::as_const(request_.message), reply_);
      }
    }
    const Mark& mark() const override { return request_.mark; }
    const MessageLite& reply() const override { return reply_; }

    Handler& handler_;
    Received<Request> request_;
    Reply reply_;
  };

  Handler handler_;
};

// A method whose handlers the agent has written.
template <typename Factory>
class HandMethod final : public Method {
 public:
  HandMethod(ServiceBase& service, int number_, Factory factory)
      : Method(service, Kind::unary, number_, {}), factory_(std::move(factory)) {}

  RequestHandlerPtr make(OpaqueId tag) override { return factory_(tag); }

 private:
  Factory factory_;
};

// How many methods the layers of a generated class make asynchronous: AsyncService is
// WithAsyncMethod_A<WithAsyncMethod_B<... Service>>, in the order of the service's methods.
template <typename Layers>
constexpr int kAsyncMethods = 0;
template <template <typename> typename Layer, typename Rest>
constexpr int kAsyncMethods<Layer<Rest>> = 1 + kAsyncMethods<Rest>;

}  // namespace VornSdkRpc::rpc::detail
