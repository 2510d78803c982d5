#include "agents/routing/SbfdService.h"

#include <optional>
#include <utility>

namespace routing_agent {

namespace {

using Item = watch_sbfd_echo_session_status_msg;
using Sessions = SbfdMonitor::Sessions;

// A watch holds its stream for as long as its client likes; this many are enough for a device.
constexpr std::size_t kMaxWatches = 16384;

constexpr std::size_t kMaxSessions = 4096;

constexpr int kItemsPerBulk = 256;

// What a session's watcher is sent; none for a mark.
std::optional<Item> itemOf(const Sessions::Item& news) {
  if (news.kind() == rpc::News::value) return news.value();
  if (news.kind() != rpc::News::removal) return std::nullopt;
  Item item;
  item.mutable_session_key()->ParseFromString(news.key());
  item.mutable_status()->set_status(sbfd_echo_session_oper_status_msg::ADMIN_DOWN);
  return item;
}

// The next item of a watch that is in sync: what is new, in bulk where it is more than one thing.
std::optional<Item> nextOf(Sessions::Watcher& statuses, std::optional<Sessions::Watcher>& times) {
  Item bulk;
  while (bulk.bulk_size() < kItemsPerBulk) {
    const auto news = statuses.next();
    if (!news) break;
    if (auto item = itemOf(*news)) *bulk.add_bulk() = *std::move(item);
  }
  while (times && bulk.bulk_size() < kItemsPerBulk) {
    const auto news = times->next();
    if (!news) break;
    if (news->kind() == rpc::News::value) *bulk.add_bulk() = news->value();
  }
  if (bulk.bulk_size() == 0) return std::nullopt;
  return bulk.bulk_size() == 1 ? bulk.bulk(0) : bulk;
}

}  // namespace

SbfdService::SbfdService(const Workings& workings, SbfdMonitor& monitor)
    : AgentService("Sbfd", workings), monitor_(monitor) {
  tables_.sessions.forEach(
      [this](const std::string&, const sbfd_echo_session_msg& session) { monitor_.set(session); });
  method(&Async::RequestSetSession,
         [this](grpc::ServerContext& context, const sbfd_echo_session_msg& session,
                rpc_status_msg&) { return set(context, session); });
  method(&Async::RequestGetSessions,
         [this](rpc::Writer<sessions_msg>& writer, const get_msg& request) {
           return list(writer, request);
         });
  method(&Async::RequestWatchSessions,
         [this](rpc::Writer<Item>& watcher, const watch_sbfd_echo_session_config_msg& config) {
           return watch(watcher, config);
         },
         {.limit = kMaxWatches});
}

grpc::Status SbfdService::set(grpc::ServerContext& context, const sbfd_echo_session_msg& session) {
  const auto& named = session.session_key();
  VornSdkRpc::noteOperation(context, operationOf(session),
                            named.outgoing_interface() + " " + toString(named.nexthop()));
  const std::string key = named.SerializeAsString();
  if (!session.request_delete() && sessions_.size() >= kMaxSessions && !sessions_.contains(key))
    return {grpc::StatusCode::RESOURCE_EXHAUSTED, "there are 4096 sessions already"};
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): std::function frees it
  return change(context, session, sessions_, key, session.request_delete(), "session of this key",
                [this, key, session] {
                  if (session.request_delete()) {
                    tables_.sessions.remove(key);
                  } else {
                    tables_.sessions.set(key, session);
                  }
                  monitor_.set(session);
                });
}

session_state_msg SbfdService::stateOf(const std::string& id, sbfd_echo_session_msg session) const {
  session_state_msg state;
  const auto item = monitor_.statuses().find(id);
  if (item) *state.mutable_status() = item->status();
  auto details = monitor_.details(session.session_key());
  state.set_simulated(monitor_.simulated());
  state.set_reason(std::move(details.trouble));
  *state.mutable_rtt() = std::move(details.rtt);
  *state.mutable_session() = std::move(session);
  return state;
}

// Those that failed are those that are not up.
rpc::Task<> SbfdService::list(rpc::Writer<sessions_msg>& writer, const get_msg& request) const {
  std::optional<std::string> last;
  for (;;) {
    auto items = tables_.sessions.part(last);
    sessions_msg part;
    for (auto& [id, session] : items) {
      auto state = stateOf(id, std::move(session));
      if (request.failed() && state.status().status() == sbfd_echo_session_oper_status_msg::UP)
        continue;
      *part.add_session() = std::move(state);
    }
    if (!co_await writer.write(part)) co_return grpc::Status::CANCELLED;
    if (items.empty()) co_return grpc::Status::OK;
    last = std::move(items.back().first);
  }
}

rpc::Task<> SbfdService::watch(rpc::Writer<Item>& watcher,
                               const watch_sbfd_echo_session_config_msg& config) {
  traceArrival(config);
  VornSdkRpc::noteOperation(watcher.context(), "watch", "sessions");
  rpc::Event news;
  Sessions::Watcher statuses(monitor_.statuses(), news);
  std::optional<Sessions::Watcher> times;
  if (config.request_rtt_updates())
    times.emplace(monitor_.roundTripTimes(), news, rpc::WatchOptions{.updatesOnly = true});

  // NOLINTNEXTLINE(bugprone-unchecked-optional-access): `synced` comes before there is none
  for (auto first = statuses.next(); first->kind() != rpc::News::synced; first = statuses.next()) {
    const auto item = itemOf(*first);
    if (!item) continue;
    if (!co_await watcher.write(*item)) co_return grpc::Status::CANCELLED;
  }
  Item end;
  end.set_end_of_status_batch(true);
  if (!co_await watcher.write(end)) co_return grpc::Status::CANCELLED;

  do {
    while (const auto item = nextOf(statuses, times)) {
      if (!co_await watcher.write(*item)) co_return grpc::Status::CANCELLED;
    }
  } while (co_await watcher.wait(news));
  co_return watcher.endStatus();
}

}  // namespace routing_agent
