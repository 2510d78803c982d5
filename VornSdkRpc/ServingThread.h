#pragma once

#include <VornSdkRpc/GrpcService.h>
#include <VornSdkRpc/Histogram.h>
#include <grpcpp/alarm.h>
#include <vorn/mutex.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <vector>

namespace VornSdkRpc {

// A service without methods that finds out once a second how late the serving thread handles what
// is due.
class ServingThread : public GrpcService {
 public:
  explicit ServingThread(const std::vector<double>& buckets);

  Histogram& delays() { return delays_; }

  // The thread's processor time; 0 when it does not run. Any thread.
  double processorSeconds() const;

  // How many operations gRPC has been asked for; 0 when it does not run. Any thread.
  std::size_t tags() const;

 private:
  using Steady = std::chrono::steady_clock;
  class Look;

  void registerWith(grpc::ServerBuilder&) override {}
  void serverStarted() override;
  void stoppingChanged() override;
  void lookNext(OpaqueId tag);

  Histogram delays_;
  mutable vorn::mutex mutex_;
  grpc::Alarm alarm_ VORN_GUARDED_BY(mutex_);
  Steady::time_point due_ VORN_GUARDED_BY(mutex_);
  bool running_ VORN_GUARDED_BY(mutex_) = false;
  clockid_t clock_ VORN_GUARDED_BY(mutex_) = {};
};

}  // namespace VornSdkRpc
