#include "agents/routing/StateService.h"

#include <optional>
#include <utility>

namespace routing_agent {

namespace {

constexpr std::size_t kMaxRead = std::size_t{1} << 20;

// The key that is set or deleted, where it is one alone.
void note(const grpc::ServerContext& context, const rpc_server_state_config_msg& config) {
  const auto sets = static_cast<std::uint64_t>(config.set_size());
  const auto deletes = static_cast<std::uint64_t>(config.delete__size());
  const char* const operation = deletes == 0 ? "set" : sets == 0 ? "delete" : "set and delete";
  const std::string object = sets + deletes != 1 ? "state"
                             : sets == 1         ? config.set(0).key()
                                                 : config.delete_(0).key();
  VornSdkRpc::noteOperation(context, operation, object, sets + deletes);
}

}  // namespace

StateService::StateService(const Workings& workings) : AgentService("State", workings) {
  method(&Async::RequestConfigure,
         [this](grpc::ServerContext& context, const rpc_server_state_config_msg& config,
                rpc_status_msg&) { return configure(context, config); });
  method(&Async::RequestRead, [this](grpc::ServerContext& context, const state_keys_msg& keys,
                                     rpc_server_state_status_msg& reply) {
    VornSdkRpc::noteOperation(context, "read", keys.key_size() == 1 ? keys.key(0) : "state",
                              static_cast<std::uint64_t>(keys.key_size()));
    return read(keys, reply);
  });
  method(&Async::RequestReadAll,
         [this](rpc::Writer<rpc_server_state_status_msg>& parts, const read_all_msg&) {
           VornSdkRpc::noteOperation(parts.context(), "read", "state", tables_.state.size());
           return readAll(parts);
         });
}

grpc::Status StateService::configure(grpc::ServerContext& context,
                                     const rpc_server_state_config_msg& config) {
  traceArrival(config);
  note(context, config);
  if (auto status = mayChangeNow(context); !status.ok()) return status;
  check(config);
  if (config.set_size() != 0 && full()) return tablesFull();
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): std::function frees it
  return keepAndProgram(config, [this, config] { tables_.configureState(config); }, [] {});
}

grpc::Status StateService::read(const state_keys_msg& keys,
                                rpc_server_state_status_msg& reply) const {
  check(keys);
  for (const auto& key : keys.key())
    reply.add_value()->set_value(tables_.state.find(key).value_or(""));
  if (keys.key_size() != 0) return ok();
  std::size_t bytes = 0;
  std::optional<std::string> last;
  while (const auto more = addPart(reply, last)) {
    bytes += more;
    if (bytes > kMaxRead) {
      return {grpc::StatusCode::RESOURCE_EXHAUSTED,
              "the state has more than 1 MiB: read it with ReadAll"};
    }
  }
  return ok();
}

rpc::Task<> StateService::readAll(rpc::Writer<rpc_server_state_status_msg>& parts) const {
  std::optional<std::string> last;
  for (bool more = true; more;) {
    rpc_server_state_status_msg part;
    more = addPart(part, last) != 0;
    if (!co_await parts.write(part)) co_return grpc::Status::CANCELLED;
  }
  co_return grpc::Status::OK;
}

// Adds the entries behind the key `last`, as far as they go into one part. Answers their bytes.
std::size_t StateService::addPart(rpc_server_state_status_msg& reply,
                                  std::optional<std::string>& last) const {
  std::size_t bytes = 0;
  for (const auto& [key, value] : tables_.state.part(last)) {
    reply.add_value()->mutable_value()->append(key).append("=").append(value);
    bytes += key.size() + 1 + value.size();
    last = key;
  }
  return bytes;
}

}  // namespace routing_agent
