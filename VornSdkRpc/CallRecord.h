#pragma once

#include <vorn/export.h>

#include <chrono>
#include <cstdint>
#include <string_view>

// The completion record of a call: more than the accounting line has, and also of calls that were
// refused or never answered. Records are made by a CallAccounting and kept by its CallLog; who
// wants them reads them there, through a sink or the service Accounting.
namespace VornSdkRpc {

// How a call has ended.
enum class CallEnd : std::uint8_t {
  begun,      // it has not: this is the record of a stream's start, where that is wanted
  answered,   // the agent has sent a status
  refused,    // over a limit: of gRPC's for a message, or one that the agent has told (CallNote.h)
  denied,     // by the check of who calls, before it began
  abandoned,  // the client has left, or its deadline has passed, before there was an answer
  stopped,    // the agent was stopped before there was an answer
};

// The name of an end as it is written: "answered".
VORN_EXPORT std::string_view textOf(CallEnd end);

// The name of a grpc::StatusCode as gRPC's own texts have it: "NOT_FOUND". "UNKNOWN" for a number
// that is no code.
VORN_EXPORT std::string_view codeText(std::int32_t status);

// A plain value without memory of its own: its texts belong to whoever hands it out, who says for
// how long. They are as the client sent them, with any bytes, but each is cut at 1,024 bytes as
// the fields of the accounting line are (Kiv/Line.h). A text that is not known is empty.
struct CallRecord {
  using Clock = std::chrono::system_clock;
  static constexpr std::uint64_t kUnknown = UINT64_MAX;
  static constexpr std::int32_t kNothing = -1;
  static constexpr Clock::time_point kNoDeadline = Clock::time_point::max();

  // The run of the process and the position in it: 1, 2, 3 and so on, without a gap.
  std::string_view run = {};
  std::uint64_t number = 0;

  CallEnd end = CallEnd::answered;

  // The grpc::StatusCode that the client was told, or, where nothing reached it, what it has told
  // its own user: 1 or, at its deadline, 4 for a call that was abandoned (as far as the time can
  // tell the two apart), 14 for one that was stopped.
  std::int32_t status = 0;

  // The code that the agent has sent, whether it reached the client or not; kNothing: none.
  std::int32_t sent = kNothing;

  Clock::time_point start = {};              // when the call arrived
  std::chrono::nanoseconds duration = {};    // until its end; not from a clock that is set
  Clock::time_point deadline = kNoDeadline;  // the client's

  // What came from the client and what the agent has handed over for it, without gRPC's framing.
  std::uint64_t messagesIn = 0;
  std::uint64_t messagesOut = 0;
  std::uint64_t bytesIn = kUnknown;  // known for calls of the authoring kit
  std::uint64_t bytesOut = 0;

  std::string_view method = {};  // "/package.Service/Method"
  std::string_view user = {};  // as in the accounting line, which has "unknown" where there is none
  std::string_view session = {};  // the same
  // How the user is known: the connection's property "peer-proof", an agent's own word, or else
  // "certificate", "tls" (no client certificate), "local" (a caller on this host) or "none".
  std::string_view proof = {};
  std::string_view peer = {};  // as in the accounting line; empty for a denied call
  std::string_view traceparent =
      {};                        // the client's metadata of that name, which says what caused it
  std::string_view reason = {};  // why a denied call was denied: the status's text and details

  // What the handler has added (CallNote.h): "delete", "10.1.0.0/16", 1.
  std::string_view operation = {};
  std::string_view object = {};
  std::uint64_t count = 0;
};

}  // namespace VornSdkRpc
