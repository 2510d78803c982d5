#include <VornSdkRpc/GrpcService.h>

#include <VornSdkRpc/GrpcServer.h>

#include <cassert>
#include <utility>

namespace VornSdkRpc {

namespace {

// Makes a tag of the service and has `store` give it a handler. When that throws, the tag goes
// again.
template <typename Store>
OpaqueId makeTag(TagManager& tags, std::size_t serviceId, Store store) {
  const OpaqueId tag = tags.newTag(serviceId);
  try {
    store(tag);
  } catch (...) {
    tags.removeHandler(serviceId, tag);
    throw;
  }
  return tag;
}

}  // namespace

GrpcService::GrpcService(std::string name)
    : name_(std::move(name) + "-service"), tracer_(name_.c_str()) {}

GrpcService::~GrpcService() = default;

void GrpcService::selfRegister(std::size_t serviceId, grpc::ServerBuilder& builder) {
  stopping_ = false;
  draining_ = false;
  serviceId_ = serviceId;
  registerWith(builder);
}

void GrpcService::started(GrpcServer& server, grpc::ServerCompletionQueue& cq,
                          ServerProperties& properties) {
  server_ = &server;
  cq_ = &cq;
  properties_ = &properties;
  serverStarted();
}

void GrpcService::stoppingIs(bool stopping) {
  if (stopping_.exchange(stopping) != stopping) stoppingChanged();
}

void GrpcService::stoppingChanged() {}

void GrpcService::drainingIs(bool draining) {
  if (draining_.exchange(draining) != draining) drainingChanged();
}

void GrpcService::drainingChanged() {}

grpc::Server* GrpcService::server() { return server_->server(); }

bool GrpcService::completionOk() const { return server_->completionOk(); }

OpaqueId GrpcService::nextOpaqueId() { return server_->tagManager().newTag(serviceId_); }

void GrpcService::registerHandler(RequestHandlerPtr handler) {
  const OpaqueId tag = handler->opaqueId_;
  registerHandlerAs(tag, std::move(handler));
}

void GrpcService::registerHandlerAs(OpaqueId tag, RequestHandlerPtr handler) {
  tracer_.trace8("Created tag %p svcId %zu", tag, serviceId_);
  server_->tagManager().storeHandler(serviceId_, tag, std::move(handler));
}

OpaqueId GrpcService::assignExtraTag(const RequestHandlerPtr& handler) {
  return makeTag(server_->tagManager(), serviceId_,
                 [&](OpaqueId tag) { registerHandlerAs(tag, handler); });
}

RequestHandler* GrpcService::findHandler(OpaqueId tag) const {
  std::size_t serviceId = 0;
  RequestHandlerPtr handler;
  if (!server_->tagManager().find(tag, serviceId, handler)) return nullptr;
  assert(serviceId == serviceId_);
  return handler.get();
}

void GrpcService::removeHandler(OpaqueId tag) {
  tracer_.trace8("erase handler %p", tag);
  server_->tagManager().removeHandler(serviceId_, tag);
}

void GrpcService::process(OpaqueId tag, RequestHandler* handler) {
  if (stopping_) return;
  switch (handler->state_) {
    case RequestHandler::AWAITING_CALL:
      if (draining_ && !completionOk()) {
        // A successor would be given back at once, and so on without an end.
        handler->withdrawn(tag);
        removeHandler(tag);
        break;
      }
      // The successor comes first, so that the method's next call can arrive while this one is
      // served, or waits.
      makeTag(server_->tagManager(), serviceId_,
              [&](OpaqueId next) { registerHandler(handler->spawn(next)); });
      if (!server_->putOff(tag, *handler)) begin(tag, handler);
      break;
    case RequestHandler::IN_PROGRESS:
      handler->proceed(tag);
      break;
    case RequestHandler::FINISHED:
      removeHandler(tag);
      break;
  }
}

void GrpcService::beginInTurn(OpaqueId tag, RequestHandler* handler) {
  if (!stopping_) begin(tag, handler);
}

void GrpcService::begin(OpaqueId tag, RequestHandler* handler) {
  tracer_.trace8("process handler %p", tag);
  handler->state_ = RequestHandler::AWAITING_CALL;
  handler->proceed(tag);
  server_->charge();
  if (handler->state_ == RequestHandler::AWAITING_CALL) handler->state_ = RequestHandler::FINISHED;
}

}  // namespace VornSdkRpc
