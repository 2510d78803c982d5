#pragma once

#include <VornSdkRpc/CertificateSet.h>
#include <grpc/grpc.h>
#include <grpc/grpc_security.h>
#include <grpcpp/security/auth_metadata_processor.h>
#include <grpcpp/support/server_interceptor.h>
#include <vorn/mutex.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace VornSdkRpc {

// Whether client certificates are accepted by one set; each is verified once. Any thread.
class Accepted {
 public:
  explicit Accepted(std::shared_ptr<const CertificateSet> set) : set_(std::move(set)) {}

  // A connection without a client certificate is: nobody has been withdrawn.
  bool accepts(const grpc::string_ref& certificate, const grpc::string_ref& chain);

 private:
  const std::shared_ptr<const CertificateSet> set_;
  vorn::mutex mutex_;
  std::unordered_map<std::string, bool> verdicts_ VORN_GUARDED_BY(mutex_);
};

// Which connections may go on, and their calls in progress. Until the first withdraw() it costs a
// call one load, and with the interceptors a place in a set. Any thread.
class Withdrawal {
 public:
  // From now on what the set does not accept is refused. Returns how many calls were ended.
  std::size_t withdraw(std::shared_ptr<const CertificateSet> set);

  // OK, or the status that refuses a call over the connection.
  grpc::Status admit(const grpc::AuthContext& connection) const;

  // Keeps the call until it is dropped.
  void add(grpc_call* call);
  void drop(grpc_call* call);

 private:
  std::shared_ptr<Accepted> accepted() const;

  std::atomic<bool> any_ = false;
  mutable vorn::mutex mutex_;
  std::shared_ptr<Accepted> accepted_ VORN_GUARDED_BY(mutex_);
  std::unordered_set<grpc_call*> calls_ VORN_GUARDED_BY(mutex_);
};

// Refuses the calls of withdrawn connections, and asks the agent's own processor, which may be
// null, about the others.
std::shared_ptr<grpc::AuthMetadataProcessor> withdrawing(
    std::shared_ptr<const Withdrawal> withdrawal,
    std::shared_ptr<grpc::AuthMetadataProcessor> processor);

// Tells the calls that begin and end.
std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface> tracking(
    std::shared_ptr<Withdrawal> withdrawal);

}  // namespace VornSdkRpc
