// The tutorials at the head of the library's headers, compiled and not run. Each stands between two
// lines of its header's name; a test compares.
#include <Kiv/FileSink.h>
#include <Kiv/Log.h>
#include <Kiv/QueuedSink.h>
#include <Kiv/Trace.h>
#include <VornSdkRpc/CallAccounting.h>
#include <VornSdkRpc/CallJournal.h>
#include <VornSdkRpc/CallJson.h>
#include <VornSdkRpc/CallNote.h>
#include <VornSdkRpc/CallWatch.h>
#include <VornSdkRpc/Certificates.h>
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/InsecureCredentials.h>
#include <VornSdkRpc/Listener.h>
#include <VornSdkRpc/Metrics.h>
#include <VornSdkRpc/PolicyGuard.h>
#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpc/RpcOffload.h>
#include <VornSdkRpc/RpcPublished.h>
#include <VornSdkRpc/Serve.h>
#include <VornSdkRpc/ServerArguments.h>
#include <VornSdkRpc/StopOnSignal.h>
#include <VornSdkRpc/StreamingToolkit.h>
#include <VornSdkRpc/Utils.h>

#define ASIO_STANDALONE
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "examples/snippets/RouteService.h"

namespace headers {

using namespace std::chrono_literals;
using namespace snippets;

using Route = ip_route_msg;

class MyService : public rpc::Service<Routes> {
 public:
  MyService() : Service("My") {}
};

void options(int argc, char** argv) {
  // [Argv]
  auto args = VornSdkRpc::argv::vectorize(argc, argv);
  const auto name = VornSdkRpc::argv::getOptionValue(args, "--name", "agent");
  const bool verbose = VornSdkRpc::argv::isOptionPresent(args, "--verbose");
  // [Argv]
  Kiv::traceSettingIs(std::string(name) + (verbose ? "/8" : "/0"));
}

void recordedCalls(grpc::ServerBuilder& builder,
                   const std::shared_ptr<grpc::ServerCredentials>& credentials,
                   const std::shared_ptr<grpc::AuthMetadataProcessor>& identity) {
  // [CallAccounting]
  VornSdkRpc::CallAccounting accounting;
  accounting.add(VornSdkRpc::accountingLines());
  accounting.add(std::make_unique<VornSdkRpc::CallJsonFile>("/var/log/agent/calls.json"));
  accounting.install(builder);
  credentials->SetAuthMetadataProcessor(accounting.recorded(identity));
  // [CallAccounting]
}

void journal(VornSdkRpc::CallAccounting& accounting) {
  // [CallJournal]
  accounting.add(VornSdkRpc::callJournal());
  // [CallJournal]
}

grpc::Status mayWatch(const grpc::ServerContext&) { return grpc::Status::OK; }

void watchedCalls(grpc::ServerBuilder& builder, VornSdkRpc::ServerProperties& properties,
                  const std::shared_ptr<VornSdkRpc::GrpcService>& routes) {
  // [CallWatch]
  VornSdkRpc::CallAccounting accounting({.log = {.history = 16 << 20}});
  accounting.install(builder);
  const auto watch = VornSdkRpc::callWatchService(accounting.log(), mayWatch);
  VornSdkRpc::GrpcServer server(builder, {routes, watch}, properties);
  // [CallWatch]
}

double size() { return 0; }

void measured(grpc::ServerBuilder& builder, VornSdkRpc::ServerProperties& properties,
              const std::shared_ptr<VornSdkRpc::GrpcService>& routes) {
  // [Metrics]
  VornSdkRpc::CallAccounting accounting;
  VornSdkRpc::Metrics metrics;
  metrics.count(accounting);
  accounting.install(builder);
  VornSdkRpc::GrpcServer server(builder, {routes, metrics.servingThread()}, properties);
  metrics.add("agent_routes", "Routes.", VornSdkRpc::Metrics::gauge, [] { return size(); });
  const VornSdkRpc::MetricsServer scraped(metrics, "127.0.0.1:9464");
  server.run();
  // [Metrics]
}

void noted(const grpc::ServerContext& context, const Route& route) {
  // [CallNote]
  VornSdkRpc::noteOperation(context, "delete", toString(route.prefix()));
  // [CallNote]
}

void rotatedCertificates(grpc::ServerBuilder& builder,
                         const std::shared_ptr<grpc::AuthMetadataProcessor>& identity) {
  // [Certificates]
  const VornSdkRpc::Certificates certificates({.certificate = "/etc/agent/tls/cert.pem",
                                               .key = "/etc/agent/tls/key.pem",
                                               .authorities = "/etc/agent/tls/ca.pem"});
  builder.AddListeningPort("0.0.0.0:50051", certificates.credentials(identity));
  // [Certificates]
}

void runUntilStopped() {
  // [GrpcServer]
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:50051", grpc::InsecureServerCredentials());
  VornSdkRpc::ServerProperties properties;
  VornSdkRpc::GrpcServer server(builder, {std::make_shared<MyService>()}, properties);
  server.run();  // until another thread calls server.stop()
  // [GrpcServer]
}

void guarded(grpc::ServerBuilder& builder,
             const std::shared_ptr<grpc::AuthMetadataProcessor>& identity,
             const grpc::SslServerCredentialsOptions& options) {
  // [PolicyGuard]
  const auto policy = std::make_shared<VornSdkRpc::PolicyFile>("/etc/agent/policy.json");
  builder.AddListeningPort("unix:/run/agent.sock", VornSdkRpc::insecureServerCredentials(
                                                       policyProcessor(policy->guard(), identity)));
  auto tls = grpc::SslServerCredentials(options);
  tls->SetAuthMetadataProcessor(policyProcessor(policy->guard(), identity));
  // [PolicyGuard]
}

void serveUntilSignal() {
  // [Serve]
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:50051", grpc::InsecureServerCredentials());
  VornSdkRpc::serve(builder, {std::make_shared<MyService>()}, {.grace = 2s});
  // [Serve]
}

int listensItself(const std::shared_ptr<grpc::ServerCredentials>& credentials,
                  const std::vector<std::shared_ptr<VornSdkRpc::GrpcService>>& services,
                  VornSdkRpc::ServerProperties& properties) {
  // [Listener]
  grpc::ServerBuilder builder;
  const auto listener = std::make_shared<VornSdkRpc::Listener>(builder, properties);
  const int port = listener->add("[::]:0", credentials);  // instead of AddListeningPort()
  VornSdkRpc::GrpcServer server(builder, services, properties);
  server.listenerIs(listener);
  server.run();
  // [Listener]
  return port;
}

void limitStreams(grpc::ServerBuilder& builder) {
  // [ServerArguments]
  VornSdkRpc::installArguments(builder, {.maxConcurrentStreams = 16384});
  // [ServerArguments]
}

void stopOnSignal(grpc::ServerBuilder& builder, VornSdkRpc::ServerProperties& properties) {
  // [StopOnSignal]
  VornSdkRpc::GrpcServer server(builder, {std::make_shared<MyService>()}, properties);
  const VornSdkRpc::StopOnSignal stopOnSignal(server, 2s);
  server.run();  // returns when a signal has come and what it takes is done
  // [StopOnSignal]
}

namespace kit {

// [Rpc]
namespace rpc = VornSdkRpc::rpc;
using namespace std::chrono_literals;

class RouteService : public rpc::Service<Routes> {
 public:
  explicit RouteService(RouteTable& table) : Service("Routes"), table_(table) {
    // Unary, as a plain function: the fastest, for what is answered at once. It may also take
    // the grpc::ServerContext& first.
    method(&Async::RequestSet, [this](const ip_route_msg& route, rpc_status_msg&) {
      table_.add(route);
      return grpc::Status::OK;
    });

    // Unary, as a coroutine, for what has to wait before it answers.
    method(&Async::RequestAwait,
           [this](rpc::Call& call, const count_msg& wanted, count_msg& count) -> rpc::Task<> {
             while (table_.size() < wanted.count()) {
               if (!co_await call.wait(100ms)) break;
             }
             count.set_count(table_.size());
             co_return grpc::Status::OK;
           });

    // Client streaming: read() returns false at the end of the client's stream.
    method(&Async::RequestLoad,
           [this](rpc::Reader<ip_route_msg>& routes, count_msg& count) -> rpc::Task<> {
             ip_route_msg route;
             while (co_await routes.read(route))
               table_.add(route);
             count.set_count(table_.size());
             co_return grpc::Status::OK;
           });

    // Server streaming: write() returns false once the call is over. One write is outstanding
    // at a time, so a client that reads slowly holds up its own stream and costs one item of
    // memory.
    method(&Async::RequestWatch,
           [this](rpc::Writer<ip_route_msg>& watch, const count_msg&) -> rpc::Task<> {
             rpc::Event news;  // table_.changed.set() by any thread wakes the call
             const rpc::Events::Subscription subscription(table_.changed, news);
             std::uint32_t written = 0;
             do {
               for (auto& route : table_.after(written)) {
                 if (!co_await watch.write(route)) break;
                 ++written;
               }
             } while (co_await watch.wait(news));
             co_return watch.endStatus();
           });
  }

 private:
  RouteTable& table_;
};
// [Rpc]

// [RpcEvents]
rpc::Task<> watch(rpc::Writer<ip_route_msg>& watcher, RouteTable& table) {
  rpc::Event news;
  const rpc::Events::Subscription subscription(table.changed, news);
  std::uint32_t written = 0;
  do {
    for (auto& route : table.after(written)) {
      if (!co_await watcher.write(route)) break;
      ++written;
    }
  } while (co_await watcher.wait(news));
  co_return watcher.endStatus();
}
// [RpcEvents]

grpc::Status silent() { return {grpc::StatusCode::DEADLINE_EXCEEDED, "the client is silent"}; }

void restarting() {
  // [RpcStatus]
  throw rpc::StatusError(grpc::StatusCode::UNAVAILABLE, "the hardware restarts").retryAfter(2s);
  // [RpcStatus]
}

// [RpcCall]
rpc::Task<> follow(rpc::ReaderWriter<ip_route_msg, count_msg>& client, rpc::Event& news) {
  ip_route_msg route;
  count_msg count;
  for (;;) {
    const rpc::Woke woke = co_await client.read(route, news, 3s);  // whichever comes first
    if (!woke) break;  // the end of the client's stream, or of the call
    if (woke == rpc::Woke::time) co_return silent();
    if (woke == rpc::Woke::message) count.set_count(count.count() + 1);
    if (!co_await client.write(count)) break;
  }
  co_return grpc::Status::OK;
}
// [RpcCall]

// [RpcTask]
rpc::Task<int> half(rpc::Call& call, int number);

rpc::Task<int> quarter(rpc::Call& call, int number) {
  const int halved = co_await half(call, number);
  co_return co_await half(call, halved);
}
// [RpcTask]

std::vector<Route> readRoutes(const std::string& name);

// [RpcOffload]
rpc::Task<> load(rpc::Call& call, const file_msg& file, count_msg& count, Executor& executor) {
  auto work = [name = file.name()] { return readRoutes(name); };
  const auto routes = co_await rpc::offload(call, executor, work);
  if (!routes) co_return grpc::Status::CANCELLED;  // the call is over
  count.set_count(routes->size());
  co_return grpc::Status::OK;
}
// [RpcOffload]

void executors(asio::thread_pool& pool, std::vector<std::jthread>& threads) {
  // [RpcOffloadExecutors]
  auto onPool = [&pool](auto work) { asio::post(pool, std::move(work)); };
  auto onThread = [&threads](auto work) { threads.emplace_back(std::move(work)); };
  // [RpcOffloadExecutors]
  static_cast<void>(Executor(onPool));
  static_cast<void>(Executor(onThread));
}

rpc::Task<> atOnce(rpc::Call& call, Executor& executor, int (&one)(), int (&other)()) {
  // [RpcOffloadAtOnce]
  auto first = rpc::offload(call, executor, one);
  auto second = rpc::offload(call, executor, other);
  const auto firstResult = co_await std::move(first);
  // [RpcOffloadAtOnce]
  const auto secondResult = co_await std::move(second);
  co_return firstResult == secondResult ? grpc::Status::OK : grpc::Status::CANCELLED;
}

struct Session {
  bool up;
};
using Update = count_msg;
using WatchRequest = count_msg;
Update toUpdate(const rpc::Published<std::string, Session>::Item& item);

struct Sessions {
  // [RpcPublished]
  rpc::Published<std::string, Session> sessions_;

  void changed(const std::string& name, const Session& session) {  // on any thread
    sessions_.set(name, session);                                  // or sessions_.remove(name)
  }

  rpc::Task<> watch(rpc::Writer<Update>& watch, const WatchRequest&) {
    rpc::Event news;
    rpc::Published<std::string, Session>::Watcher watcher(sessions_, news);
    do {
      while (const auto item = watcher.next()) {
        const Update update = toUpdate(*item);
        if (!co_await watch.write(update)) co_return grpc::Status::CANCELLED;
      }
    } while (co_await watch.wait(news));
    co_return watch.endStatus();
  }
  // [RpcPublished]
};

}  // namespace kit

// [StreamingToolkit]
class RouteBacklog : public VornSdkRpc::BacklogImplBase {
 public:
  explicit RouteBacklog(const Velm::Ptr<Tarsk::TaskScheduler>& scheduler)
      : BacklogImplBase("RouteBacklog", scheduler) {}

  void add(Route route) {  // on any thread
    {
      const std::lock_guard lock(mutex_);
      routes_.push_back(std::move(route));
    }
    wake();
  }

 private:
  void handleBacklog() override {  // on the scheduler's thread
    if (programSome()) wake();     // more is left
  }
  bool programSome();

  std::mutex mutex_;
  std::deque<Route> routes_;
};
// [StreamingToolkit]

// [LogDescriptor]
[[gnu::section(".tolmar_logmsg"), gnu::used, gnu::retain]] Kiv::LogDescriptor restarted = {
    "AGENT_RESTARTED", "agent %s restarted, reason %s", "An agent was restarted", "\x01", 6};
Kiv::LogHandle restartedHandle(&restarted, std::chrono::minutes(1), 1.0, 1, 0);
// [LogDescriptor]

void logs(const std::string& agentName, const std::string& reason) {
  // [Log]
  Kiv::log(restartedHandle, agentName, reason);  // at most once a minute for an agent
  // [Log]
  // [FileSink]
  Kiv::platformLogger().sinks() = {std::make_shared<Kiv::FileSink>("agent.log")};
  // [FileSink]
  // [QueuedSink]
  Kiv::traceLogger().sinks() = {
      std::make_shared<Kiv::QueuedSink>(std::make_shared<Kiv::FileSink>("trace.log"))};
  // [QueuedSink]
}

}  // namespace headers
