#include "examples/snippets/Client.h"

#include <grpcpp/grpcpp.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

#include "examples/snippets/Snippets.grpc.pb.h"

namespace snippets {
namespace {

using namespace VornSdkRpc::pb;

const std::string TEN = {10, 0, 0, 0};

ip_route_msg route(const std::string& address, std::uint32_t length) {
  ip_route_msg made;
  made.mutable_prefix()->set_addr(address);
  made.mutable_prefix()->set_mask_length(length);
  return made;
}

grpc::Status set(Routes::Stub& routes, const ip_route_msg& route) {
  grpc::ClientContext context;
  rpc_status_msg reply;
  return routes.Set(&context, route, &reply);
}

void setsRoutes(Routes::Stub& routes) {
  require(set(routes, route(TEN, 8)).ok(), "a route is set");
  for (const auto& bad : {route("12345", 8), route("1234", 33)})
    require(set(routes, bad).error_code() == grpc::INVALID_ARGUMENT, "a bad prefix is refused");
}

void loadsRoutes(Routes::Stub& routes) {
  grpc::ClientContext context;
  count_msg count;
  const auto writer = routes.Load(&context, &count);
  writer->Write(route(TEN, 9));
  writer->Write(route(TEN, 10));
  writer->WritesDone();
  require(writer->Finish().ok() && count.count() == 2, "two routes are loaded");
}

void awaitsRoutes(Routes::Stub& routes) {
  grpc::ClientContext context;
  count_msg count;
  count.set_count(3);
  require(routes.Await(&context, count, &count).ok(), "three routes are awaited");
}

void watchesRoutes(Routes::Stub& routes) {
  grpc::ClientContext context;
  const auto watch = routes.Watch(&context, count_msg());
  ip_route_msg seen;
  for (std::uint32_t length : {8U, 9U, 10U})
    require(watch->Read(&seen) && seen.prefix().mask_length() == length, "a route is watched");
  require(
      set(routes, route(TEN, 11)).ok() && watch->Read(&seen) && seen.prefix().mask_length() == 11,
      "and one that is set meanwhile");
  context.TryCancel();
  require(watch->Finish().error_code() == grpc::CANCELLED, "until the watch is cancelled");
}

grpc::Status save(Routes::Stub& routes, const std::string& name, bool apart, count_msg& count) {
  grpc::ClientContext context;
  file_msg file;
  file.set_name(name);
  file.set_apart(apart);
  return routes.Save(&context, file, &count);
}

void savesRoutes(Routes::Stub& routes) {
  count_msg count;
  for (const bool apart : {false, true})
    require(save(routes, "routes.txt", apart, count).ok() && count.count() == 4,
            "routes are saved");
  require(save(routes, "no/such/folder", false, count).error_code() == grpc::FAILED_PRECONDITION,
          "what the work throws ends the call");
}

void echoesRoutes(Routes::Stub& routes) {
  grpc::ClientContext context;
  const auto talk = routes.Echo(&context);
  ip_route_msg seen;
  require(talk->Write(route(TEN, 256 + 8)) && talk->Read(&seen) &&
              seen.prefix().mask_length() == 8 && talk->WritesDone() && talk->Finish().ok(),
          "a route is echoed");
}

// Waits for the end of a nap, or until the time to wait has passed.
grpc::Status nap(Naps::Stub& naps, std::chrono::milliseconds length, std::chrono::seconds wait) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + wait);
  nap_msg message;
  message.set_milliseconds(static_cast<std::uint32_t>(length.count()));
  return naps.Nap(&context, message, &message);
}

void naps(Naps::Stub& naps) {
  using namespace std::chrono_literals;
  require(nap(naps, 1ms, 1h).ok(), "a nap ends");
  require(nap(naps, 1h, 1s).error_code() == grpc::DEADLINE_EXCEEDED,
          "a caller need not wait for the end of one");
}

void changesRoutes(Changes::Stub& changes) {
  grpc::ClientContext accepting, loading, programming;
  rpc_status_msg reply;
  count_msg count;
  require(changes.Accept(&accepting, route(TEN, 12), &reply).ok(), "a change is accepted");
  const auto writer = changes.Load(&loading, &count);
  for (int i = 0; i < 100; ++i)
    writer->Write(route(TEN, 13));
  writer->WritesDone();
  require(writer->Finish().ok() && count.count() == 100, "and so are many");
  require(changes.Program(&programming, route(TEN, 14), &reply).ok(), "or waited for");
}

// Programming one change waits for those that were accepted before.
grpc::Status session(Sessions::Stub& sessions, bool named) {
  grpc::ClientContext context;
  if (named) context.AddMetadata("client", "snippets");
  const auto stream = sessions.Session(&context);
  stream->Write(beat_msg());
  stream->WritesDone();
  return stream->Finish();
}

void holdsSessions(Sessions::Stub& sessions) {
  require(session(sessions, false).error_code() == grpc::UNAUTHENTICATED, "admit() refuses");
  require(session(sessions, true).ok(), "a session lasts as long as its client wants");
  grpc::ClientContext describing, pinging;
  notice_msg notice;
  beat_msg beat;
  require(sessions.Describe(&describing, beat, &notice).ok() && !notice.text().empty() &&
              describing.GetServerInitialMetadata().count("schema") == 1 &&
              describing.GetServerTrailingMetadata().count("cost") == 1,
          "metadata come with the answer");
  require(sessions.Ping(&pinging, beat, &beat).ok(), "one RPC is served by hand");
}

void allAreProgrammed(Routes::Stub& routes) {
  grpc::ClientContext context;
  count_msg count;
  file_msg file;
  file.set_name("routes.txt");
  require(routes.Save(&context, file, &count).ok() && count.count() == 4 + 102,
          "changes are programmed in their order");
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
  require(set(*Routes::NewStub(channel), route("1234", 32)).ok(),
          "a policy allows what a rule of it matches");
  require(nap(*Naps::NewStub(channel), {}, std::chrono::hours(1)).error_code() ==
              grpc::PERMISSION_DENIED,
          "and nothing else");
}

void isStopped(Naps::Stub& naps) {
  std::thread sleeper([&] {
    const std::chrono::hours hour(1);
    require(nap(naps, hour, hour).error_code() != grpc::OK, "a stop ends a nap");
  });
  kill(getpid(), SIGTERM);  // drains
  kill(getpid(), SIGINT);   // and stops
  sleeper.join();
}

}  // namespace

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(std::string("not as the guide says: ") + what);
}

void callEverything(const std::string& address) {
  const auto channel = grpc::CreateChannel(address, grpc::experimental::LocalCredentials(UDS));
  const auto routeStub = Routes::NewStub(channel);
  for (auto* calls :
       {setsRoutes, loadsRoutes, awaitsRoutes, watchesRoutes, savesRoutes, echoesRoutes})
    calls(*routeStub);
  changesRoutes(*Changes::NewStub(channel));
  holdsSessions(*Sessions::NewStub(channel));
  allAreProgrammed(*routeStub);
  const auto napStub = Naps::NewStub(channel);
  naps(*napStub);
  isGuarded(address + ".proven", grpc::InsecureChannelCredentials());
  isGuarded(address + ".guarded", grpc::InsecureChannelCredentials());
  isGuarded(address + ".tls", grpc::SslCredentials({contentOf("ca.pem"), contentOf("key.pem"),
                                                    contentOf("cert.pem")}));
  const auto limited =
      grpc::CreateChannel(address + ".limited", grpc::InsecureChannelCredentials());
  require(set(*Routes::NewStub(limited), route("1234", 32)).ok(), "a listener serves");
  isStopped(*napStub);
}

}  // namespace snippets
