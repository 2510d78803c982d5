#pragma once

#include <set>
#include <string>

#include "agents/routing/AgentService.h"
#include "agents/routing/SbfdMonitor.h"

namespace routing_agent {

// SBFD echo sessions and their watchers.
class SbfdService : public AgentService<Sbfd> {
 public:
  // Begins with the sessions that are in the tables.
  SbfdService(const Workings& workings, SbfdMonitor& monitor);

 private:
  grpc::Status set(grpc::ServerContext& context, const sbfd_echo_session_msg& session);
  session_state_msg stateOf(const std::string& id, sbfd_echo_session_msg session) const;
  rpc::Task<> list(rpc::Writer<sessions_msg>& writer, const get_msg& request) const;
  rpc::Task<> watch(rpc::Writer<watch_sbfd_echo_session_status_msg>& watcher,
                    const watch_sbfd_echo_session_config_msg& config);

  SbfdMonitor& monitor_;
  Wanted<std::string, decltype(Tables::sessions)> sessions_{tables_.sessions};
};

}  // namespace routing_agent
