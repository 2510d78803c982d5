#pragma once

#include <VornSdkRpc/Rpc.h>

#include "agents/routing/Accounting.h"
#include "agents/routing/Backlog.h"
#include "agents/routing/Election.h"
#include "agents/routing/Identity.h"
#include "agents/routing/KernelSync.h"
#include "agents/routing/RoutingAgent.grpc.pb.h"
#include "agents/routing/Tables.h"

namespace routing_agent {

// What the status is read from. Must outlive the server.
struct StatusSources {
  const Tables& tables;
  const Backlog& backlog;
  const Election& election;
  const KernelSync* kernel;  // null: there is none
  const Access& access;
  Accounting* accounting;  // null: no calls are recorded
};

// Serves how the agent is.
class StatusService : public VornSdkRpc::rpc::Service<Status> {
 public:
  explicit StatusService(const StatusSources& from);

 private:
  status_msg now() const;
  void addBacklog(status_msg& status) const;
  void addCertificates(status_msg& status) const;

  const StatusSources from_;
  const std::chrono::system_clock::time_point started_ = std::chrono::system_clock::now();
};

}  // namespace routing_agent
