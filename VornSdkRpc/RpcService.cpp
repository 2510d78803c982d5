#include <VornSdkRpc/RpcService.h>

#include <VornSdkRpc/CallNote.h>
#include <VornSdkRpc/GrpcServer.h>
#include <google/protobuf/descriptor.h>

#include <algorithm>
#include <cassert>
#include <exception>
#include <stdexcept>
#include <string_view>

namespace VornSdkRpc::rpc {

namespace {

const google::protobuf::ServiceDescriptor& descriptorOf(const char* service, int methods) {
  const auto* found =
      google::protobuf::DescriptorPool::generated_pool()->FindServiceByName(service);
  if (!found || found->method_count() != methods) {
    throw std::logic_error(std::string(service) +
                           ": the generated classes tell nothing of its methods");
  }
  return *found;
}

detail::Kind kindOf(const google::protobuf::MethodDescriptor& method) {
  using detail::Kind;
  if (method.client_streaming())
    return method.server_streaming() ? Kind::bidirectional : Kind::clientStreaming;
  return method.server_streaming() ? Kind::serverStreaming : Kind::unary;
}

// Makes gRPC's requests for calls, which are protected, those of this class.
struct Asker : grpc::Service {
  static constexpr auto unary = &Asker::RequestAsyncUnary<detail::Arriving>;
  static constexpr auto clientStreaming = &Asker::RequestAsyncClientStreaming;
  static constexpr auto serverStreaming = &Asker::RequestAsyncServerStreaming<detail::Arriving>;
  static constexpr auto bidirectional = &Asker::RequestAsyncBidiStreaming;
};

// A client refuses a status whose text is larger than the metadata that it takes, 8 KiB.
std::string textOf(const std::exception& error) {
  constexpr std::size_t kLongest = 1024;  // three times as many bytes on the wire at most
  return std::string(std::string_view(error.what()).substr(0, kLongest));
}

}  // namespace

ServiceBase::ServiceBase(std::string name)
    : GrpcService(std::move(name)), wakeups_(std::make_shared<detail::Wakeups>(*this)) {}

ServiceBase::~ServiceBase() = default;

void ServiceBase::opened() {}
void ServiceBase::drainBegun() {}
void ServiceBase::closing() {}

std::optional<grpc::Status> ServiceBase::admit(grpc::ServerContext&, const std::string&) {
  return std::nullopt;
}

Clock::time_point ServiceBase::now() const { return wakeups_->now(); }

void ServiceBase::timeIs(Clock::time_point now) { wakeups_->timeIs(now); }

std::vector<CallInProgress> ServiceBase::calls() const {
  assert(wakeups_->onServingThread() && "the calls are listed on the serving thread");
  std::vector<CallInProgress> calls;
  for (auto* call = firstCall_; call; call = call->next_) {
    calls.push_back(
        {call->method().path(), call->context().peer(), call->age(now()), call->waitsFor()});
  }
  return calls;
}

void ServiceBase::traceCalls() const {
  for (const auto& call : calls()) {
    tracer_.trace0("%s of %s: %.3f s, waits for %s", call.method.c_str(), call.peer.c_str(),
                   std::chrono::duration<double>(call.age).count(), call.waitsFor.c_str());
  }
}

// ------------------------------------------------------------------------------------------------
// The life of the service

void ServiceBase::hostIs(grpc::Service& generated, const char* name, int methods) {
  generated_ = &generated;
  descriptor_ = &descriptorOf(name, methods);
}

void ServiceBase::add(std::unique_ptr<detail::Method> method) {
  for (const auto& other : methods_) {
    if (other->number == method->number)
      throw std::logic_error(method->path() + " was given two functions");
  }
  methods_.push_back(std::move(method));
}

void ServiceBase::registerWith(grpc::ServerBuilder& builder) {
  builder.RegisterService(generated_);
  for (int number = 0; number < descriptor_->method_count(); ++number) {
    if (std::none_of(methods_.begin(), methods_.end(),
                     [&](const auto& method) { return method->number == number; })) {
      methods_.push_back(std::make_unique<detail::UnservedMethod>(
          *this, kindOf(*descriptor_->method(number)), number, MethodOptions{}));
    }
  }
}

void ServiceBase::serverStarted() {
  wakeups_->open(*cq_, nextOpaqueId());
  registerHandler(wakeups_);
  opened();
  for (const auto& method : methods_) {
    for (std::size_t i = 0; i < std::max<std::size_t>(1, method->options.ahead); ++i)
      registerHandler(method->make(nextOpaqueId()));
  }
}

void ServiceBase::stoppingChanged() {
  if (!stopping()) return;
  wakeups_->close();
  closing();
}

void ServiceBase::drainingChanged() {
  if (!draining()) return;
  detail::Wakeups::Turn turn(*wakeups_);
  for (auto* call = firstCall_; call; call = call->next_)
    call->sleeper().ready();
  drainBegun();
  turn.finish();
}

void ServiceBase::ask(const detail::Method& method, grpc::ServerContext& context,
                      detail::Arriving* request, detail::AnyStream& stream, OpaqueId tag) const {
  using detail::Kind;
  switch (method.kind) {
    case Kind::unary:
      return (generated_->*Asker::unary)(method.number, &context, request, &stream, cq_, cq_, tag);
    case Kind::clientStreaming:
      return (generated_->*Asker::clientStreaming)(method.number, &context, &stream, cq_, cq_, tag);
    case Kind::serverStreaming:
      return (generated_->*Asker::serverStreaming)(method.number, &context, request, &stream, cq_,
                                                   cq_, tag);
    case Kind::bidirectional:
      return (generated_->*Asker::bidirectional)(method.number, &context, &stream, cq_, cq_, tag);
  }
}

// ------------------------------------------------------------------------------------------------
// The end of a call that has no other

void ServiceBase::chargeClient() const { server_->charge(); }

std::optional<grpc::Status> ServiceBase::refusal(grpc::ServerContext& context,
                                                 const detail::Method& method,
                                                 const detail::Mark& mark) try {
  noteBytesIn(context, mark.size);
  if (mark.malformed) return detail::noMessage();
  return admit(context, method.path());
} catch (...) {
  return thrown(context, method);
}

grpc::Status ServiceBase::thrown(const grpc::ServerContext& context,
                                 const detail::Method& method) const {
  try {
    throw;
  } catch (const StatusError& error) {
    return error.status();
  } catch (const vorn::invalid_argument_error& error) {
    return StatusError(grpc::StatusCode::INVALID_ARGUMENT, error.what())
        .wrongField(error.argument(), error.what())
        .status();
  } catch (const vorn::unsupported_error& error) {
    return {grpc::StatusCode::UNIMPLEMENTED, textOf(error)};
  } catch (const vorn::configuration_error& error) {
    return {grpc::StatusCode::FAILED_PRECONDITION, textOf(error)};
  } catch (const vorn::no_scoped_lock_obtained_error& error) {
    return {grpc::StatusCode::UNAVAILABLE, textOf(error)};
  } catch (const std::exception& error) {
    tracer_.error("%s of %s failed: %s", method.path().c_str(), context.peer().c_str(),
                  error.what());
  } catch (...) {
    tracer_.error("%s of %s failed with an unknown exception", method.path().c_str(),
                  context.peer().c_str());
  }
  return {grpc::StatusCode::INTERNAL, "internal error"};
}

void ServiceBase::traceFailure(const grpc::ServerContext& context, const detail::Method& method,
                               const grpc::Status& status) const {
  if (!tracer_.enabled(8)) return;
  tracer_.trace8("%s of %s ended with %d: %s", method.path().c_str(), context.peer().c_str(),
                 static_cast<int>(status.error_code()), status.error_message().c_str());
}

}  // namespace VornSdkRpc::rpc
