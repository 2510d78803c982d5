#pragma once

#include <VornSdkRpc/CallRecord.h>
#include <vorn/export.h>

#include <string_view>

namespace VornSdkRpc {

// Is told of the calls of a server as they go (CallAccounting::observe). On the threads on which
// gRPC handles them, several at once: it may not block or throw. Whatever begins ends, with the
// call's record.
class VORN_EXPORT CallObserver {
 public:
  // What the observer knows a call by.
  using Call = void*;

  virtual ~CallObserver();

  virtual Call begun(std::string_view method) noexcept = 0;
  virtual void received(Call call) noexcept = 0;  // a message of the client's
  virtual void sent(Call call) noexcept = 0;      // a message of the agent's
  virtual void ended(Call call, const CallRecord& record) noexcept = 0;

  // A call that was denied before it began.
  virtual void denied(const CallRecord& record) noexcept = 0;
};

}  // namespace VornSdkRpc
