// What it takes to wake a call that waits: from the news on one thread to the item that its client
// has read, over an in-process channel. The kit's event stands beside a queue whose call is woken
// by an alarm, as it is by hand and by the libraries that put coroutines onto a queue, and beside
// the callback API, where the thread that has the news writes the item itself. Then what a
// published table holds when a million things change and its client has stopped reading, and what a
// drain costs that a call holds up for its whole grace. Figures of wake-ups and of the drain are
// processor time of the whole process, client and server.
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpc/RpcPublished.h>
#include <benchmark/benchmark.h>
#include <grpcpp/alarm.h>
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Bench.grpc.pb.h"

namespace {

namespace rpc = VornSdkRpc::rpc;
using bench::Bench;
using bench::Item;
using bench::Order;

void waitUntil(const std::function<bool()>& holds) {
  while (!holds())
    std::this_thread::yield();
}

// ------------------------------------------------------------------------------------------------
// The kit

// A service on a thread of its own.
class Served {
 public:
  explicit Served(std::shared_ptr<VornSdkRpc::GrpcService> service)
      : server_(builder_, {std::move(service)}, properties_) {
    builder_.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
    thread_ = std::thread([this] {
      server_.setup();
      ready_.set_value();
      while (!server_.stopRequested())
        server_.dequeue();
      server_.teardown();
    });
    ready_.get_future().wait();
  }
  ~Served() {
    server_.stop();
    if (thread_.joinable()) thread_.join();
  }
  Served(const Served&) = delete;
  Served& operator=(const Served&) = delete;

  std::shared_ptr<grpc::Channel> channel() { return server_.server()->InProcessChannel({}); }

  // One that a drain does not close.
  std::shared_ptr<grpc::Channel> connection() const {
    return grpc::CreateChannel("127.0.0.1:" + std::to_string(port_),
                               grpc::InsecureChannelCredentials());
  }

  // Returns when the server has stopped.
  void drain(std::chrono::milliseconds grace) {
    server_.stop(grace);
    thread_.join();
  }

 private:
  int port_ = 0;
  grpc::ServerBuilder builder_;
  VornSdkRpc::ServerProperties properties_;
  VornSdkRpc::GrpcServer server_;
  std::promise<void> ready_;
  std::thread thread_;
};

class Kit {
 public:
  std::shared_ptr<grpc::Channel> channel() { return served_.channel(); }
  bool holds() const { return service_->news.subscriptions() == 1; }
  void wake() { service_->news.set(); }

 private:
  struct Service : rpc::Service<Bench> {
    Service() : rpc::Service<Bench>("Wake") {
      method(&Async::RequestHold, [this](rpc::Writer<Item>& items, const Order&) -> rpc::Task<> {
        rpc::Event event;
        const rpc::Events::Subscription subscription(news, event);
        const Item item;
        while (co_await items.wait(event)) {
          if (!co_await items.write(item)) break;
        }
        co_return grpc::Status::CANCELLED;
      });
    }

    rpc::Events news;
  };

  const std::shared_ptr<Service> service_ = std::make_shared<Service>();
  Served served_{service_};
};

// ------------------------------------------------------------------------------------------------
// The peers

class Alarm {
 public:
  Alarm() {
    grpc::ServerBuilder builder;
    builder.RegisterService(&service_);
    queue_ = builder.AddCompletionQueue();
    server_ = builder.BuildAndStart();
    service_.RequestHold(&context_, &order_, &writer_, queue_.get(), queue_.get(), &held_);
    thread_ = std::thread([this] { run(); });
  }
  ~Alarm() {
    server_->Shutdown(std::chrono::system_clock::now());
    queue_->Shutdown();
    thread_.join();
  }
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

  std::shared_ptr<grpc::Channel> channel() { return server_->InProcessChannel({}); }
  bool holds() const { return held_; }
  void wake() { alarm_.Set(queue_.get(), gpr_inf_past(GPR_CLOCK_MONOTONIC), &alarm_); }

 private:
  void run() {
    void* tag = nullptr;
    bool ok = false;
    while (queue_->Next(&tag, &ok)) {
      if (tag == &held_) held_ = ok;
      if (tag == &alarm_ && ok) news_ = true;
      if (tag == &writer_) writing_ = false;
      if (!ok || !news_ || writing_) continue;
      news_ = false;
      writing_ = true;
      writer_.Write(item_, &writer_);
    }
  }

  Bench::AsyncService service_;
  std::unique_ptr<grpc::ServerCompletionQueue> queue_;
  std::unique_ptr<grpc::Server> server_;
  grpc::ServerContext context_;
  Order order_;
  const Item item_;
  grpc::ServerAsyncWriter<Item> writer_{&context_};
  grpc::Alarm alarm_;
  bool news_ = false;
  bool writing_ = false;
  std::atomic<bool> held_ = false;
  std::thread thread_;
};

class CallbackApi {
 public:
  CallbackApi() {
    grpc::ServerBuilder builder;
    builder.RegisterService(&service_);
    server_ = builder.BuildAndStart();
  }
  ~CallbackApi() { server_->Shutdown(std::chrono::system_clock::now()); }
  CallbackApi(const CallbackApi&) = delete;
  CallbackApi& operator=(const CallbackApi&) = delete;

  std::shared_ptr<grpc::Channel> channel() { return server_->InProcessChannel({}); }
  bool holds() const { return service_.held != nullptr; }
  void wake() { service_.held.load()->wake(); }

 private:
  struct Held : grpc::ServerWriteReactor<Item> {
    void wake() {
      const std::lock_guard lock(mutex);
      if (writing) {
        news = true;
      } else {
        writing = true;
        StartWrite(&item);
      }
    }
    void OnWriteDone(bool ok) override {
      const std::lock_guard lock(mutex);
      writing = ok && std::exchange(news, false);
      if (writing) StartWrite(&item);
    }
    void OnCancel() override { Finish(grpc::Status::CANCELLED); }
    void OnDone() override { delete this; }

    const Item item;
    std::mutex mutex;
    bool writing = false;
    bool news = false;
  };
  struct Service : Bench::CallbackService {
    grpc::ServerWriteReactor<Item>* Hold(grpc::CallbackServerContext*, const Order*) override {
      return held = new Held;
    }
    std::atomic<Held*> held = nullptr;
  };

  Service service_;
  std::unique_ptr<grpc::Server> server_;
};

template <typename Subject>
void wake(benchmark::State& state) {
  Subject subject;
  const auto stub = Bench::NewStub(subject.channel());
  grpc::ClientContext context;
  const auto stream = stub->Hold(&context, Order());
  waitUntil([&] { return subject.holds(); });
  Item item;
  for (auto _ : state) {
    subject.wake();
    if (!stream->Read(&item)) state.SkipWithError("the stream has ended");
  }
  context.TryCancel();
  stream->Finish();
}

void BM_Wake_Kit(benchmark::State& state) { wake<Kit>(state); }
void BM_Wake_Alarm(benchmark::State& state) { wake<Alarm>(state); }
void BM_Wake_CallbackApi(benchmark::State& state) { wake<CallbackApi>(state); }
BENCHMARK(BM_Wake_Kit)->MeasureProcessCPUTime();
BENCHMARK(BM_Wake_Alarm)->MeasureProcessCPUTime();
BENCHMARK(BM_Wake_CallbackApi)->MeasureProcessCPUTime();

// ------------------------------------------------------------------------------------------------
// A client that has stopped

// Hold sends what is published in the table.
struct Publishing : rpc::Service<Bench> {
  using Table = rpc::Published<int, Item>;

  Publishing() : rpc::Service<Bench>("Publishing") {
    method(&Async::RequestHold, [this](rpc::Writer<Item>& items, const Order&) -> rpc::Task<> {
      rpc::Event event;
      Table::Watcher watcher(table, event);
      ++held;
      do {
        while (const auto news = watcher.next()) {
          const Item none;
          if (!co_await items.write(news->kind() == rpc::News::value ? news->value() : none))
            co_return grpc::Status::CANCELLED;
        }
      } while (co_await items.wait(event));
      co_return grpc::Status::CANCELLED;
    });
  }

  Table table;
  std::atomic<int> held = 0;
};

std::size_t heapBytes() {
  const auto heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

// One change of a table of 1,000 keys that state.range(0) clients watch without reading. `bytes` is
// what the heap has grown by from the change of every key to the last of a million changes.
void BM_Change_StoppedClients(benchmark::State& state) {
  constexpr int kKeys = 1000, kChanges = 1'000'000;
  const auto service = std::make_shared<Publishing>();
  Served served(service);
  Item item;
  item.set_data(std::string(100, 'x'));
  const auto changeAll = [&](int changes) {
    for (int i = 0; i < changes; ++i)
      service->table.set(i % kKeys, item);
  };
  changeAll(kKeys);
  const auto stub = Bench::NewStub(served.channel());
  std::vector<std::unique_ptr<grpc::ClientContext>> contexts;
  std::vector<std::unique_ptr<grpc::ClientReader<Item>>> streams;
  for (int i = 0; i < state.range(0); ++i)
    streams.push_back(
        stub->Hold(contexts.emplace_back(std::make_unique<grpc::ClientContext>()).get(), Order()));
  waitUntil([&] { return service->held == state.range(0); });
  changeAll(10 * kKeys);
  const std::size_t before = heapBytes();
  for (auto _ : state)
    changeAll(kChanges);
  state.counters["bytes"] = static_cast<double>(heapBytes()) - static_cast<double>(before);
  state.SetItemsProcessed(kChanges);
  for (std::size_t i = 0; i < streams.size(); ++i) {
    contexts[i]->TryCancel();
    streams[i]->Finish();
  }
}
BENCHMARK(BM_Change_StoppedClients)->Arg(0)->Arg(1)->Arg(100)->Iterations(1);

// ------------------------------------------------------------------------------------------------
// A drain

// Hold goes on for longer than any grace.
struct Lasting : rpc::Service<Bench> {
  Lasting() : rpc::Service<Bench>("Lasting") {
    method(&Async::RequestHold, [this](rpc::Writer<Item>& items, const Order&) -> rpc::Task<> {
      held = true;
      co_await items.wait(std::chrono::hours(1));
      co_return items.endStatus();
    });
  }

  std::atomic<bool> held = false;
};

void BM_Drain_2s(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    const auto service = std::make_shared<Lasting>();
    Served served(service);
    grpc::ClientContext context;
    const auto stub = Bench::NewStub(served.connection());
    const auto stream = stub->Hold(&context, Order());
    waitUntil([&] { return service->held.load(); });
    state.ResumeTiming();
    served.drain(std::chrono::seconds(2));
    state.PauseTiming();
    stream->Finish();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_Drain_2s)->MeasureProcessCPUTime()->Iterations(1);

}  // namespace
