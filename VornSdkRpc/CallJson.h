#pragma once

#include <Kiv/AppendFile.h>
#include <VornSdkRpc/CallLog.h>
#include <VornSdkRpc/CallRecord.h>
#include <VornSdkRpc/CallSink.h>
#include <vorn/export.h>
#include <vorn/mutex.h>

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

// Records as JSON, an object a line. A field that is not known, or empty, is left out.
//
//   run, number            which record of which run of the process: numbers have no gap
//   end                    how the call ended: CallEnd's names
//   start                  when it arrived, UTC: "2026-11-25T10:39:50.123456Z"
//   duration_us            microseconds until its end
//   deadline               the client's, as start
//   status, code           what the client was told, as a number and by its name: 5, "NOT_FOUND"
//   sent                   what the agent has sent, where that is something else
//   method, user, session, proof, peer, traceparent, reason, operation, object, count
//   messages_in, messages_out, bytes_in, bytes_out
//
// A gap in the numbers is an object of its own: run, gap_first, gap_count.
//
// Texts are escaped as those of the accounting line are (Kiv/Line.h), and then as JSON asks, so
// that a line is valid UTF-8 and one line for every reader.
namespace VornSdkRpc {

// Appends the object, without a line's end.
VORN_EXPORT void appendJson(std::string& text, const CallRecord& record);
VORN_EXPORT void appendJson(std::string& text, const CallGap& gap);

// A sink that writes such lines to a file, many of them at once. While the disk is full, records
// wait; a line of which a part could be written already is no JSON, and is followed by the whole
// one. To rotate the file, rename it and call reopen().
class VORN_EXPORT CallJsonFile : public CallSink {
 public:
  // Opens the file, or makes it with mode 0600. Throws spdlog::spdlog_ex, which names the file and
  // the reason.
  explicit CallJsonFile(std::string path);

  // Goes on in the file that has the path by now; when it returns, nothing goes to the one before
  // any more. Throws as the constructor does; records go to the one before, then. Any thread.
  void reopen();

  std::size_t write(std::span<const CallRecord* const> records) override;
  bool writeGap(const CallGap& gap) override;

 private:
  VORN_NO_EXPORT std::size_t linesWritten(std::string_view text, std::size_t lines);

  vorn::mutex mutex_;
  Kiv::AppendFile file_ VORN_GUARDED_BY(mutex_);
  bool torn_ VORN_GUARDED_BY(mutex_);
};

}  // namespace VornSdkRpc
