#include "agents/routing/Health.h"

#include <grpcpp/health_check_service_interface.h>
#include <grpcpp/server.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace routing_agent {

Health::Health(std::vector<std::string> services, std::vector<Need> needs)
    : GrpcService("Health"), services_(std::move(services)), needs_(std::move(needs)) {}

void Health::serverStarted() {
  for (const auto& service : services_)
    server()->GetHealthCheckService()->SetServingStatus(service, true);
  looking_ = std::jthread([this, to = server()](const std::stop_token& over) { look(over, *to); });
}

void Health::look(const std::stop_token& over, grpc::Server& server) const {
  constexpr std::chrono::milliseconds kInterval{500};
  std::mutex mutex;
  std::condition_variable_any ended;
  std::unique_lock lock(mutex);
  std::vector<std::string> before;  // services that were not serving
  do {
    std::vector<std::string> now;
    for (const auto& need : needs_)
      if (!need.met()) now.insert(now.end(), need.services.begin(), need.services.end());
    if (now == before) continue;
    auto& health = *server.GetHealthCheckService();
    for (const auto& service : services_)
      health.SetServingStatus(service, std::ranges::find(now, service) == now.end());
    health.SetServingStatus("", now.empty());
    before = std::move(now);
  } while (!ended.wait_for(lock, over, kInterval, [&] { return over.stop_requested(); }));
}

}  // namespace routing_agent
