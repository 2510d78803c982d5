#pragma once

#include <VornSdkRpc/CallLog.h>
#include <VornSdkRpc/CallRecord.h>
#include <vorn/export.h>

#include <cstddef>
#include <memory>
#include <span>

namespace VornSdkRpc {

// Where records go. A CallAccounting gives each sink a thread of its own, which alone calls it: one
// that stands still holds up neither calls nor other sinks, and costs memory up to the log's limit.
class VORN_EXPORT CallSink {
 public:
  virtual ~CallSink();

  // Takes records, oldest first, and returns how many of them: whatever it returns less, it is
  // offered again a little later, with what has come since. An exception of type std::exception
  // counts as none taken. What is not taken once the accounting has ended is lost.
  virtual std::size_t write(std::span<const CallRecord* const> records) = 0;

  // Is told that records are missing in front of those that it is offered next. Returns false when
  // that can't be written now, to be told again.
  virtual bool writeGap(const CallGap& gap) = 0;
};

// The accounting line of each call that has been answered, as a LoggingInterceptorFactory writes
// it. Gaps go to the trace, as "RPCAccounting/0". What the platform log loses, it counts itself.
VORN_EXPORT std::unique_ptr<CallSink> accountingLines();

}  // namespace VornSdkRpc
