#include <VornSdkRpc/Completion.h>

#include <grpc/grpc.h>
#include <grpcpp/impl/codegen/completion_queue_tag.h>

namespace VornSdkRpc::completion {

namespace {

using NextStatus = grpc::CompletionQueue::NextStatus;

struct LookedAt {
  Current current = Current::none;
  bool inStop = false;
};

thread_local LookedAt lookedAt;

// Lets gRPC finish an operation, which is where it calls interceptors. Returns false when there is
// nothing in it for the agent.
bool finalized(grpc::internal::CompletionQueueTag& operation, void** tag, bool* ok, bool stopping) {
  struct Within {
    explicit Within(LookedAt is) { on = is; }
    ~Within() { on = {}; }
    LookedAt& on = lookedAt;  // found once: each look at a thread's own variable is a call
  } const within({*ok ? Current::succeeded : Current::failed, stopping});
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

Current current() { return lookedAt.current; }

bool isStopping() { return lookedAt.inStop; }

}  // namespace VornSdkRpc::completion
