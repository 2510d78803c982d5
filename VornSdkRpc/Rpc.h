#pragma once

// The authoring kit: an RPC as one function. It stands on GrpcService and RequestHandler alone, so
// services written with it and services written by hand live side by side in one GrpcServer.
//
// A service derives from rpc::Service of its generated class and names its methods in its
// constructor, each with the function that serves it:
//
//   namespace rpc = VornSdkRpc::rpc;
//   using namespace std::chrono_literals;
//
//   class RouteService : public rpc::Service<Routes> {
//    public:
//     explicit RouteService(RouteTable& table) : Service("Routes"), table_(table) {
//       // Unary, as a plain function: the fastest, for what is answered at once. It may also take
//       // the grpc::ServerContext& first.
//       method(&Async::RequestSet, [this](const ip_route_msg& route, rpc_status_msg&) {
//         table_.add(route);
//         return grpc::Status::OK;
//       });
//
//       // Unary, as a coroutine, for what has to wait before it answers.
//       method(&Async::RequestAwait,
//              [this](rpc::Call& call, const count_msg& wanted, count_msg& count) -> rpc::Task<> {
//                while (table_.size() < wanted.count()) {
//                  if (!co_await call.wait(100ms)) break;
//                }
//                count.set_count(table_.size());
//                co_return grpc::Status::OK;
//              });
//
//       // Client streaming: read() returns false at the end of the client's stream.
//       method(&Async::RequestLoad,
//              [this](rpc::Reader<ip_route_msg>& routes, count_msg& count) -> rpc::Task<> {
//                ip_route_msg route;
//                while (co_await routes.read(route))
//                  table_.add(route);
//                count.set_count(table_.size());
//                co_return grpc::Status::OK;
//              });
//
//       // Server streaming: write() returns false once the call is over. One write is outstanding
//       // at a time, so a client that reads slowly holds up its own stream and costs one item of
//       // memory.
//       method(&Async::RequestWatch,
//              [this](rpc::Writer<ip_route_msg>& watch, const count_msg&) -> rpc::Task<> {
//                rpc::Event news;  // table_.changed.set() by any thread wakes the call
//                const rpc::Events::Subscription subscription(table_.changed, news);
//                std::uint32_t written = 0;
//                do {
//                  for (auto& route : table_.after(written)) {
//                    if (!co_await watch.write(route)) break;
//                    ++written;
//                  }
//                } while (co_await watch.wait(news));
//                co_return watch.endStatus();
//              });
//     }
//
//    private:
//     RouteTable& table_;
//   };
//
// (A bidirectional stream is an rpc::ReaderWriter.) Functions and coroutines run on the server's
// one thread, each step to the end before the next, so they need no locks among each other, and
// none may block. A coroutine may be split up: it can co_await another rpc::Task<T>. (Write a
// co_await in a loop's condition alone: g++ 12 evaluates one that stands behind && or || there even
// when it should be skipped.)
//
// When the client cancels, goes away or its deadline passes, what is awaited comes back false, and
// so does everything that is awaited after it; cancelled() tells the end of a client's stream from
// the end of its call. The coroutine runs to its end and its locals are destroyed on the serving
// thread. When the server stops, a coroutine is not resumed any more: its frame is destroyed where
// it waits, on the serving thread or, as most of those that wait for a time or an event, on the one
// that destroys the GrpcServer. Whatever a coroutine refers to must outlive the server object; the
// service does.
//
// An exception ends the call: vorn::invalid_argument_error with INVALID_ARGUMENT,
// vorn::unsupported_error with UNIMPLEMENTED, vorn::configuration_error with FAILED_PRECONDITION,
// vorn::no_scoped_lock_obtained_error with UNAVAILABLE, each with the first 1024 bytes of its
// what(); anything else with INTERNAL and a text that gives nothing away, and a trace line at level
// 0 that says what it was.

#include <VornSdkRpc/RpcCall.h>
#include <VornSdkRpc/RpcEvent.h>
#include <VornSdkRpc/RpcEvents.h>
#include <VornSdkRpc/RpcService.h>
#include <VornSdkRpc/RpcTask.h>
