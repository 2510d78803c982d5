#include "examples/routing_agent/RoutingService.h"

#include <memory>
#include <string>
#include <utility>

namespace routing_agent {

using VornSdkRpc::OpaqueId;
using VornSdkRpc::RequestHandler;
using VornSdkRpc::RequestHandlerPtr;
using VornSdkRpc::pb::rpc_status_msg;

namespace {

constexpr std::size_t kRoutesPerPart = 256;

// What every handler of this service has: the service, the call's context, and a successor of its
// own kind. A derived class asks gRPC for its call when it is constructed.
template <class Derived>
class RoutingHandler : public RequestHandler {
 public:
  RoutingHandler(RoutingService& service, OpaqueId tag) : service_(service) { opaqueId_ = tag; }

  RequestHandlerPtr spawn(OpaqueId tag) override {
    return std::make_shared<Derived>(service_, tag);
  }

 protected:
  RoutingService& service_;
  grpc::ServerContext context_;
};

// A unary method: the call arrives with its request, is answered at once, and is over when the
// answer is out. The handler leaves its state at AWAITING_CALL, which tells the frame just that.
template <class Derived, class Request>
class UnaryHandler : public RoutingHandler<Derived> {
 public:
  using RoutingHandler<Derived>::RoutingHandler;

  void proceed(OpaqueId tag) override {
    const grpc::Status status = static_cast<Derived*>(this)->answer();
    if (status.ok()) {
      writer_.Finish(rpc_status_msg(), status, tag);
    } else {
      writer_.FinishWithError(status, tag);
    }
  }

 protected:
  Request request_;
  grpc::ServerAsyncResponseWriter<rpc_status_msg> writer_{&this->context_};
};

class SetRouteHandler : public UnaryHandler<SetRouteHandler, ip_route_msg> {
 public:
  SetRouteHandler(RoutingService& service, OpaqueId tag) : UnaryHandler(service, tag) {
    service.async().RequestSetRoute(&context_, &request_, &writer_, service.queue(),
                                    service.queue(), tag);
  }

  grpc::Status answer() {
    const grpc::Status status = checkPrefix(request_.prefix());
    if (status.ok()) service_.table().set(std::move(request_));
    return status;
  }
};

class DeleteRouteHandler : public UnaryHandler<DeleteRouteHandler, ip_prefix_msg> {
 public:
  DeleteRouteHandler(RoutingService& service, OpaqueId tag) : UnaryHandler(service, tag) {
    service.async().RequestDeleteRoute(&context_, &request_, &writer_, service.queue(),
                                       service.queue(), tag);
  }

  grpc::Status answer() {
    const grpc::Status status = checkPrefix(request_);
    if (!status.ok()) return status;
    if (service_.table().remove(request_)) return grpc::Status::OK;
    return {grpc::StatusCode::NOT_FOUND, "no route has this prefix"};
  }
};

// Client streaming: reads one route after another, until the client ends its stream or sends one
// that can't be used.
class SetRoutesHandler : public RoutingHandler<SetRoutesHandler> {
 public:
  SetRoutesHandler(RoutingService& service, OpaqueId tag) : RoutingHandler(service, tag) {
    service.async().RequestSetRoutes(&context_, &reader_, service.queue(), service.queue(), tag);
  }

  void proceed(OpaqueId tag) override {
    if (state_ == AWAITING_CALL) {
      state_ = IN_PROGRESS;
    } else if (!service_
                    .completionOk()) {  // a read that fails: the client has sent all, or is gone
      state_ = FINISHED;
      reader_.Finish(reply_, grpc::Status::OK, tag);
      return;
    } else if (const grpc::Status status = checkPrefix(route_.prefix()); !status.ok()) {
      state_ = FINISHED;
      reader_.FinishWithError({status.error_code(), "route " + std::to_string(reply_.accepted()) +
                                                        ": " + status.error_message()},
                              tag);
      return;
    } else {
      service_.table().set(std::move(route_));
      reply_.set_accepted(reply_.accepted() + 1);
    }
    reader_.Read(&route_, tag);
  }

 private:
  ip_route_msg route_;
  set_routes_reply_msg reply_;
  grpc::ServerAsyncReader<set_routes_reply_msg, ip_route_msg> reader_{&context_};
};

// Server streaming: one part is written after another, each taken from the table when the last one
// is out. A client that reads slowly costs one part of memory, whatever the table's size.
class GetRoutesHandler : public RoutingHandler<GetRoutesHandler> {
 public:
  GetRoutesHandler(RoutingService& service, OpaqueId tag) : RoutingHandler(service, tag) {
    service.async().RequestGetRoutes(&context_, &request_, &writer_, service.queue(),
                                     service.queue(), tag);
  }

  void proceed(OpaqueId tag) override {
    if (state_ == IN_PROGRESS && (!service_.completionOk() || last_)) {
      state_ = FINISHED;
      writer_.Finish(grpc::Status::OK, tag);
      return;
    }
    state_ = IN_PROGRESS;
    takePart();
    writer_.Write(part_, tag);
  }

 private:
  void takePart() {
    part_.Clear();
    for (auto& route : service_.table().routesAfter(after_, kRoutesPerPart)) {
      *part_.add_route() = std::move(route);
    }
    last_ = part_.route_size() < static_cast<int>(kRoutesPerPart);
    if (!last_) after_.emplace(part_.route(part_.route_size() - 1).prefix());
  }

  get_routes_msg request_;
  routes_msg part_;
  std::optional<RouteKey> after_;
  bool last_ = false;
  grpc::ServerAsyncWriter<routes_msg> writer_{&context_};
};

}  // namespace

RoutingService::RoutingService(RouteTable& table, std::function<void()> onStarted)
    : GrpcService("Routing"), table_(table), onStarted_(std::move(onStarted)) {}

void RoutingService::registerWith(grpc::ServerBuilder& builder) {
  builder.RegisterService(&async_);
}

void RoutingService::serverStarted() {
  registerHandler(std::make_shared<SetRouteHandler>(*this, nextOpaqueId()));
  registerHandler(std::make_shared<SetRoutesHandler>(*this, nextOpaqueId()));
  registerHandler(std::make_shared<GetRoutesHandler>(*this, nextOpaqueId()));
  registerHandler(std::make_shared<DeleteRouteHandler>(*this, nextOpaqueId()));
  onStarted_();
}

}  // namespace routing_agent
