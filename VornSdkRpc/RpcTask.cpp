#include <VornSdkRpc/RpcTask.h>

#include <stdexcept>

namespace VornSdkRpc::rpc::detail {

void throwNoTask() { throw std::logic_error("a task was awaited that is empty or has ended"); }

void throwNoOutcome() { throw std::logic_error("a coroutine ended without co_return"); }

}  // namespace VornSdkRpc::rpc::detail
