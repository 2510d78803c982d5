// What an author gets wrong: compiled once for each MISTAKE, by tests/mistakes_test, which looks
// for the sentence behind it.
#include <VornSdkRpc/Rpc.h>

#include "tests/Test.grpc.pb.h"

namespace test {

namespace rpc = VornSdkRpc::rpc;
using grpc::Status;

class Wrong : public rpc::Service<Probe> {
 public:
  Wrong() : Service("Wrong") {
#if MISTAKE == 0
    method(&Async::RequestEcho, [](const Text&, Text&) { return Status::OK; });
#elif MISTAKE == 1
    // a unary RPC is served by a function
    method(&Async::RequestEcho, [](int) { return Status::OK; });
#elif MISTAKE == 2
    // a stream is served by a coroutine, which returns rpc::Task<>
    method(&Async::RequestTick, [](rpc::Writer<Text>&, const Count&) { return Status::OK; });
#elif MISTAKE == 3
    // a coroutine of the kit takes its rpc::Call& first
    method(&Async::RequestEcho, [](const Text&, Text&) -> rpc::Task<> { co_return Status::OK; });
#elif MISTAKE == 4
    // the messages are swapped: it takes a Request, and writes Replies
    method(&Async::RequestTick,
           [](rpc::Writer<Count>&, const Text&) -> rpc::Task<> { co_return Status::OK; });
#elif MISTAKE == 5
    // the messages are swapped: it reads Requests, and answers a Reply
    method(&Async::RequestCollect,
           [](rpc::Reader<Count>&, Text&) -> rpc::Task<> { co_return Status::OK; });
#elif MISTAKE == 6
    // an RPC in which both sides stream is served by a coroutine
    method(&Async::RequestChat,
           [](rpc::Reader<Text>&, Text&) -> rpc::Task<> { co_return Status::OK; });
#elif MISTAKE == 7
    // is private within this context
    method(&Async::RequestChat, [](rpc::ReaderWriter<Text, Text>& chat) -> rpc::Task<> {
      const rpc::Task<> task;
      task.start();
      co_await chat.wait(rpc::forever);
      co_return Status::OK;
    });
#endif
  }
};

}  // namespace test
