#pragma once

#include <VornSdkRpc/GrpcServer.h>
#include <grpcpp/alarm.h>

#include <memory>
#include <mutex>
#include <set>

#include "examples/snippets/Snippets.grpc.pb.h"

// The guide's service that is written by hand.
namespace snippets {

// [service]
class NapService : public VornSdkRpc::GrpcService {
 public:
  NapService() : GrpcService("Naps") {}

  Naps::AsyncService async;

  grpc::ServerCompletionQueue* queue() const { return cq_; }

  void setAlarm(grpc::Alarm& alarm, gpr_timespec deadline, VornSdkRpc::OpaqueId tag) {
    const std::lock_guard lock(mutex_);
    alarms_.insert(&alarm);
    alarm.Set(cq_, deadline, tag);
    if (stopping()) alarm.Cancel();  // stoppingChanged() has already been here
  }
  void dropAlarm(grpc::Alarm& alarm) {
    const std::lock_guard lock(mutex_);
    alarms_.erase(&alarm);
  }

 private:
  void registerWith(grpc::ServerBuilder& builder) override { builder.RegisterService(&async); }
  void serverStarted() override;
  void stoppingChanged() override {
    const std::lock_guard lock(mutex_);
    for (auto* alarm : alarms_)
      alarm->Cancel();
  }

  std::mutex mutex_;
  std::set<grpc::Alarm*> alarms_;
};
// [service]

// [handler]
class NapHandler : public VornSdkRpc::RequestHandler,
                   public std::enable_shared_from_this<NapHandler> {
 public:
  NapHandler(NapService& service, VornSdkRpc::OpaqueId tag)
      : service_(service), doneTag_(service.nextOpaqueId()) {
    opaqueId_ = tag;
    context_.AsyncNotifyWhenDone(doneTag_);
    service.async.RequestNap(&context_, &nap_, &writer_, service.queue(), service.queue(), tag);
  }
  ~NapHandler() override { service_.dropAlarm(alarm_); }

  VornSdkRpc::RequestHandlerPtr spawn(VornSdkRpc::OpaqueId tag) override {
    return std::make_shared<NapHandler>(service_, tag);
  }

  void proceed(VornSdkRpc::OpaqueId tag) override {
    if (tag == doneTag_) {  // the client has left before the answer
      alarm_.Cancel();
      service_.removeHandler(doneTag_);
    } else if (state_ == AWAITING_CALL) {
      state_ = IN_PROGRESS;
      service_.registerHandlerAs(doneTag_, shared_from_this());
      service_.setAlarm(alarm_, inMilliseconds(nap_.milliseconds()), tag);
    } else {  // the alarm has gone off, or was cancelled
      state_ = FINISHED;
      const bool slept = service_.completionOk();
      writer_.Finish(nap_, slept ? grpc::Status::OK : grpc::Status::CANCELLED, tag);
    }
  }
  // [handler]

 private:
  static gpr_timespec inMilliseconds(std::int64_t number) {
    return gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC), gpr_time_from_millis(number, GPR_TIMESPAN));
  }

  NapService& service_;
  VornSdkRpc::OpaqueId doneTag_;
  grpc::ServerContext context_;
  nap_msg nap_;
  grpc::ServerAsyncResponseWriter<nap_msg> writer_{&context_};
  grpc::Alarm alarm_;
};

// [first]
inline void NapService::serverStarted() {
  registerHandler(std::make_shared<NapHandler>(*this, nextOpaqueId()));
}
// [first]

}  // namespace snippets
