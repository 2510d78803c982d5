#pragma once

#include <VornSdkRpc/Certificates.h>
#include <VornSdkRpc/PolicyGuard.h>
#include <VornSdkRpc/Rpc.h>

#include "agents/routing/PolicyService.grpc.pb.h"

namespace routing_agent {

// Serves what the policy says, and the end of those who are not accepted any more.
class PolicyService : public VornSdkRpc::rpc::Service<Policy> {
 public:
  // Both must outlive the server; null when there is no policy, or no TLS.
  PolicyService(const VornSdkRpc::PolicyFile* file, VornSdkRpc::Certificates* certificates);

 private:
  policy_answer_msg probe(const policy_probe_msg& asked) const;
  policy_msg get() const;
  withdrawn_msg withdraw() const;
  const VornSdkRpc::PolicyFile& inForce() const;

  const VornSdkRpc::PolicyFile* file_;
  VornSdkRpc::Certificates* certificates_;
};

}  // namespace routing_agent
