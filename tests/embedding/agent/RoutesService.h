#pragma once

#include <VornSdkRpc/Rpc.h>

#include "Agent.grpc.pb.h"

namespace embedding {

namespace pb = VornSdkRpc::pb;

class RoutesService : public VornSdkRpc::rpc::Service<Routes> {
 public:
  RoutesService() : Service("Routes") {
    method(&Async::RequestFind, [](const name_msg& wanted, pb::ip_route_msg& route) {
      route.set_nexthop_group(wanted.name());
      return grpc::Status::OK;
    });
  }
};

}  // namespace embedding
