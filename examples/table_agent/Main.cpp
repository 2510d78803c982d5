#include <VornSdkRpc/Serve.h>

#include "examples/table_agent/TableService.h"

// Serves a table on a loopback port until SIGINT or SIGTERM; calls in progress then have two
// seconds.
int main() {
  // [main]
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:50053", grpc::InsecureServerCredentials());
  VornSdkRpc::serve(builder, {std::make_shared<table_agent::TableService>()},
                    {.grace = std::chrono::seconds(2)});
  // [main]
}
