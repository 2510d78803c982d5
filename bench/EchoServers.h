#pragma once

#include <VornSdkRpc/CallAccounting.h>
#include <VornSdkRpc/Listener.h>
#include <VornSdkRpc/Metrics.h>
#include <grpcpp/grpcpp.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

// The servers that are measured beside each other: one service, written once for the server frame
// and once each way that a user would write it without. A server is driven by EchoServer.cpp.
namespace bench {

// What a server counts, for whoever watches it from another thread.
struct Counts {
  std::atomic<std::uint64_t> held = 0;     // open Hold streams
  std::atomic<std::uint64_t> written = 0;  // writes to them that are out
  bool timesPolls = false;                 // which costs a server on the frame more than a percent
  std::atomic<double> longestPollMs = 0;   // with the step behind it
};

class Server {
 public:
  explicit Server(Counts& counts) : counts_(counts) {}
  virtual ~Server() = default;
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Serves until stop(); calls `listening` once the port is open.
  virtual void run(grpc::ServerBuilder& builder, const std::function<void()>& listening) = 0;

  // Who accepts, where it is not gRPC; before run().
  virtual void listenerIs(std::shared_ptr<VornSdkRpc::Listener>) {
    throw std::invalid_argument("this server has no listener");
  }

  // Where the frame can see to it; before run().
  virtual void clientsTakeTurns() {
    throw std::invalid_argument("this server has no turns for its clients");
  }

  // Ends run(), with whatever is open. From another thread.
  virtual void stop() = 0;

 protected:
  Counts& counts_;
};

// One queue, one thread, and the tag is the address of the call. `ahead` calls of Say are asked for
// at a time, and one of each of the others. The peer of every ratio.
std::unique_ptr<Server> makeHandWritten(Counts& counts, std::size_t ahead);

// Handlers written by hand on VornSdkRpc::GrpcServer, as many ahead.
std::unique_ptr<Server> makeFrame(Counts& counts, std::size_t ahead);

// The same with the authoring kit, Say as a function or as a coroutine that works for so long.
std::unique_ptr<Server> makeKit(Counts& counts, std::size_t ahead, bool coroutine,
                                std::chrono::microseconds work);

// gRPC's callback and synchronous API. They offer Say alone.
std::unique_ptr<Server> makeCallback(Counts& counts);
std::unique_ptr<Server> makeSynchronous(Counts& counts);

// The library's accounting, with the platform log going to the file as an agent's does.
void accountThroughLibrary(grpc::ServerBuilder& builder, const std::string& file);

// Completion records, which must outlive the server, and figures of calls when those are wanted.
class Recording {
 public:
  // `to` is "line:FILE" or "json:FILE".
  Recording(grpc::ServerBuilder& builder, const std::string& to, bool metrics);

 private:
  VornSdkRpc::CallAccounting calls_;
  VornSdkRpc::Metrics metrics_;
};

// The least accounting that anybody would write: an interceptor that hands a line a call to
// spdlog's asynchronous logger, which writes it to the file.
void accountThroughSpdlog(grpc::ServerBuilder& builder, const std::string& file);

}  // namespace bench
