#include <semaphore>

#include "bench/Bench.grpc.pb.h"
#include "bench/EchoServers.h"

namespace bench {

namespace {

class CallbackService : public Bench::CallbackService {
  grpc::ServerUnaryReactor* Say(grpc::CallbackServerContext* context, const Item* request,
                                Item* reply) override {
    *reply = *request;
    auto* reactor = context->DefaultReactor();
    reactor->Finish(grpc::Status::OK);
    return reactor;
  }
};

class SynchronousService : public Bench::Service {
  grpc::Status Say(grpc::ServerContext*, const Item* request, Item* reply) override {
    *reply = *request;
    return grpc::Status::OK;
  }
};

// Both run on threads of gRPC's own.
template <typename Service>
class ThreadedServer : public Server {
 public:
  using Server::Server;

  void run(grpc::ServerBuilder& builder, const std::function<void()>& listening) override {
    builder.RegisterService(&service_);
    const auto server = builder.BuildAndStart();
    listening();
    stopRequested_.acquire();
    server->Shutdown(std::chrono::system_clock::now());
    server->Wait();
  }

  void stop() override { stopRequested_.release(); }

 private:
  Service service_;
  std::binary_semaphore stopRequested_{0};
};

}  // namespace

std::unique_ptr<Server> makeCallback(Counts& counts) {
  return std::make_unique<ThreadedServer<CallbackService>>(counts);
}

std::unique_ptr<Server> makeSynchronous(Counts& counts) {
  return std::make_unique<ThreadedServer<SynchronousService>>(counts);
}

}  // namespace bench
