#include "agents/routing/StateService.h"

#include <optional>
#include <utility>

namespace routing_agent {

StateService::StateService(Tables& tables, Backlog& backlog, const std::vector<std::string>& listen)
    : AgentService("State", backlog, listen), tables_(tables) {
  method(&Async::RequestConfigure,
         [this](grpc::ServerContext& context, const rpc_server_state_config_msg& config,
                rpc_status_msg&) { return configure(context, config); });
  method(&Async::RequestRead,
         [this](const state_keys_msg& keys, rpc_server_state_status_msg& reply) {
           read(keys, reply);
           return ok();
         });
}

grpc::Status StateService::configure(grpc::ServerContext& context,
                                     const rpc_server_state_config_msg& config) {
  traceArrival(config);
  check(config);
  if (config.delete__size() != 0 && !mayRemove(context, listen_)) return mayNot();
  auto program = [this, config] {
    for (const auto& entry : config.set())
      tables_.state.set(entry.key(), entry.value());
    for (const auto& removed : config.delete_())
      tables_.state.remove(removed.key());
  };
  return backlog_.add(std::move(program), config.SpaceUsedLong()) ? ok() : tooMuchWaits();
}

void StateService::read(const state_keys_msg& keys, rpc_server_state_status_msg& reply) const {
  for (const auto& key : keys.key()) {
    reply.add_value()->set_value(tables_.state.find(key).value_or(""));
  }
  if (keys.key_size() != 0) return;
  for (const auto& [key, value] : tables_.state.part(std::nullopt, SIZE_MAX)) {
    reply.add_value()->mutable_value()->append(key).append("=").append(value);
  }
}

}  // namespace routing_agent
