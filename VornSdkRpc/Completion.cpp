#include <VornSdkRpc/Completion.h>

#include <grpc/grpc.h>
#include <grpcpp/impl/codegen/completion_queue_tag.h>

namespace VornSdkRpc::completion {

namespace {

using NextStatus = grpc::CompletionQueue::NextStatus;

thread_local Current currentOne = Current::none;
thread_local bool isInStop = false;

// Lets gRPC finish an operation, which is where it calls interceptors. Returns false when there is
// nothing in it for the agent.
bool finalized(grpc::internal::CompletionQueueTag& operation, void** tag, bool* ok, bool stopping) {
  struct Within {
    Within(bool succeeded, bool stopping) {
      currentOne = succeeded ? Current::succeeded : Current::failed;
      isInStop = stopping;
    }
    ~Within() {
      currentOne = Current::none;
      isInStop = false;
    }
  } const within(*ok, stopping);
  return operation.FinalizeResult(tag, ok);
}

}  // namespace

NextStatus next(grpc::CompletionQueue& queue, void** tag, bool* ok, gpr_timespec deadline,
                bool stopping) {
  for (;;) {
    const grpc_event event = grpc_completion_queue_next(queue.cq(), deadline, nullptr);
    if (event.type == GRPC_QUEUE_SHUTDOWN) return NextStatus::SHUTDOWN;
    if (event.type == GRPC_QUEUE_TIMEOUT) return NextStatus::TIMEOUT;
    auto* const operation = static_cast<grpc::internal::CompletionQueueTag*>(event.tag);
    *tag = operation;
    *ok = event.success != 0;
    if (finalized(*operation, tag, ok, stopping)) return NextStatus::GOT_EVENT;
  }
}

Current current() { return currentOne; }

bool isStopping() { return isInStop; }

}  // namespace VornSdkRpc::completion
