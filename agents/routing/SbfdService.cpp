#include "agents/routing/SbfdService.h"

namespace routing_agent {

namespace {

using Item = watch_sbfd_echo_session_status_msg;

// A watch holds its stream for as long as its client likes; this many are enough for a device.
constexpr std::size_t kMaxWatches = 16384;

}  // namespace

SbfdService::SbfdService(SbfdMonitor& monitor, Backlog& backlog,
                         const std::vector<std::string>& listen)
    : AgentService("Sbfd", backlog, listen), monitor_(monitor) {
  method(&Async::RequestSetSession,
         [this](grpc::ServerContext& context, const sbfd_echo_session_msg& session,
                rpc_status_msg&) { return set(context, session); });
  method(&Async::RequestWatchSessions,
         [this](rpc::Writer<Item>& watcher, const watch_sbfd_echo_session_config_msg& config) {
           return watch(watcher, config);
         },
         {.limit = kMaxWatches});
}

grpc::Status SbfdService::set(grpc::ServerContext& context, const sbfd_echo_session_msg& session) {
  return change(context, session, sessions_, session.session_key().SerializeAsString(),
                session.request_delete(), "session of this key",
                [this, session] { monitor_.set(session); });
}

rpc::Task<> SbfdService::watch(rpc::Writer<Item>& watcher,
                               const watch_sbfd_echo_session_config_msg& config) {
  traceArrival(config);
  rpc::Event news;
  SbfdMonitor::Watch sessions(monitor_, news, config.request_rtt_updates());
  for (const Item& item : sessions.take()) {
    if (!co_await watcher.write(item)) co_return grpc::Status::CANCELLED;
  }
  Item end;
  end.set_end_of_status_batch(true);
  if (!co_await watcher.write(end)) co_return grpc::Status::CANCELLED;

  while (co_await watcher.wait(news)) {
    auto items = sessions.take();
    if (items.empty()) continue;
    Item next;
    if (items.size() == 1) {
      next = std::move(items.front());
    } else {
      for (Item& item : items)
        *next.add_bulk() = std::move(item);
    }
    if (!co_await watcher.write(next)) break;
  }
  co_return grpc::Status::CANCELLED;
}

}  // namespace routing_agent
