#include <VornSdkRpc/Goaway.h>

#include <utility>

// grpc_core::Server::SendGoaways(), which libgrpc exports (1.51) and no header declares. Null in a
// libgrpc without it.
extern "C" [[gnu::weak]] void sendGoaways(grpc_server* server) __asm__(
    "_ZN9grpc_core6Server11SendGoawaysEv");

namespace VornSdkRpc {

namespace {

struct Told {
  grpc_server* server;
  bool done = false;
};

void* tell(void* told) {
  auto& one = *static_cast<Told*>(told);
  if (!std::exchange(one.done, true)) sendGoaways(one.server);
  return told;
}
void leave(void*) {}
int compare(void* one, void* other) { return one < other ? -1 : one > other ? 1 : 0; }

}  // namespace

bool tellClientsToLeave(grpc_server* server) {
  if (!sendGoaways) return false;
  // What gRPC does inside of itself takes a context of the calling thread that only its own
  // functions have: the one that makes a server copies its arguments in it.
  static const grpc_arg_pointer_vtable vtable{tell, leave, compare};
  Told told{server};
  grpc_arg argument{};
  argument.type = GRPC_ARG_POINTER;
  argument.key = const_cast<char*>("vornsdkrpc.leave");
  argument.value.pointer = {&told, &vtable};
  const grpc_channel_args arguments{1, &argument};
  grpc_server_destroy(grpc_server_create(&arguments, nullptr));
  return true;
}

}  // namespace VornSdkRpc
