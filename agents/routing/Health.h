#pragma once

#include <VornSdkRpc/GrpcService.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace routing_agent {

// Something without which some services are of no use.
struct Need {
  std::function<bool()> met;          // called on a thread of Health's own
  std::vector<std::string> services;  // by their full names
};

// What gRPC's health service says of each service by its name, and of the whole: SERVING while all
// that it needs is there, NOT_SERVING otherwise, which is looked at twice a second. From a drain or
// a stop on, the server alone speaks. A service without methods of its own.
class Health : public VornSdkRpc::GrpcService {
 public:
  // `services` is what is told of by name. What the needs refer to outlives the server.
  Health(std::vector<std::string> services, std::vector<Need> needs);

 private:
  void registerWith(grpc::ServerBuilder&) override {}
  void serverStarted() override;
  void drainingChanged() override { looking_ = {}; }
  void stoppingChanged() override { looking_ = {}; }
  void look(const std::stop_token& over, grpc::Server& server) const;

  const std::vector<std::string> services_;
  const std::vector<Need> needs_;
  std::jthread looking_;
};

}  // namespace routing_agent
