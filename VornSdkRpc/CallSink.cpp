#include <VornSdkRpc/CallSink.h>

#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <VornSdkRpc/AccountingLine.h>
#include <fmt/format.h>

#include <new>

namespace VornSdkRpc {

CallSink::~CallSink() = default;

namespace {

class AccountingLines : public CallSink {
 private:
  std::size_t write(std::span<const CallRecord* const> records) override {
    std::size_t taken = 0;
    try {
      if (trace_.enabled(8)) trace_.write(8, fmt::format("{} records are written", records.size()));
      const Kiv::LogBatch lines;
      for (; taken < records.size(); ++taken)
        writeLineOf(*records[taken]);
    } catch (const std::bad_alloc&) {
      // The rest is offered again.
    }
    return taken;
  }

  bool writeGap(const CallGap& gap) override {
    trace_.warn(fmt::format("{} records from number {} on could not be kept and are lost",
                            gap.count, gap.first));
    return true;
  }

  // A line is what the agent has answered, as far as the client was told so.
  static void writeLineOf(const CallRecord& record) {
    if (record.end == CallEnd::begun || record.sent == CallRecord::kNothing) return;
    const bool told = record.end == CallEnd::answered || record.end == CallEnd::refused;
    writeAccountingLine(record.user, record.session, record.peer, record.method,
                        told ? record.status : record.sent);
  }

  Kiv::TraceHandle trace_{"RPCAccounting", false};
};

}  // namespace

std::unique_ptr<CallSink> accountingLines() { return std::make_unique<AccountingLines>(); }

}  // namespace VornSdkRpc
