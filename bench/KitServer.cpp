#include <VornSdkRpc/Rpc.h>

#include "bench/Bench.grpc.pb.h"
#include "bench/OnFrame.h"

namespace bench {

namespace {

namespace rpc = VornSdkRpc::rpc;

class KitService : public rpc::Service<Bench::AsyncService> {
 public:
  KitService(std::size_t ahead, bool coroutine) : Service("Bench") {
    const rpc::MethodOptions options{.ahead = ahead};
    if (coroutine) {
      method(
          &Async::RequestSay,
          [](rpc::Call&, const Item& request, Item& reply) -> rpc::Task<> {
            reply = request;
            co_return grpc::Status::OK;
          },
          options);
    } else {
      method(
          &Async::RequestSay,
          [](const Item& request, Item& reply) {
            reply = request;
            return grpc::Status::OK;
          },
          options);
    }
    method(&Async::RequestStream, [](rpc::Writer<Item>& items, const Order& order) -> rpc::Task<> {
      Item item;
      item.set_data(std::string(order.size(), 'x'));
      // g++ 12 evaluates a co_await in a loop's condition even where && should have skipped it.
      for (std::uint32_t sent = 0; sent < order.count(); ++sent) {
        if (!co_await items.write(item)) break;
      }
      co_return grpc::Status::OK;
    });
  }
};

}  // namespace

std::unique_ptr<Server> makeKit(Counts& counts, std::size_t ahead, bool coroutine) {
  return std::make_unique<OnFrame>(counts, std::make_shared<KitService>(ahead, coroutine));
}

}  // namespace bench
