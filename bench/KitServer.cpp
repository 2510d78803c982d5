#include <VornSdkRpc/Rpc.h>

#include <chrono>
#include <unordered_set>

#include "bench/Bench.grpc.pb.h"
#include "bench/OnFrame.h"

namespace bench {

namespace {

namespace rpc = VornSdkRpc::rpc;

// Uses the processor for so long.
void toil(std::chrono::microseconds time) {
  if (time == time.zero()) return;
  const auto end = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < end) {
  }
}

class KitService : public rpc::Service<Bench> {
 public:
  KitService(Counts& counts, std::size_t ahead, bool coroutine, std::chrono::microseconds work)
      : Service("Bench"), counts_(counts) {
    const rpc::MethodOptions options{.ahead = ahead};
    if (coroutine) {
      method(
          &Async::RequestSay,
          [work](rpc::Call&, const Item& request, Item& reply) -> rpc::Task<> {
            toil(work);
            reply = request;
            co_return grpc::Status::OK;
          },
          options);
    } else {
      method(
          &Async::RequestSay,
          [work](const Item& request, Item& reply) {
            toil(work);
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
    method(&Async::RequestHold,
           [this](rpc::Writer<Item>& items, const Order&) { return hold(items); });
    method(&Async::RequestPublish,
           [this](const Order& order, Order& reply) { return publish(order, reply); });
  }

 private:
  // An open stream that gets what is published; counted as long as it is one.
  struct Held {
    explicit Held(KitService& owner) : service(owner) {
      service.held_.insert(this);
      ++service.counts_.held;
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held() {
      service.held_.erase(this);
      --service.counts_.held;
    }

    KitService& service;
    rpc::Event news;
    std::shared_ptr<const Item> item;  // to be written; null when the last write is out
  };

  rpc::Task<> hold(rpc::Writer<Item>& items) {
    Held held(*this);
    while (co_await items.wait(held.news)) {
      if (!co_await items.write(*held.item)) break;
      held.item = nullptr;
      ++counts_.written;
    }
    co_return grpc::Status::CANCELLED;
  }

  grpc::Status publish(const Order& order, Order& reply) {
    const auto item = std::make_shared<Item>();
    item->set_data(std::string(order.size(), 'x'));
    for (Held* held : held_) {
      if (held->item) continue;
      held->item = item;
      held->news.set();
      reply.set_count(reply.count() + 1);
    }
    reply.set_size(order.size());
    return grpc::Status::OK;
  }

  Counts& counts_;
  std::unordered_set<Held*> held_;
};

}  // namespace

std::unique_ptr<Server> makeKit(Counts& counts, std::size_t ahead, bool coroutine,
                                std::chrono::microseconds work) {
  return std::make_unique<OnFrame>(counts,
                                   std::make_shared<KitService>(counts, ahead, coroutine, work));
}

}  // namespace bench
