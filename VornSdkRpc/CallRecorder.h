#pragma once

#include <VornSdkRpc/CallLog.h>
#include <VornSdkRpc/CallObserver.h>
#include <VornSdkRpc/CallRecord.h>
#include <grpcpp/support/interceptor.h>
#include <grpcpp/support/server_interceptor.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace VornSdkRpc {

// What a handler has added to its call's record.
struct CallNote {
  std::string operation;
  std::string object;
  std::uint64_t count = 0;
  std::uint64_t bytesIn = CallRecord::kUnknown;
  bool limit = false;
};

// The calls in progress that are recorded, by their contexts, so that a handler's note finds its
// call. One for the process; any thread.
class NotedCall {
 public:
  explicit NotedCall(const grpc::ServerContextBase* call);
  ~NotedCall() { take(); }
  NotedCall(const NotedCall&) = delete;
  NotedCall& operator=(const NotedCall&) = delete;

  // Ends the noting, and returns what was noted.
  CallNote take();

  // Calls `change` with the note of a call, if that is recorded.
  template <typename Change>
  static void change(const grpc::ServerContextBase* call, Change change);

 private:
  struct Bucket;
  static Bucket& bucketOf(const grpc::ServerContextBase* call);

  const grpc::ServerContextBase* const call_;
  NotedCall* next_ = nullptr;
  bool listed_ = true;
  CallNote note_;
};

// Follows one call, and appends its record when the agent sends the status, or when the call is
// gone without one. gRPC owns it, and may keep it longer than the call's context.
class CallRecorder : public grpc::experimental::Interceptor {
 public:
  // `observer` may be null.
  CallRecorder(grpc::experimental::ServerRpcInfo* info, CallLog& log, CallObserver* observer,
               bool recordsStart);
  ~CallRecorder() override;

  void Intercept(grpc::experimental::InterceptorBatchMethods* methods) override;

 private:
  using Steady = std::chrono::steady_clock;

  void begin(grpc::experimental::InterceptorBatchMethods& methods);
  void received(grpc::experimental::InterceptorBatchMethods& methods);
  void sending(grpc::experimental::InterceptorBatchMethods& methods);
  void closed();
  void answering(std::int32_t status);
  void leaveUnanswered();
  bool isExpired() const;
  void append();

  grpc::experimental::ServerRpcInfo* const info_;
  CallLog& log_;
  CallObserver* const observer_;
  CallObserver::Call observed_ = nullptr;
  NotedCall noted_;
  CallRecord record_;
  std::string texts_;  // the record's
  const Steady::time_point began_ = Steady::now();
  Steady::time_point ended_{};  // on the wire, before there was an answer
  bool stopped_ = false;        // by the server's stop
  bool recordsStart_;
  bool messageRefused_ = false;
  bool begun_ = false;
  bool appended_ = false;
};

}  // namespace VornSdkRpc
