// An agent that keeps a table of IP routes and serves it over gRPC: how an agent is put together
// from the library's parts.
#include <Kiv/Trace.h>
#include <VornSdkRpc/GrpcServer.h>
#include <netns/setns.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <thread>

#include "examples/routing_agent/GrpcLog.h"
#include "examples/routing_agent/Options.h"
#include "examples/routing_agent/RouteTable.h"
#include "examples/routing_agent/RoutingService.h"

namespace routing_agent {

namespace {

// Waits for SIGINT or SIGTERM on a thread of its own, and then stops the server. The signals must
// have been blocked before any thread was started, so that no other thread takes them.
class StopOnSignal {
 public:
  explicit StopOnSignal(VornSdkRpc::GrpcServer& server)
      : thread_([this, &server] {
          int signal = 0;
          sigwait(&signals(), &signal);
          server.stop();
        }) {}

  ~StopOnSignal() {
    pthread_kill(thread_.native_handle(), SIGTERM);  // when it was not a signal that ended the run
    thread_.join();
  }

  static void blockSignals() {
    pthread_sigmask(SIG_BLOCK, &signals(), nullptr);
    std::signal(SIGPIPE, SIG_IGN);
  }

 private:
  static const sigset_t& signals() {
    static const sigset_t set = [] {
      sigset_t made;
      sigemptyset(&made);
      sigaddset(&made, SIGINT);
      sigaddset(&made, SIGTERM);
      return made;
    }();
    return set;
  }

  std::thread thread_;
};

// A namespace that can't be entered would end the process in the middle of setup(); it is tried
// here, on a thread that is thrown away.
void checkNamespace(const std::string& name) {
  if (name.empty()) return;
  int error = 0;
  std::thread([&] { error = setnsByName(name.c_str(), CLONE_NEWNET) == 0 ? 0 : errno; }).join();
  if (error)
    throw UsageError("cannot enter network namespace " + name + ": " + std::strerror(error));
}

// gRPC takes over the socket file of a server that still runs; this refuses to.
void checkSocketFile(const std::string& address) {
  if (!address.starts_with("unix:")) return;
  const std::string path = address.substr(address.starts_with("unix://") ? 7 : 5);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (path.size() >= sizeof name.sun_path)
    throw UsageError("the path of " + address + " is too long");
  std::memcpy(name.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool taken = connect(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
  close(fd);
  if (taken) throw UsageError("cannot listen on " + address + ": another server does");
}

void configure(grpc::ServerBuilder& builder) {
  // Two agents on one port would share its calls; a taken port is an error instead.
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  // A stop waits for every connection to close, and one whose peer has stopped reading closes when
  // keepalive gives it up: within a second of the next ping, instead of TCP's quarter of a minute.
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, 10000);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 1000);
}

void setTrace(const std::string& setting) try {
  Kiv::traceSettingIs(setting);
} catch (const std::invalid_argument& error) {
  throw UsageError(error.what());
}

void serve(const Options& options) {
  setTrace(options.trace);
  checkNamespace(options.netns);

  grpc::ServerBuilder builder;
  configure(builder);
  std::vector<int> ports(options.listen.size(), -1);
  for (std::size_t i = 0; i < ports.size(); ++i) {
    checkSocketFile(options.listen[i]);
    builder.AddListeningPort(options.listen[i], grpc::InsecureServerCredentials(), &ports[i]);
  }
  const auto announce = [&] {
    for (std::size_t i = 0; i < ports.size(); ++i) {
      const bool tcp = !options.listen[i].starts_with("unix:");
      std::printf("listening on %s%s\n", options.listen[i].c_str(),
                  tcp ? (" (port " + std::to_string(ports[i]) + ")").c_str() : "");
    }
    std::fflush(stdout);
  };

  RouteTable table;
  VornSdkRpc::ServerProperties properties{options.netns};
  VornSdkRpc::GrpcServer server(builder, {std::make_shared<RoutingService>(table, announce)},
                                properties);
  const StopOnSignal stopOnSignal(server);
  try {
    server.run();
  } catch (const VornSdkRpc::ServerFailedError&) {
    std::string addresses;
    for (const auto& address : options.listen)
      addresses += (addresses.empty() ? "" : ", ") + address;
    const std::string why = lastSystemError();
    throw UsageError("cannot listen on " + addresses + (why.empty() ? "" : ": " + why));
  }
}

}  // namespace

}  // namespace routing_agent

int main(int argc, char** argv) {
  using namespace routing_agent;
  StopOnSignal::blockSignals();
  umask(0077);  // socket files are the agent's own
  grpcLogToTrace();
  try {
    const Options options = parseOptions(argc, argv);
    if (options.help) {
      std::fputs(kHelp, stdout);
      return 0;
    }
    serve(options);
    return 0;
  } catch (const UsageError& error) {
    std::fprintf(stderr, "routing_agent: %s\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "routing_agent: %s\n", error.what());
    return 1;
  }
}
