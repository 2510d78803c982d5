// An agent that keeps routing tables and serves them over gRPC: how an agent is put together from
// the library's parts.
#include <Kiv/FileSink.h>
#include <Kiv/Log.h>
#include <Kiv/StderrSink.h>
#include <Kiv/Trace.h>
#include <VornSdkRpc/CallWatch.h>
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/NamespaceCheck.h>
#include <VornSdkRpc/ServerArguments.h>
#include <VornSdkRpc/StopOnSignal.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>
#include <sys/stat.h>
#include <vorn/error.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "agents/routing/Accounting.h"
#include "agents/routing/Backlog.h"
#include "agents/routing/Election.h"
#include "agents/routing/Figures.h"
#include "agents/routing/Health.h"
#include "agents/routing/LogFormat.h"
#include "agents/routing/Options.h"
#include "agents/routing/PolicyService.h"
#include "agents/routing/ReloadOnSignal.h"
#include "agents/routing/RoutingService.h"
#include "agents/routing/SbfdService.h"
#include "agents/routing/Sockets.h"
#include "agents/routing/StateFile.h"
#include "agents/routing/StateService.h"
#include "agents/routing/StatusService.h"
#include "agents/routing/Supervision.h"
#include "agents/routing/Tables.h"

namespace routing_agent {

namespace {

// How long the server may take to end once everything has been cancelled.
constexpr std::chrono::seconds kStopTimeout{30};

// Says where the agent listens, once it does, and tells the service manager of the agent's life: a
// service without methods, the last one to be started.
class Announcement : public VornSdkRpc::GrpcService {
 public:
  Announcement(const std::vector<std::string>& listen, const std::vector<int>& ports,
               std::chrono::milliseconds grace)
      : GrpcService("Announcement"), listen_(listen), ports_(ports), grace_(grace) {}

  void metricsPortIs(int port) { metricsPort_ = port; }

  void supervisionIs(const std::shared_ptr<Supervision>& supervision) {
    supervision_ = supervision;
  }

 private:
  void registerWith(grpc::ServerBuilder&) override {}
  void serverStarted() override {
    for (std::size_t i = 0; i < listen_.size(); ++i) {
      std::printf("listening on %s", listen_[i].c_str());
      if (!listen_[i].starts_with("unix")) std::printf(" (port %d)", ports_[i]);
      std::printf("\n");
    }
    if (metricsPort_ != 0) std::printf("metrics (port %d)\n", metricsPort_);
    std::fflush(stdout);
    if (const auto supervision = supervision_.lock()) supervision->ready();
  }
  void drainingChanged() override { stopsWithin(grace_ + kStopTimeout); }
  void stoppingChanged() override { stopsWithin(kStopTimeout); }

  void stopsWithin(std::chrono::milliseconds time) {
    if (const auto supervision = supervision_.lock()) supervision->stopping(time);
  }

  const std::vector<std::string>& listen_;
  const std::vector<int>& ports_;
  const std::chrono::milliseconds grace_;
  int metricsPort_ = 0;
  std::weak_ptr<Supervision> supervision_;  // which ends before the server that it looks at
};

// Runs a step that follows the user's options: what it throws is what is wrong with them.
template <typename Step>
auto asAsked(Step step) try {
  return step();
} catch (const std::exception& error) {
  throw UsageError(error.what());
}

void applyTrace(const Options& options) {
  asAsked([&] { Kiv::traceSettingIs(options.trace); });
}

// Answers the log's file, null where it goes elsewhere.
std::shared_ptr<Kiv::FileSink> openLog(const Options& options) {
  return asAsked([&]() -> std::shared_ptr<Kiv::FileSink> {
    if (options.log == "-") Kiv::platformLogger().sinks() = {std::make_shared<Kiv::StderrSink>()};
    if (options.log == "-" || options.log.empty()) return nullptr;
    auto file = std::make_shared<Kiv::FileSink>(options.log);
    Kiv::platformLogger().sinks() = {file};
    return file;
  });
}

// Reads again what can be read again while the agent runs.
void reload(const Options& before, const std::function<Options()>& read, Kiv::FileSink* log,
            Accounting* accounting) {
  const vorn::tracer tracer("Agent");
  try {
    const Options now = read();
    applyTrace(now);
    if (now.withoutTrace() != before.withoutTrace())
      tracer.warn("reload: options other than the trace wait for the next start");
    if (log) log->reopen();
    if (accounting) accounting->reopen();
    tracer.trace0("reload: done");
  } catch (const std::exception& error) {
    tracer.error("reload: %s", error.what());
  }
}

std::string statusOf(const Tables& tables, const Backlog& backlog) {
  const auto figures = backlog.figures();
  return std::to_string(tables.routes.size()) + " routes, " + std::to_string(figures.items) +
         " changes wait, " + std::to_string(figures.done) + " done, " +
         std::to_string(figures.failed) + " failed";
}

void checkNetns(const std::string& name) try {
  VornSdkRpc::checkNamespace(name);
} catch (const vorn::configuration_error& error) {
  throw UsageError(error.what());
}

Access accessFor(const IdentityOptions& options) {
  return asAsked([&] { return Access(options); });
}

// Null when no call is to be recorded or counted.
std::unique_ptr<Accounting> accountingFor(const Options& options) {
  if (options.accounting.to.empty() && !options.figures.any()) return nullptr;
  return asAsked([&] { return std::make_unique<Accounting>(options.accounting); });
}

// Null when the agent is to program no kernel.
std::unique_ptr<KernelSync> kernelSync(const Options& options) try {
  if (!options.programKernel) return nullptr;
  return std::make_unique<KernelSync>(
      KernelSync::Settings{options.netns, options.kernelGrace, options.keepRoutes});
} catch (const std::system_error& error) {
  throw UsageError(std::string("cannot program the kernel: ") + error.what());
}

// Null when nothing keeps what clients have set.
std::unique_ptr<StateFile> stateFile(const Options& options, Tables& tables) try {
  if (options.stateFile.empty()) return nullptr;
  return std::make_unique<StateFile>(options.stateFile, tables);
} catch (const StateFile::Error& error) {
  throw UsageError(error.what());
}

// Listens on all the places; returns the ports.
std::vector<int> listen(VornSdkRpc::Listener& listener, const std::vector<Place>& places,
                        const Options& options, const Access& access,
                        VornSdkRpc::CallAccounting* accounting) {
  listener.connectionsPerPeerIs(options.peerConnections);
  listener.floodLimitsAre({.abandonedCalls = 20'000,
                           .bytesWithoutMessage = 4 << 20,
                           .shutOut = std::chrono::seconds(10)});
  std::vector<int> ports;
  ports.reserve(places.size());
  for (const auto& place : places) {
    ports.push_back(
        asAsked([&] { return listen(place, options.sockets, listener, access, accounting); }));
  }
  return ports;
}

std::vector<std::string> addressesOf(const std::vector<Place>& places) {
  std::vector<std::string> addresses;
  addresses.reserve(places.size());
  for (const auto& place : places)
    addresses.push_back(place.address);
  return addresses;
}

void installInterceptors(grpc::ServerBuilder& builder, const Access& access,
                         VornSdkRpc::CallAccounting* accounting) {
  std::vector<std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface>> creators;
  if (access.certificates()) creators.push_back(access.certificates()->interceptors());
  if (accounting) creators.push_back(accounting->interceptors());
  builder.experimental().SetInterceptorCreators(std::move(creators));
}

// The services serve while their changes can be kept, and those of routes reach the kernel.
std::shared_ptr<VornSdkRpc::GrpcService> healthOf(StateFile* file, const KernelSync* kernel) {
  const std::string routing = routing_agent::Routing::service_full_name();
  const std::string sbfd = Sbfd::service_full_name(), state = State::service_full_name();
  std::vector<Need> needs;
  if (file) needs.push_back({[file] { return file->isWritable(); }, {routing, sbfd, state}});
  if (kernel) needs.push_back({[kernel] { return kernel->isReachable(); }, {routing}});
  return std::make_shared<Health>(
      std::vector{routing, sbfd, state, std::string(Policy::service_full_name())},
      std::move(needs));
}

// Serves the records of calls to those who may change something, as far as the policy lets them.
std::shared_ptr<VornSdkRpc::GrpcService> watchService(const VornSdkRpc::CallAccounting& calls,
                                                      const std::vector<std::string>& listen) {
  return VornSdkRpc::callWatchService(calls.log(), [&listen](const grpc::ServerContext& context) {
    return mayChange(context, listen)
               ? grpc::Status::OK
               : grpc::Status(grpc::StatusCode::PERMISSION_DENIED,
                              "only local and authenticated peers may watch the accounting");
  });
}

// Whether the agent could start like this, as far as it can be told without a trace of it left.
void check(const Options& options) {
  applyTrace(options);
  checkNetns(options.netns);
  accessFor(options.identity);
}

void serve(const Options& options, const std::function<Options()>& readAgain) {
  applyTrace(options);
  const auto log = openLog(options);
  logFormatIs(options.logFormat, options.log == "-");
  checkNetns(options.netns);

  // gRPC's standard services, for tools that ask any server for its health and its methods.
  grpc::EnableDefaultHealthCheckService(true);
  grpc::reflection::InitProtoReflectionServerBuilderPlugin();

  const Access access = accessFor(options.identity);
  const auto accounting = accountingFor(options);
  auto* const calls = accounting ? &accounting->calls() : nullptr;
  VornSdkRpc::Metrics metrics;
  if (calls && options.figures.any()) metrics.count(*calls);
  grpc::ServerBuilder builder;
  VornSdkRpc::installArguments(builder, {.keepaliveTime = options.keepalive,
                                         .handshakeTimeout = options.keepalive,
                                         .maxConcurrentStreams = 16384});
  installInterceptors(builder, access, calls);
  VornSdkRpc::ServerProperties properties{options.netns};
  const auto listener = std::make_shared<VornSdkRpc::Listener>(builder, properties);
  const auto places = asAsked([&] { return placesOf(options); });
  const auto addresses = addressesOf(places);
  const auto ports = listen(*listener, places, options, access, calls);

  Tables tables;
  const auto file = stateFile(options, tables);
  const auto kernel = kernelSync(options);
  SbfdMonitor monitor(
      options.netns,
      [&kernel](const sbfd_echo_session_key_msg& key, bool down) {
        if (kernel) kernel->sessionIsDown(key, down);
      },
      kernel ? SbfdMonitor::kPackets : SbfdMonitor::kSimulated);
  Election election(file.get());
  Backlog backlog(options.stepTime, options.backlogMib << 20,
                  metrics.addDurations("routing_agent_backlog_step_seconds",
                                       "How long steps of the backlog have taken."));
  const auto announcement = std::make_shared<Announcement>(addresses, ports, options.grace);
  const Workings workings{tables, backlog, election, addresses, file.get(), options.tableMib << 20};
  std::vector<std::shared_ptr<VornSdkRpc::GrpcService>> services{
      std::make_shared<RoutingService>(workings, kernel.get()),
      std::make_shared<SbfdService>(workings, monitor), std::make_shared<StateService>(workings),
      std::make_shared<PolicyService>(access.policy(), access.certificates()),
      std::make_shared<StatusService>(
          StatusSources{tables, backlog, election, kernel.get(), access, accounting.get()})};
  if (calls && !options.accounting.to.empty()) services.push_back(watchService(*calls, addresses));
  if (options.figures.any()) services.push_back(metrics.servingThread());
  services.push_back(healthOf(file.get(), kernel.get()));
  services.push_back(announcement);
  VornSdkRpc::GrpcServer server(builder, std::move(services), properties, calls != nullptr);
  const auto supervision = std::make_shared<Supervision>(
      [&tables, &backlog] { return statusOf(tables, backlog); },
      std::vector<Moving>{
          {"serving thread", [&server] { return server.turns(); }, [] { return false; }},
          {"backlog", [&backlog] { return backlog.figures().done; },
           [&backlog] { return backlog.figures().items == 0; }}});
  addFigures(metrics, {tables, backlog, kernel.get(), *listener, access});
  const auto figures = asAsked([&] { return Figures(metrics, options.figures); });
  announcement->metricsPortIs(figures.port());
  announcement->supervisionIs(supervision);
  server.listenerIs(listener);
  server.clientsTakeTurnsIs(true);
  server.stopTimeoutIs(kStopTimeout);
  const StopBacklog stopBacklog(backlog);  // before the services go that its changes refer to
  const VornSdkRpc::StopOnSignal stopOnSignal(server, options.grace);
  const ReloadOnSignal reloadOnSignal([&] {
    supervision->reloading();
    reload(options, readAgain, log.get(), accounting.get());
    supervision->ready();
  });
  server.run();
}

}  // namespace

}  // namespace routing_agent

int main(int argc, char** argv) {
  using namespace routing_agent;
  VornSdkRpc::StopOnSignal::holdSignals();
  ReloadOnSignal::holdSignal();
  std::signal(SIGPIPE, SIG_IGN);
  umask(0177);  // files are the agent's own, mode 0600; --socket-mode opens its sockets to others
  try {
    const Options options = parseOptions(argc, argv);
    if (options.help || options.version) {
      std::fputs((options.help ? help() : version()).c_str(), stdout);
      return 0;
    }
    if (options.checkConfig) {
      check(options);
    } else {
      serve(options, [&] { return parseOptions(argc, argv); });
    }
    return 0;
  } catch (const UsageError& error) {
    std::fprintf(stderr, "routing_agent: %s\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "routing_agent: %s\n", error.what());
    return 1;
  }
}
