#pragma once

#include <VornSdkRpc/PolicyGuard.h>
#include <VornSdkRpc/Rpc.h>

#include "agents/routing/PolicyService.grpc.pb.h"

namespace routing_agent {

// Serves what the policy says.
class PolicyService : public VornSdkRpc::rpc::Service<Policy> {
 public:
  // `file` must outlive the server; null when there is no policy.
  explicit PolicyService(const VornSdkRpc::PolicyFile* file);

 private:
  policy_answer_msg probe(const policy_probe_msg& asked) const;
  policy_msg get() const;
  const VornSdkRpc::PolicyFile& inForce() const;

  const VornSdkRpc::PolicyFile* file_;
};

}  // namespace routing_agent
