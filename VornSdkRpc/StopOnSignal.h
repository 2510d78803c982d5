#pragma once

#include <VornSdkRpc/GrpcServer.h>
#include <vorn/export.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace VornSdkRpc {

// Lets SIGINT and SIGTERM stop a server, for the lifetime of one object:
//
//   VornSdkRpc::GrpcServer server(builder, {std::make_shared<MyService>()}, properties);
//   const VornSdkRpc::StopOnSignal stopOnSignal(server, 2s);
//   server.run();  // returns when a signal has come and what it takes is done
//
// With a grace, the first signal drains the server (GrpcServer::stop(grace)) and the second stops
// it now; without one, the first stops it. What a service throws on the way is traced as
// "StopOnSignal/0".
//
// It does not matter which threads there are already, and no thread's signal mask is changed: the
// signals have a handler, which wakes a thread of this object, and what a process starts with
// fork() and exec() does not inherit it. SIGINT is taken also when the process was started with
// SIGINT ignored, as a shell's background jobs are. Other signals are left alone.
class VORN_EXPORT StopOnSignal {
 public:
  // The server must outlive this object. Throws std::logic_error while there is another object of
  // this class, and std::system_error when there can be no thread.
  explicit StopOnSignal(GrpcServer& server, std::chrono::milliseconds grace = {});

  // What the two signals did before, they do again.
  ~StopOnSignal();

  StopOnSignal(const StopOnSignal&) = delete;
  StopOnSignal& operator=(const StopOnSignal&) = delete;

  // From now on the two signals wait for the next object of this class. For an agent that has
  // something to undo before it has its server; without it, a signal that comes early ends the
  // process at once.
  static void holdSignals();

 private:
  VORN_NO_EXPORT void wait();

  GrpcServer& server_;
  const std::chrono::milliseconds grace_;
  std::atomic<bool> ended_ = false;
  std::thread thread_;
};

}  // namespace VornSdkRpc
