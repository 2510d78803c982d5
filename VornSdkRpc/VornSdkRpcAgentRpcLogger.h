#pragma once

#include <VornSdkRpc/VornSdkRpcAgentRpcLoggerUtils.h>
#include <grpcpp/support/interceptor.h>
#include <grpcpp/support/server_interceptor.h>
#include <vorn/export.h>

#include <cstdint>
#include <string>
#include <thread>

// RPC accounting: every call that the server answers is one line in the platform log, which says
// who called which method from where and with which result. A call never waits for the log: records
// are queued, and a thread of the factory's own writes them. An agent turns accounting on with
// installAccounting(builder) (InstallAccounting.h), which gives the builder a factory.
namespace VornSdkRpc {

// One accounting record. A text of a call's that has more than 1,024 bytes is cut there, between
// characters, and "...[cut]" stands behind it; such a field is longer than 1,024 bytes, and one
// that was sent like that is not.
struct LogMessageData {
  std::string user;     // the call's authentication property "peer-authenticated", or "unknown"
  std::string session;  // its property "session-id", or "unknown"
  std::string peer;     // the peer as gRPC names it when the call arrives, such as
                        // "ipv4:127.0.0.1:40022"
  std::string rpc;      // the method's full name, such as "/package.Service/Method"
  std::int32_t status;  // the grpc::StatusCode that the client is told, as far as that is known
};

// Takes the record of one call at the moment the server sends the call's status: once for every
// call that gets one, whatever the status and also when the client has gone by then; never for a
// call that is left without an answer. Changes nothing about the call. gRPC owns it.
//
// When gRPC has refused a message of the client's stream, which is over the server's limit, it has
// told the client RESOURCE_EXHAUSTED, whatever the handler sends after that. So says the record,
// where the call is served by a GrpcServer; in a server of another kind nobody can know.
class VORN_EXPORT LoggingInterceptor : public grpc::experimental::Interceptor {
 public:
  // Both must outlive the interceptor; neither is touched.
  LoggingInterceptor(grpc::experimental::ServerRpcInfo* info,
                     SynchronizedQueue<LogMessageData>* queue)
      : info_(info), queue_(queue) {}

  // gRPC calls it for every batch of the call's operations, on whichever thread issues them.
  // Queues the record when the batch sends the status, and lets the batch proceed. Passes on
  // std::bad_alloc and std::system_error.
  void Intercept(grpc::experimental::InterceptorBatchMethods* methods) override;

 private:
  void account(grpc::experimental::InterceptorBatchMethods& methods);

  grpc::experimental::ServerRpcInfo* info_;
  SynchronizedQueue<LogMessageData>* queue_;
  std::string peer_;             // gRPC forgets it when a client gives its call up
  bool messageRefused_ = false;  // by gRPC, which has ended the call for it
};

// Makes the interceptor of every call, and owns the queue and the thread that writes the records.
// The builder, and then the server, owns it; it goes with the server, when every call is over.
//
// The thread rests for two milliseconds after every batch, so that a busy server's records gather
// without a wake-up for each; a record that finds the thread idle is written at once. While memory
// has run out, records are tried again for a second in all, and without a wait once the server is
// gone; then they are lost, and a trace line tells how many as soon as there is memory for it.
class VORN_EXPORT LoggingInterceptorFactory
    : public grpc::experimental::ServerInterceptorFactoryInterface {
 public:
  // Starts the consumer thread. Throws std::system_error when there can be none.
  LoggingInterceptorFactory();

  // Returns when everything that was queued has been handed to the log.
  ~LoggingInterceptorFactory() override;

  LoggingInterceptorFactory(const LoggingInterceptorFactory&) = delete;
  LoggingInterceptorFactory& operator=(const LoggingInterceptorFactory&) = delete;

  // A new interceptor for the call, never null; the caller owns it. Any thread.
  grpc::experimental::Interceptor* CreateServerInterceptor(
      grpc::experimental::ServerRpcInfo* info) override;

 private:
  void consumer();

  std::jthread thread_;
  SynchronizedQueue<LogMessageData> queue_;
};

}  // namespace VornSdkRpc
