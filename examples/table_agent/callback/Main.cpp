#include <csignal>
#include <thread>

#include "examples/table_agent/callback/CallbackTable.h"

// Serves a table on a loopback port until SIGINT or SIGTERM; calls in progress then have two
// seconds.
int main() {  // NOLINT(bugprone-exception-escape): it ends the example
  // [main]
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before there is any other thread
  table_agent::CallbackTable table;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:50053", grpc::InsecureServerCredentials());
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, 10000);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 1000);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  builder.AddChannelArgument(GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS, 10000);
  builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, 1000);
  builder.SetMaxReceiveMessageSize(1 << 20);
  builder.RegisterService(&table);
  const auto server = builder.BuildAndStart();
  if (!server) return 1;
  std::thread stopper([&] {
    int signal = 0;
    sigwait(&signals, &signal);
    table.drain();
    server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(2));
  });
  server->Wait();
  stopper.join();
  // [main]
}
