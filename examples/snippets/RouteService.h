#pragma once

#include <VornSdkRpc/CallNote.h>
#include <VornSdkRpc/Conversions.h>
#include <VornSdkRpc/MessagePrinters.h>
#include <VornSdkRpc/PeerInfo.h>
#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpc/RpcEvents.h>
#include <VornSdkRpc/RpcOffload.h>
#include <VornSdkRpc/RpcPublished.h>

#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "examples/snippets/Snippets.grpc.pb.h"

// The guide's service on the kit. What stands between two lines of a name in brackets is quoted.
namespace snippets {

using namespace VornSdkRpc::pb;
namespace rpc = VornSdkRpc::rpc;

// Routes in the order in which they were set. Any thread.
class RouteTable {
 public:
  // [telling]
  void add(const ip_route_msg& route) {
    {
      const std::lock_guard lock(mutex_);
      routes_.push_back(route);
    }
    changed.set();
  }

  rpc::Events changed;
  // [telling]

  std::uint32_t size() const {
    const std::lock_guard lock(mutex_);
    return static_cast<std::uint32_t>(routes_.size());
  }

  // [published]
  using Published = rpc::Published<std::string, ip_route_msg>;

  void set(const ip_route_msg& route) { byPrefix.set(route.prefix().SerializeAsString(), route); }
  void remove(const ip_prefix_msg& prefix) { byPrefix.remove(prefix.SerializeAsString()); }

  Published byPrefix;
  // [published]

  std::vector<ip_route_msg> after(std::size_t seen) const {
    const std::lock_guard lock(mutex_);
    return {routes_.begin() + static_cast<std::ptrdiff_t>(seen), routes_.end()};
  }

 private:
  mutable std::mutex mutex_;
  std::vector<ip_route_msg> routes_;
};

using Executor = std::function<void(rpc::Job)>;

// [kit]
class RouteService : public rpc::Service<Routes> {
 public:
  RouteService(RouteTable& table, Executor onPool, Executor onThread)
      : Service("Routes"),
        table_(table),
        onPool_(std::move(onPool)),
        onThread_(std::move(onThread)) {
    method(&Async::RequestSet,
           [this](const ip_route_msg& route, rpc_status_msg&) { return set(route); });
    method(&Async::RequestAwait, [this](rpc::Call& call, const count_msg& wanted,
                                        count_msg& reply) { return await(call, wanted, reply); });
    method(&Async::RequestLoad, [this](rpc::Reader<ip_route_msg>& routes, count_msg& count) {
      return load(routes, count);
    });
    method(&Async::RequestWatch,
           [this](rpc::Writer<ip_route_msg>& watcher, const count_msg&) { return watch(watcher); },
           {.limit = 100});
    method(&Async::RequestFollow,
           [this](rpc::Writer<news_msg>& follower, const version_msg& version) {
             return follow(follower, version);
           });
    method(&Async::RequestSave, [this](rpc::Call& call, const file_msg& file, count_msg& count) {
      return save(call, file, count);
    });
    method(&Async::RequestEcho,
           [this](rpc::ReaderWriter<ip_route_msg, ip_route_msg>& talk) { return echo(talk); });
  }
  // [kit]

 private:
  // [unary]
  grpc::Status set(const ip_route_msg& route) {
    check(route);
    table_.add(route);
    return grpc::Status::OK;
  }
  // [unary]

  // [throwing]
  static void check(const ip_route_msg& route) {
    const auto prefix = VornSdkRpc::ipPrefixToPrefix(route.prefix());
    if (prefix == vorn::ip_prefix_t())
      throw vorn::invalid_argument_error("prefix.addr is not 4 or 16 bytes", "prefix.addr");
    const std::uint32_t longest = prefix.address().af() == vorn::af_t::ipv4 ? 32 : 128;
    if (route.prefix().mask_length() > longest)
      throw vorn::invalid_range_error("prefix.mask_length is too large", "prefix.mask_length",
                                      route.prefix().mask_length());
  }
  // [throwing]

  // [waiting]
  rpc::Task<> await(rpc::Call& call, const count_msg& wanted, count_msg& reply) {
    using namespace std::chrono_literals;
    reply.set_count(wanted.count());
    while (table_.after(0).size() < wanted.count()) {
      if (!co_await call.wait(10ms)) co_return grpc::Status::CANCELLED;
    }
    co_return grpc::Status::OK;
  }
  // [waiting]

  // [reading]
  rpc::Task<> load(rpc::Reader<ip_route_msg>& routes, count_msg& count) {
    ip_route_msg route;
    while (co_await routes.read(route)) {
      check(route);
      table_.add(route);
      count.set_count(count.count() + 1);
    }
    VornSdkRpc::noteOperation(routes.context(), "load", "routes", count.count());
    if (routes.cancelled()) co_return grpc::Status::CANCELLED;
    co_return grpc::Status::OK;
  }
  // [reading]

  // [writing]
  rpc::Task<> watch(rpc::Writer<ip_route_msg>& watcher) {
    rpc::Event news;
    const rpc::Events::Subscription subscription(table_.changed, news);
    std::size_t seen = 0;
    do {
      for (const auto& route : table_.after(seen)) {
        if (!co_await watcher.write(route)) co_return grpc::Status::CANCELLED;
        ++seen;
      }
    } while (co_await watcher.wait(news));
    co_return watcher.endStatus();
  }
  // [writing]

  // [both]
  rpc::Task<> echo(rpc::ReaderWriter<ip_route_msg, ip_route_msg>& talk) {
    ip_route_msg route;
    while (co_await talk.read(route)) {
      if (!co_await talk.write(normalised(route))) break;
    }
    co_return grpc::Status::OK;
  }
  // [both]

  // [follow]
  rpc::Task<> follow(rpc::Writer<news_msg>& follower, const version_msg& from) {
    rpc::Event news;
    RouteTable::Published::Watcher routes(table_.byPrefix, news,
                                          {.resume = {{from.run(), from.number()}}});
    do {
      while (const auto item = routes.next()) {
        const news_msg message = messageOf(*item);
        if (!co_await follower.write(message)) co_return grpc::Status::CANCELLED;
      }
    } while (co_await follower.wait(news));
    co_return follower.endStatus();
  }
  // [follow]

  // [news]
  static news_msg messageOf(const RouteTable::Published::Item& item) {
    news_msg message;
    switch (item.kind()) {
      case rpc::News::snapshot:
        message.set_snapshot(true);
        break;
      case rpc::News::value:
        *message.mutable_route() = item.value();
        break;
      case rpc::News::removal:
        message.mutable_removed()->ParseFromString(item.key());
        break;
      case rpc::News::synced:
        message.set_synced(true);
        break;
    }
    message.set_folded(item.folded());
    message.mutable_version()->set_run(item.version().run);
    message.mutable_version()->set_number(item.version().number);
    return message;
  }
  // [news]

  // [offload]
  rpc::Task<> save(rpc::Call& call, const file_msg& file, count_msg& count) {
    auto work = [name = file.name(), routes = table_.after(0)] { return write(name, routes); };
    const auto written = co_await rpc::offload(call, file.apart() ? onThread_ : onPool_, work);
    if (!written) co_return grpc::Status::CANCELLED;
    count.set_count(*written);
    co_return grpc::Status::OK;
  }
  // [offload]

  static std::uint32_t write(const std::string& name, const std::vector<ip_route_msg>& routes) {
    std::ofstream file(name);
    for (const auto& route : routes)
      file << route << "\n";
    if (!file.flush()) throw vorn::configuration_error("cannot write " + name);
    return static_cast<std::uint32_t>(routes.size());
  }

  // [convert]
  ip_route_msg normalised(const ip_route_msg& route) const {
    const vorn::ip_prefix_t prefix = VornSdkRpc::ipPrefixToPrefix(route.prefix());
    ip_route_msg result = route;
    result.mutable_prefix()->set_mask_length(prefix.length());
    if (tracer_.enabled(8)) tracer_.trace8("read %s", toString(result).c_str());
    return result;
  }
  // [convert]

  RouteTable& table_;
  const Executor onPool_, onThread_;
};

}  // namespace snippets
