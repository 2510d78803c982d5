#pragma once

#include <VornSdkRpc/CallRecord.h>

#include <string_view>

namespace test {

// A record with every field, and texts that would end a line or a string.
inline VornSdkRpc::CallRecord fullRecord() {
  using namespace std::chrono_literals;
  using namespace std::string_view_literals;
  using Time = VornSdkRpc::CallRecord::Clock::time_point;
  return {.run = "r1",
          .number = 7,
          .end = VornSdkRpc::CallEnd::refused,
          .status = 8,
          .sent = 0,
          .start = Time(1764067190123456us),
          .duration = 1500us,
          .deadline = Time(1764067191s),
          .messagesIn = 1,
          .messagesOut = 2,
          .bytesIn = 3,
          .bytesOut = 4,
          .method = "/x/\u2028",
          .user = "CORP\\al\"ice",
          .session = "\n\0"sv,
          .proof = "tls",
          .peer = "unix:",
          .traceparent = "00-1",
          .reason = "caf\xe9\\x0a",
          .operation = "set",
          .object = "é",
          .count = 5};
}

}  // namespace test
