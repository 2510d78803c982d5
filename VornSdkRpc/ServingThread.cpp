#include <VornSdkRpc/ServingThread.h>

#include <VornSdkRpc/GrpcServer.h>
#include <grpc/support/time.h>
#include <pthread.h>
#include <time.h>

namespace VornSdkRpc {

// The handler of the alarm.
class ServingThread::Look : public RequestHandler {
 public:
  Look(ServingThread& service, OpaqueId tag) : service_(service) {
    state_ = IN_PROGRESS;
    opaqueId_ = tag;
  }
  void proceed(OpaqueId tag) override {
    if (service_.completionOk()) service_.lookNext(tag);
  }
  RequestHandlerPtr spawn(OpaqueId) override { return nullptr; }

 private:
  ServingThread& service_;
};

ServingThread::ServingThread(const std::vector<double>& buckets)
    : GrpcService("ServingThread"), delays_(buckets) {}

void ServingThread::serverStarted() {
  const auto tag = nextOpaqueId();
  registerHandler(std::make_shared<Look>(*this, tag));
  {
    const vorn::lock_guard lock(mutex_);
    running_ = pthread_getcpuclockid(pthread_self(), &clock_) == 0;
  }
  lookNext(tag);
}

// A stop cancels what is set, or finds nothing set and keeps it so.
void ServingThread::lookNext(OpaqueId tag) {
  const vorn::lock_guard lock(mutex_);
  const auto now = Steady::now();
  if (due_ != Steady::time_point()) delays_.add(now - due_);
  if (stopping()) return;
  due_ = now + std::chrono::seconds(1);
  alarm_.Set(
      cq_, gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC), gpr_time_from_seconds(1, GPR_TIMESPAN)), tag);
}

void ServingThread::stoppingChanged() {
  const vorn::lock_guard lock(mutex_);
  running_ = false;
  alarm_.Cancel();
}

double ServingThread::processorSeconds() const {
  const vorn::lock_guard lock(mutex_);
  timespec used{};
  if (!running_ || clock_gettime(clock_, &used) != 0) return 0;
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

std::size_t ServingThread::tags() const {
  const vorn::lock_guard lock(mutex_);
  return running_ ? server_->tagManager().size() : 0;
}

}  // namespace VornSdkRpc
