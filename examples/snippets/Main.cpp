// What the agent author's guide quotes beside the two services, and a run of all of it: an agent on
// a Unix socket, one call of every kind, and a stop. Exits with 0 when each answered as it should.
//
//   snippets SOCKET-FILE [--netns NAME] [--trace SETTING]    (writes agent.log)
#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <VornSdkRpc/Certificates.h>
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/InsecureCredentials.h>
#include <VornSdkRpc/InstallAccounting.h>
#include <VornSdkRpc/NamespaceCheck.h>
#include <VornSdkRpc/PolicyGuard.h>
#include <VornSdkRpc/ServerArguments.h>
#include <VornSdkRpc/StopOnSignal.h>
#include <VornSdkRpc/StreamingToolkit.h>
#include <VornSdkRpc/Utils.h>
#include <grpcpp/security/auth_metadata_processor.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <unistd.h>

#define ASIO_STANDALONE
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <csignal>
#include <deque>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <vector>

#include "examples/snippets/NapService.h"
#include "examples/snippets/RouteService.h"

namespace snippets {
namespace {

using namespace std::chrono_literals;

// [identity]
class UserOfConnection : public grpc::AuthMetadataProcessor {
 public:
  bool IsBlocking() const override { return false; }

  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                       OutputMetadata*, OutputMetadata*) override {
    const std::lock_guard lock(mutex_);  // calls of one connection come on several threads
    const auto claim = metadata.find("username");
    const std::string user =
        "local:" + (claim == metadata.end()
                        ? std::string("nobody")
                        : std::string(claim->second.data(), claim->second.size()));
    const auto known = connection->FindPropertyValues("peer-authenticated");
    if (known.empty()) {
      connection->AddProperty("peer-authenticated", user);
      connection->AddProperty("session-id", "session-" + std::to_string(++sessions_));
    } else if (user != std::string(known.front().data(), known.front().size())) {
      return {grpc::StatusCode::UNAUTHENTICATED, "this connection belongs to another user"};
    }
    return grpc::Status::OK;
  }

 private:
  std::mutex mutex_;
  unsigned sessions_ = 0;
};
// [identity]

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

// [backlog]
class RouteBacklog : public VornSdkRpc::BacklogImplBase {
 public:
  RouteBacklog(const Velm::Ptr<Tarsk::TaskScheduler>& scheduler, RouteTable& table)
      : BacklogImplBase("RouteBacklog", scheduler), table_(table) {}

  void add(const ip_route_msg& route) {  // any thread
    {
      const std::lock_guard lock(mutex_);
      waiting_.push_back(route);
    }
    wake();
  }

 private:
  void handleBacklog() override {  // the scheduler's thread
    for (int i = 0; i < 64; ++i) {
      const std::lock_guard lock(mutex_);
      if (waiting_.empty()) return;
      table_.add(waiting_.front());
      waiting_.pop_front();
    }
    wake();  // there may be more: other tasks go first
  }

  RouteTable& table_;
  std::mutex mutex_;
  std::deque<ip_route_msg> waiting_;
};
// [backlog]

// ------------------------------------------------------------------------------------------------
// The run

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(std::string("not as the guide says: ") + what);
}

ip_route_msg route(const std::string& address, std::uint32_t length) {
  ip_route_msg made;
  made.mutable_prefix()->set_addr(address);
  made.mutable_prefix()->set_mask_length(length);
  return made;
}

void callsEverything(grpc::ChannelInterface& channel) {
  const auto shared = std::shared_ptr<grpc::ChannelInterface>(&channel, [](auto*) {});
  const auto routes = Routes::NewStub(shared);
  const std::string address = {10, 0, 0, 0};
  rpc_status_msg reply;
  count_msg count;
  {
    grpc::ClientContext context;
    require(routes->Set(&context, route(address, 8), &reply).ok(), "a route is set");
  }
  for (const auto& [bytes, length] : {std::pair("12345", 8), std::pair("1234", 33)}) {
    grpc::ClientContext context;
    require(routes->Set(&context, route(bytes, static_cast<std::uint32_t>(length)), &reply)
                    .error_code() == grpc::INVALID_ARGUMENT,
            "a bad prefix is refused");
  }
  {
    grpc::ClientContext context;
    const auto writer = routes->Load(&context, &count);
    writer->Write(route(address, 9));
    writer->Write(route(address, 10));
    writer->WritesDone();
    require(writer->Finish().ok() && count.count() == 2, "two routes are loaded");
  }
  {
    grpc::ClientContext context;
    count.set_count(3);
    require(routes->Await(&context, count, &count).ok(), "three routes are awaited");
  }
  {
    grpc::ClientContext watching;
    const auto watch = routes->Watch(&watching, count);
    ip_route_msg seen;
    for (std::uint32_t length : {8U, 9U, 10U})
      require(watch->Read(&seen) && seen.prefix().mask_length() == length, "a route is watched");
    grpc::ClientContext context;
    require(routes->Set(&context, route(address, 11), &reply).ok() && watch->Read(&seen) &&
                seen.prefix().mask_length() == 11,
            "and one that is set meanwhile");
    watching.TryCancel();
    require(watch->Finish().error_code() == grpc::CANCELLED, "until the watch is cancelled");
  }
  file_msg file;
  file.set_name("routes.txt");
  for (const bool apart : {false, true}) {
    grpc::ClientContext context;
    file.set_apart(apart);
    require(routes->Save(&context, file, &count).ok() && count.count() == 4, "routes are saved");
  }
  {
    grpc::ClientContext context;
    file.set_name("no/such/folder");
    require(routes->Save(&context, file, &count).error_code() == grpc::FAILED_PRECONDITION,
            "what the work throws ends the call");
  }
  {
    grpc::ClientContext context;
    const auto talk = routes->Echo(&context);
    ip_route_msg seen;
    require(talk->Write(route(address, 256 + 8)) && talk->Read(&seen) &&
                seen.prefix().mask_length() == 8 && talk->WritesDone() && talk->Finish().ok(),
            "a route is echoed");
  }
  const auto naps = Naps::NewStub(shared);
  nap_msg nap;
  {
    grpc::ClientContext context;
    nap.set_milliseconds(1);
    require(naps->Nap(&context, nap, &nap).ok(), "a nap ends");
  }
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(50));
  nap.set_milliseconds(60 * 60 * 1000);
  require(naps->Nap(&context, nap, &nap).error_code() == grpc::DEADLINE_EXCEEDED,
          "a caller need not wait for the end of one");
}

// The agent's certificate, which is its authority's and its client's as well.
void makeCertificate(const std::string& folder) {
  const std::string command = "cd " + folder +
                              " && openssl req -x509 -newkey ec -pkeyopt "
                              "ec_paramgen_curve:prime256v1 -nodes -subj /CN=agent -keyout key.pem "
                              "-out cert.pem 2>openssl.log && cp cert.pem ca.pem";
  require(std::system(command.c_str()) == 0, "there is openssl");
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void isGuarded(const std::string& address,
               const std::shared_ptr<grpc::ChannelCredentials>& credentials) {
  grpc::ChannelArguments arguments;
  arguments.SetSslTargetNameOverride("agent");
  const auto channel = grpc::CreateCustomChannel(address, credentials, arguments);
  grpc::ClientContext setting, napping;
  rpc_status_msg reply;
  nap_msg nap;
  require(Routes::NewStub(channel)->Set(&setting, route("1234", 32), &reply).ok(),
          "a policy allows what a rule of it matches");
  require(Naps::NewStub(channel)->Nap(&napping, nap, &nap).error_code() == grpc::PERMISSION_DENIED,
          "and nothing else");
}

void drains(RouteTable& table) {
  const Velm::Ptr<Tarsk::TaskScheduler> scheduler(new Tarsk::TaskScheduler("scheduler"));
  RouteBacklog backlog(scheduler, table);
  const std::size_t before = table.after(0).size();
  for (int i = 0; i < 100; ++i)
    backlog.add(route("1234", 32));
  int steps = 0;
  while (scheduler->runOne())
    ++steps;
  require(steps == 2 && table.after(before).size() == 100, "a backlog is drained in two steps");
}

void run(int argc, char** argv) {
  // [options]
  auto arguments = VornSdkRpc::argv::vectorize(argc, argv);
  const auto netns = VornSdkRpc::argv::getOptionValue(arguments, "--netns", "");
  const auto trace = VornSdkRpc::argv::getOptionValue(arguments, "--trace", "*/0");
  if (arguments.size() != 2) throw vorn::invalid_argument_error("one socket file, please", "argv");
  Kiv::traceSettingIs(trace);
  // [options]
  // [namespace]
  VornSdkRpc::checkNamespace(std::string(netns));
  // [namespace]
  const std::string address = std::string("unix:") + arguments[1];
  logToFile();

  RouteTable table;
  grpc::ServerBuilder builder;
  configure(builder, address);
  std::ofstream("policy.json") << R"({"name": "routes only", "allow_rules": [
    {"name": "routes", "request": {"paths": ["/snippets.Routes/*"]}}]})";
  const VornSdkRpc::PolicyFile policy("policy.json");
  listenGuarded(builder, address + ".guarded", policy);
  makeCertificate(".");
  const VornSdkRpc::Certificates certificates(certificateFiles("."));
  listenWithTls(builder, address + ".tls", certificates, policy);
  // [accounting]
  VornSdkRpc::installAccounting(builder);
  // [accounting]
  // [executors]
  asio::thread_pool pool(2);
  const auto onPool = [&pool](auto work) { asio::post(pool, std::move(work)); };
  std::vector<std::jthread> threads;
  const auto onThread = [&threads](auto work) { threads.emplace_back(std::move(work)); };
  // [executors]
  {
    // [serve]
    VornSdkRpc::ServerProperties properties{std::string(netns)};
    VornSdkRpc::GrpcServer server(
        builder,
        {std::make_shared<RouteService>(table, onPool, onThread), std::make_shared<NapService>()},
        properties, true);
    // [serve]
    // [signals]
    const VornSdkRpc::StopOnSignal stopOnSignal(server, 2s);
    // [signals]
    // [steps]
    server.setup();
    // [steps]
    std::thread client([&] {
      const auto channel = grpc::CreateChannel(address, grpc::experimental::LocalCredentials(UDS));
      callsEverything(*channel);
      isGuarded(address + ".guarded", grpc::InsecureChannelCredentials());
      isGuarded(address + ".tls", grpc::SslCredentials({contentOf("ca.pem"), contentOf("key.pem"),
                                                        contentOf("cert.pem")}));
      // A nap that the stop ends.
      grpc::ClientContext context;
      nap_msg nap;
      nap.set_milliseconds(60 * 60 * 1000);
      const auto pending = Naps::NewStub(channel);
      std::thread sleeper([&] {
        require(pending->Nap(&context, nap, &nap).error_code() != grpc::OK, "a stop ends a nap");
      });
      kill(getpid(), SIGTERM);  // drains
      kill(getpid(), SIGINT);   // and stops
      sleeper.join();
    });
    // [steps]
    while (!server.stopRequested())
      server.dequeue();
    server.teardown();
    // [steps]
    client.join();
  }
  drains(table);
}

}  // namespace
}  // namespace snippets

int main(int argc, char** argv) {
  try {
    snippets::run(argc, argv);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
}
