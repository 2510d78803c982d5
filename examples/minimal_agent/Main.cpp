#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpc/Serve.h>

#include "Minimal.grpc.pb.h"

using namespace minimal_agent;
namespace rpc = VornSdkRpc::rpc;

class EchoService : public rpc::Service<Minimal> {
 public:
  EchoService() : Service("Echo") {
    method(&Async::RequestEcho, [](const text_msg& request, text_msg& reply) {
      reply.set_text(request.text());
      return grpc::Status::OK;
    });
  }
};

int main() {
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:50052", grpc::InsecureServerCredentials());
  VornSdkRpc::serve(builder, {std::make_shared<EchoService>()});
}
