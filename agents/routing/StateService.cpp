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
  if (!mayChange(context, listen_)) return mayNot();
  check(config);
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
  std::optional<std::string> last;
  for (auto items = tables_.state.part(last); !items.empty(); items = tables_.state.part(last)) {
    for (const auto& [key, value] : items)
      reply.add_value()->mutable_value()->append(key).append("=").append(value);
    last = items.back().first;
  }
}

}  // namespace routing_agent
