#include "examples/snippets/Agent.h"

#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <VornSdkRpc/Certificates.h>
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/InsecureCredentials.h>
#include <VornSdkRpc/InstallAccounting.h>
#include <VornSdkRpc/Listener.h>
#include <VornSdkRpc/NamespaceCheck.h>
#include <VornSdkRpc/PolicyGuard.h>
#include <VornSdkRpc/ServerArguments.h>
#include <VornSdkRpc/StopOnSignal.h>
#include <VornSdkRpc/Utils.h>
#include <spdlog/sinks/rotating_file_sink.h>

#define ASIO_STANDALONE
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "examples/snippets/ChangeService.h"
#include "examples/snippets/NapService.h"
#include "examples/snippets/SessionService.h"
#include "examples/snippets/UserOfConnection.h"

namespace snippets {
namespace {

// [builder]
void configure(grpc::ServerBuilder& builder, const std::string& address) {
  const auto credentials = grpc::experimental::LocalServerCredentials(UDS);
  credentials->SetAuthMetadataProcessor(std::make_shared<UserOfConnection>());
  builder.AddListeningPort(address, credentials);
  VornSdkRpc::installArguments(builder, {.maxConcurrentStreams = 500});
}
// [builder]

// [policy]
void listenGuarded(grpc::ServerBuilder& builder, const std::string& address,
                   const VornSdkRpc::PolicyFile& policy) {
  const auto identity = std::make_shared<UserOfConnection>();
  builder.AddListeningPort(
      address, VornSdkRpc::insecureServerCredentials(policyProcessor(policy.guard(), identity)));
}
// [policy]

// [certificates]
VornSdkRpc::CertificateFiles certificateFiles(const std::string& folder) {
  return {.certificate = folder + "/cert.pem",
          .key = folder + "/key.pem",
          .authorities = folder + "/ca.pem",
          .revoked = ""};
}

void listenWithTls(grpc::ServerBuilder& builder, const std::string& address,
                   const VornSdkRpc::Certificates& certificates,
                   const VornSdkRpc::PolicyFile& policy) {
  builder.AddListeningPort(address, certificates.credentials(policyProcessor(policy.guard())));
}
// [certificates]

void logToFile() {
  // [log]
  Kiv::platformLogger().sinks() = {
      std::make_shared<spdlog::sinks::rotating_file_sink_mt>("agent.log", 1 << 20, 5)};
  // [log]
}

// One that is its authority's as well.
void makeCertificate(const std::string& folder) {
  const std::string command = "cd " + folder +
                              " && openssl req -x509 -newkey ec -pkeyopt "
                              "ec_paramgen_curve:prime256v1 -nodes -subj /CN=agent -keyout key.pem "
                              "-out cert.pem 2>openssl.log && cp cert.pem ca.pem";
  if (std::system(command.c_str()) != 0) throw std::runtime_error("openssl made no certificate");
}

void writePolicy() {
  std::ofstream("policy.json") << R"({"name": "routes only", "allow_rules": [
    {"name": "routes", "request": {"paths": ["/snippets.Routes/*"]}}]})";
}

void account(grpc::ServerBuilder& builder) {
  // [accounting]
  VornSdkRpc::installAccounting(builder);
  // [accounting]
}

void serveInSteps(VornSdkRpc::GrpcServer& server, const std::function<void()>& client) {
  // [steps]
  server.setup();
  // [steps]
  const std::jthread calling(client);
  // [steps]
  while (!server.stopRequested())
    server.dequeue();
  server.teardown();
  // [steps]
}

void serveUntilSignal(VornSdkRpc::GrpcServer& server, const std::function<void()>& client) {
  using namespace std::chrono_literals;
  // [signals]
  const VornSdkRpc::StopOnSignal stopOnSignal(server, 2s);
  // [signals]
  serveInSteps(server, client);
}

}  // namespace

Options parse(int argc, char** argv) {
  // [options]
  auto arguments = VornSdkRpc::argv::vectorize(argc, argv);
  const auto netns = VornSdkRpc::argv::getOptionValue(arguments, "--netns", "");
  const auto trace = VornSdkRpc::argv::getOptionValue(arguments, "--trace", "*/0");
  if (arguments.size() != 2) throw vorn::invalid_argument_error("one socket file, please", "argv");
  Kiv::traceSettingIs(trace);
  // [options]
  return {std::string(netns), std::string(arguments[1])};
}

void serve(const Options& options, RouteTable& table, const std::function<void()>& client) {
  const std::string& netns = options.netns;
  // [namespace]
  VornSdkRpc::checkNamespace(std::string(netns));
  // [namespace]
  logToFile();
  writePolicy();
  const VornSdkRpc::PolicyFile policy("policy.json");
  const std::string address = "unix:" + options.socket;
  grpc::ServerBuilder builder;
  configure(builder, address);
  listenGuarded(builder, address + ".guarded", policy);
  makeCertificate(".");
  const VornSdkRpc::Certificates certificates(certificateFiles("."));
  listenWithTls(builder, address + ".tls", certificates, policy);
  account(builder);
  // [executors]
  asio::thread_pool pool(2);
  const auto onPool = [&pool](auto work) { asio::post(pool, std::move(work)); };
  std::vector<std::jthread> threads;
  const auto onThread = [&threads](auto work) { threads.emplace_back(std::move(work)); };
  // [executors]
  // [serve]
  VornSdkRpc::ServerProperties properties{std::string(netns)};
  // [serve]
  // [listener]
  const auto listener = std::make_shared<VornSdkRpc::Listener>(builder, properties);
  listener->connectionsPerPeerIs(100);
  listener->floodLimitsAre({.abandonedCalls = 2000, .bytesWithoutMessage = 4 << 20});
  listener->add(address + ".limited", grpc::InsecureServerCredentials());
  // [listener]
  // [local]
  listener->addLocal(address + ".proven", policyProcessor(policy.guard()));
  // [local]
  // [serve]
  VornSdkRpc::GrpcServer server(
      builder,
      {std::make_shared<RouteService>(table, onPool, onThread), std::make_shared<NapService>(),
       std::make_shared<ChangeService>(table), std::make_shared<SessionService>()},
      properties, true);
  // [serve]
  // [listening]
  server.listenerIs(listener);
  // [listening]
  serveUntilSignal(server, client);
}

}  // namespace snippets
