#pragma once

#include <VornSdkRpc/CallLog.h>
#include <VornSdkRpc/CallRecord.h>

#include <chrono>
#include <string_view>

namespace VornSdkRpc {

// Tells what is known of a record or a gap, in the order in which it is written, whatever the form:
// calls fields.add(name, value) with numbers, points in time, and texts, of which those that are
// empty are to be left out.
template <typename Fields>
void tellFields(const CallRecord& record, Fields& fields) {
  fields.add("run", record.run);
  fields.add("number", record.number);
  fields.add("end", textOf(record.end));
  fields.add("start", record.start);
  fields.add("duration_us",
             std::chrono::duration_cast<std::chrono::microseconds>(record.duration).count());
  if (record.deadline != CallRecord::kNoDeadline) fields.add("deadline", record.deadline);
  if (record.end != CallEnd::begun) {
    fields.add("status", record.status);
    fields.add("code", codeText(record.status));
  }
  if (record.sent != CallRecord::kNothing && record.sent != record.status)
    fields.add("sent", record.sent);
  fields.add("method", record.method);
  fields.add("user", record.user);
  fields.add("session", record.session);
  fields.add("proof", record.proof);
  fields.add("peer", record.peer);
  fields.add("traceparent", record.traceparent);
  fields.add("reason", record.reason);
  fields.add("operation", record.operation);
  fields.add("object", record.object);
  if (!record.operation.empty()) fields.add("count", record.count);
  fields.add("messages_in", record.messagesIn);
  fields.add("messages_out", record.messagesOut);
  if (record.bytesIn != CallRecord::kUnknown) fields.add("bytes_in", record.bytesIn);
  fields.add("bytes_out", record.bytesOut);
}

template <typename Fields>
void tellFields(const CallGap& gap, Fields& fields) {
  fields.add("run", gap.run);
  fields.add("gap_first", gap.first);
  fields.add("gap_count", gap.count);
}

}  // namespace VornSdkRpc
