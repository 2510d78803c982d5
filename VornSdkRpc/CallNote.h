#pragma once

#include <grpcpp/server_context.h>
#include <vorn/export.h>

#include <cstdint>
#include <string_view>

// What a handler adds to the record of its call, in one line, before it answers:
//
//   VornSdkRpc::noteOperation(context, "delete", toString(route.prefix()));
//
// Nothing happens when no CallAccounting records the call. Any thread.
namespace VornSdkRpc {

// What the call has done, to what, and to how many. A later note replaces an earlier one. The
// texts are cut at 1,024 bytes. Throws std::bad_alloc.
VORN_EXPORT void noteOperation(const grpc::ServerContextBase& call, std::string_view operation,
                               std::string_view object, std::uint64_t count = 1);

// The call is refused because it, or all calls together, want more than they may have.
VORN_EXPORT void noteLimit(const grpc::ServerContextBase& call);

// So many bytes of messages have come from the client, beside those that were noted before. The
// authoring kit notes them.
VORN_EXPORT void noteBytesIn(const grpc::ServerContextBase& call, std::uint64_t bytes);

}  // namespace VornSdkRpc
