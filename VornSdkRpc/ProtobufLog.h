#pragma once

namespace VornSdkRpc {

// Sends what protobuf has to say, of a client's invalid UTF-8 for example, to the trace handle
// "protobuf" instead of standard error, where the thread that serves would wait for a reader: level
// 0, one message in ten seconds at most, with the number of those that were left out before it. The
// first call alone has an effect, so that an agent may set a handler of its own afterwards. Any
// thread. protobuf 22 and later has no handler to set; it logs through Abseil, and its messages
// stay there.
void protobufLogToTrace();

}  // namespace VornSdkRpc
