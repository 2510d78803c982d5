#pragma once

#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpc/WorkQueue.h>

#include "examples/snippets/RouteService.h"

namespace snippets {

using VornSdkRpc::WorkQueue;

// Accepts routes, and has them programmed by a thread of its own.
class ChangeService : public rpc::Service<Changes> {
 public:
  explicit ChangeService(RouteTable& table) : Service("Changes"), table_(table) {
    method(&Async::RequestAccept,
           [this](const ip_route_msg& route, rpc_status_msg&) { return accept(route); });
    method(&Async::RequestProgram, [this](rpc::Call& call, const ip_route_msg& route,
                                          rpc_status_msg&) { return program(call, route); });
    method(&Async::RequestLoad, [this](rpc::Reader<ip_route_msg>& routes, count_msg& count) {
      return load(routes, count);
    });
  }

 private:
  static grpc::Status full() {
    return {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many routes wait to be programmed"};
  }

  // [accept]
  grpc::Status accept(const ip_route_msg& route) {
    const bool taken = queue_.add([this, route] { table_.add(route); }, route.SpaceUsedLong());
    return taken ? grpc::Status::OK : full();
  }
  // [accept]

  // [program]
  rpc::Task<> program(rpc::Call& call, const ip_route_msg& route) {
    WorkQueue::Answer answer;
    if (!queue_.add([this, route] { table_.add(route); }, route.SpaceUsedLong(), answer))
      co_return full();
    if (!co_await call.waitThroughDrain(answer.event())) co_return grpc::Status::CANCELLED;
    answer.get();  // throws what the work has thrown
    co_return grpc::Status::OK;
  }
  // [program]

  // [room]
  rpc::Task<> load(rpc::Reader<ip_route_msg>& routes, count_msg& count) {
    rpc::Event room;
    const rpc::Events::Subscription subscription(queue_.room(), room);
    ip_route_msg route;
    while (co_await routes.read(route)) {
      const auto work = [this, route] { table_.add(route); };
      while (!queue_.add(work, route.SpaceUsedLong(), WorkQueue::bulk)) {
        if (!co_await routes.waitThroughDrain(room)) co_return grpc::Status::CANCELLED;
      }
      count.set_count(count.count() + 1);
    }
    co_return routes.cancelled() ? grpc::Status::CANCELLED : grpc::Status::OK;
  }
  // [room]

  // [queue]
  RouteTable& table_;
  WorkQueue queue_{"Changes", {.maxBytes = 16 << 20}};  // the last: what it uses outlives it
  // [queue]
};

}  // namespace snippets
