#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "agents/routing/AgentService.h"

namespace routing_agent {

// The agent's key/value state.
class StateService : public AgentService<State> {
 public:
  explicit StateService(const Workings& workings);

 private:
  grpc::Status configure(grpc::ServerContext& context, const rpc_server_state_config_msg& config);
  grpc::Status read(const state_keys_msg& keys, rpc_server_state_status_msg& reply) const;
  rpc::Task<> readAll(rpc::Writer<rpc_server_state_status_msg>& parts) const;
  std::size_t addPart(rpc_server_state_status_msg& reply, std::optional<std::string>& last) const;
};

}  // namespace routing_agent
