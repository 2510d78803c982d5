#pragma once

namespace VornSdkRpc {

// Sends what gRPC has to say to the trace handle "grpc" instead of standard error, where the thread
// that serves or accepts would wait for a reader: everything at level 8, and of its errors, which
// clients can cause, one in ten seconds at level 0, with the number of those that were left out
// before it. The first call alone has an effect, so that an agent may set a function of its own
// afterwards. Any thread.
void grpcLogToTrace();

}  // namespace VornSdkRpc
