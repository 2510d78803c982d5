#pragma once

#include <grpcpp/completion_queue.h>

// What gRPC knows about a completed operation and tells neither handlers nor interceptors. The
// frame takes its completions from the queue through next(), and gRPC calls the interceptors of a
// call from within that, on the same thread.
namespace VornSdkRpc::completion {

// Takes the next completion off the queue, as grpc::CompletionQueue::AsyncNext does. `stopping`:
// the server has begun to stop, and cancels what is in progress.
grpc::CompletionQueue::NextStatus next(grpc::CompletionQueue& queue, void** tag, bool* ok,
                                       gpr_timespec deadline, bool stopping);

// The completion that next() is looking at on the calling thread.
enum class Current {
  none,       // it is not within next(): another kind of server, or the start of an operation
  succeeded,  // the operation did what it should; reading the end of a stream counts as such
  failed,     // gRPC has failed the operation
};
Current current();

// Whether the calling thread is within next() of a server that has begun to stop.
bool isStopping();

}  // namespace VornSdkRpc::completion
