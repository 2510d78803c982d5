#pragma once

#include <VornSdkRpc/CallSink.h>
#include <vorn/export.h>

#include <memory>

// Completion records in systemd's journal, each field of a record a field of its entry. In a
// library of its own, VornSdkRpcJournal, which brings libsystemd.
//
//   accounting.add(VornSdkRpc::callJournal());
//
// The fields of an entry:
//
//   MESSAGE       "/package.Service/Method of alice at ipv4:10.0.0.1:4711: NOT_FOUND, answered"
//   MESSAGE_ID    2317cef469314e32a5fad6c40af333bb, and 48c02c68e4174dfc9da507003bf5ec95 for a gap
//   PRIORITY      by the outcome: 6 (info), 5 (notice) for calls without an answer, 4 (warning) for
//                 denied and refused ones and for a gap, 3 (error) for UNKNOWN, INTERNAL and
//                 DATA_LOSS
//   CALL_RUN, CALL_NUMBER, CALL_END, ...
//                 those of CallJson.h in capital letters, with start as CALL_START_US (microseconds
//                 since 1970) and deadline as CALL_DEADLINE_US, and for a gap CALL_RUN,
//                 CALL_GAP_FIRST and CALL_GAP_COUNT
//
// They are asked for as every journal's are:
//
//   journalctl -t agent MESSAGE_ID=2317cef469314e32a5fad6c40af333bb CALL_USER=alice -o json
//
// While there is no journal, records wait. Beyond a rate limit journald drops entries by itself and
// says "Suppressed N messages": a jump in CALL_NUMBER shows where, and LogRateLimitBurst= of the
// agent's unit, or RateLimitBurst= of journald.conf, moves the limit.
namespace VornSdkRpc {

VORN_EXPORT std::unique_ptr<CallSink> callJournal();

}  // namespace VornSdkRpc
