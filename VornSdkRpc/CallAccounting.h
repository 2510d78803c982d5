#pragma once

#include <VornSdkRpc/CallLog.h>
#include <VornSdkRpc/CallObserver.h>
#include <VornSdkRpc/CallSink.h>
#include <grpcpp/security/auth_metadata_processor.h>
#include <grpcpp/server_builder.h>
#include <grpcpp/support/server_interceptor.h>
#include <vorn/export.h>

#include <cstdint>
#include <list>
#include <memory>

// Completion records of calls (CallRecord.h) for a server, and where they go: beside the accounting
// line, or in place of it.
//
//   VornSdkRpc::CallAccounting accounting;
//   accounting.add(VornSdkRpc::accountingLines());
//   accounting.add(std::make_unique<VornSdkRpc::CallJsonFile>("/var/log/agent/calls.json"));
//   accounting.install(builder);
//   credentials->SetAuthMetadataProcessor(accounting.recorded(identity));
//
// The last line is for the records of calls that the check of who calls refuses.
namespace VornSdkRpc {

struct CallAccountingOptions {
  CallLogOptions log = {};

  // A stream has a record when it begins (CallEnd::begun), beside the one at its end.
  bool streamStarts = false;
};

// Makes the completion records of a server, and hands them to its sinks.
class VORN_EXPORT CallAccounting {
 public:
  explicit CallAccounting(CallAccountingOptions options = {});

  // Returns when every sink has been offered everything: once more, for one that does not take it.
  // What is not taken then is lost, and a trace line "RPCAccounting/0" tells how many. To be
  // destroyed after the server: calls that end later are recorded for nobody.
  ~CallAccounting();
  CallAccounting(const CallAccounting&) = delete;
  CallAccounting& operator=(const CallAccounting&) = delete;

  // Has a sink written to from now on, by a thread of its own. Throws std::system_error when there
  // can be none. Before the server begins.
  void add(std::unique_ptr<CallSink> sink);

  // Has somebody told of the calls as they go: one at most. Before the interceptors are made.
  void observe(std::shared_ptr<CallObserver> observer);

  // What records the calls of a server, for the builder's list of interceptors; once. In front of
  // it, an interceptor may look at what the agent sends, but not behind it: there gRPC has it in
  // bytes.
  std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface> interceptors();

  // Makes that the builder's whole list of interceptors.
  void install(grpc::ServerBuilder& builder);

  // The same processor, with a record of every call that it refuses.
  std::shared_ptr<grpc::AuthMetadataProcessor> recorded(
      std::shared_ptr<grpc::AuthMetadataProcessor> processor);

  // The records. Outlives this object when somebody holds it.
  const std::shared_ptr<CallLog>& log() const { return log_; }

  // The records of this run that a sink was not given, all sinks together. Any thread.
  std::uint64_t missed() const;

  // The records that the slowest sink has not taken yet. Any thread.
  std::uint64_t waiting() const;

 private:
  class Feeder;

  const std::shared_ptr<CallLog> log_;
  const bool streamStarts_;
  std::shared_ptr<CallObserver> observer_;
  std::list<Feeder> feeders_;
};

}  // namespace VornSdkRpc
