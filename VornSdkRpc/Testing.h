#pragma once

// An agent's services under test, without a port: a server of the services that a test gives it,
// on a channel in the process or on a Unix socket of its own.
//
//   TEST(Changes, ARouteIsProgrammedAndAccounted) {
//     RouteTable table;
//     VornSdkRpc::testing::TestServer server({std::make_shared<ChangeService>(table)});
//     const auto stub = server.stub<Changes>();
//     const auto answer =
//         VornSdkRpc::testing::call(*stub, &Changes::Stub::Program, ip_route_msg());
//     EXPECT_TRUE(answer.status.ok());
//     EXPECT_EQ(table.after(0).size(), 1U);
//     EXPECT_EQ(server.records().at(0).rpc, "/snippets.Changes/Program");
//     EXPECT_EQ(server.finish(), "");
//   }
//
// The server is up when the constructor is done. When it ends, it looks whether anything is left
// behind: a call in progress, its tag or coroutine, a thread. This is a library of its own,
// VornSdkRpc::Testing, which only tests link; it needs no test framework.
//
// Begin no call on a channel in the process while the server stops, or after: gRPC 1.51's client
// crashes where one comes upon the transport as it closes. A test whose clients go on meanwhile
// takes a socket, on which they are refused. finish() lets calls in progress end before it stops;
// a thread that makes calls is to be joined before.

#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/VornSdkRpcAgentRpcLogger.h>
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace VornSdkRpc::testing {

// What a connection's authentication context is to hold, by name: {"peer-authenticated", "alice"}
// and {"session-id", "7"} are what accounting reads.
using Identity = std::multimap<std::string, std::string>;

struct TestServerOptions {
  // Listen on a Unix socket instead of in the process only: for drains, because a channel in the
  // process closes as soon as one begins, and for identities, which belong to connections.
  bool socket = false;

  // The test turns the server's steps by hand, with step(); otherwise a thread runs it.
  bool byHand = false;

  // How long what should end by itself may take; what is not over by then is left behind.
  std::chrono::milliseconds patience = std::chrono::seconds(10);

  // Has a hand in the builder before the server is built.
  std::function<void(grpc::ServerBuilder&)> configure = nullptr;
};

class TestServer {
 public:
  using Options = TestServerOptions;

  // Throws what GrpcServer's constructor and setup() throw.
  explicit TestServer(std::vector<std::shared_ptr<GrpcService>> services, Options options = {});

  // Ends the server, unless finish() has. Writes what is left behind to standard error, and aborts.
  ~TestServer();

  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  // Stops the server and destroys it, and tells what is left behind by then, a line each; an empty
  // text when nothing is. The calls of a server that has not been stopped are given the patience to
  // end first: those that go on are left behind, and the kit tells what they wait for. So is a
  // thread of the program's that was not there before; gRPC's own are not counted, and one that the
  // test itself has started must have ended. For test frameworks: EXPECT_EQ(server.finish(), "").
  std::string finish();

  // A new connection, made by now. Throws std::logic_error for an identity without a socket.
  std::shared_ptr<grpc::Channel> channel(const Identity& identity = {}) const;

  // A stub on a connection of its own: stub<Routing>() is a Routing::Stub.
  template <typename Generated>
  std::unique_ptr<typename Generated::Stub> stub(const Identity& identity = {}) const {
    return Generated::NewStub(channel(identity));
  }

  // The records that accounting would have written so far, oldest first. That of a call is there
  // when its client has its answer.
  std::vector<LogMessageData> records();

  // Stops the server, and returns when it has.
  void stop();

  // Drains the server, and returns when it has stopped. Throws std::logic_error without a socket.
  void drain(std::chrono::milliseconds grace);

  // Turns a server by hand, on the thread that has made it: one poll, of 200 ms at most. Returns
  // whether something was done. Calls come from other threads or by gRPC's asynchronous clients
  // meanwhile.
  bool step();

  // Time by which the waits of the kit's calls go stands still from the first call of this on, and
  // moves by so much with each; zero only stops it. Waits whose time has come end by themselves.
  void advance(std::chrono::nanoseconds time);

  // Waits until the calls that have ended for their clients have ended for the server, and the
  // registry holds no more than it did at first. Returns false when calls go on after the patience.
  bool settle();

  GrpcServer& server();

  // Of the socket, as gRPC writes it.
  const std::string& address() const;

 private:
  class Machine;
  std::unique_ptr<Machine> machine_;
};

// What a unary call has come back with.
template <typename Reply>
struct Answer {
  grpc::Status status;
  Reply reply;
};

// Makes one unary call: call(*stub, &Routing::Stub::Set, route). `timeout` is its deadline, so that
// no test hangs for good.
template <typename Stub, typename Request, typename Reply>
Answer<Reply> call(Stub& stub,
                   grpc::Status (Stub::*method)(grpc::ClientContext*, const Request&, Reply*),
                   const Request& request,
                   std::chrono::milliseconds timeout = std::chrono::minutes(1)) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + timeout);
  Answer<Reply> answer;
  answer.status = (stub.*method)(&context, request, &answer.reply);
  return answer;
}

}  // namespace VornSdkRpc::testing
