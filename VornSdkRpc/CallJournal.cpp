#define SD_JOURNAL_SUPPRESS_LOCATION
#include <VornSdkRpc/CallJournal.h>

#include <Kiv/Line.h>
#include <fmt/format.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

namespace VornSdkRpc {

namespace {

constexpr char kSocket[] = "/run/systemd/journal/socket";
constexpr std::string_view kRecordId = "2317cef469314e32a5fad6c40af333bb";
constexpr std::string_view kGapId = "48c02c68e4174dfc9da507003bf5ec95";

constexpr int kUnknown = 2, kInternal = 13, kDataLoss = 15;  // grpc::StatusCode

int priorityOf(const CallRecord& record) {
  switch (record.end) {
    case CallEnd::denied:
    case CallEnd::refused:
      return LOG_WARNING;
    case CallEnd::abandoned:
    case CallEnd::stopped:
      return LOG_NOTICE;
    default:
      break;
  }
  const int status = record.status;
  return status == kUnknown || status == kInternal || status == kDataLoss ? LOG_ERR : LOG_INFO;
}

template <typename Duration>
std::int64_t microsOf(Duration duration) {
  return std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
}

// An entry of the journal: its fields in one text.
class Entry {
 public:
  void clear() {
    text_.clear();
    count_ = 0;
  }

  template <std::integral Number>
  void add(std::string_view name, Number number) {
    fmt::format_to(std::back_inserter(text_), "{}={}", name, number);
    end();
  }

  void add(std::string_view name, std::string_view value) {
    if (value.empty()) return;
    fmt::format_to(std::back_inserter(text_), "{}=", name);
    Kiv::appendOneLine(text_, value);
    end();
  }

  // Answers false when the journal doesn't take it.
  bool send() {
    std::array<iovec, kFieldsMax> fields{};
    std::size_t begin = 0;
    for (std::size_t i = 0; i < count_; ++i) {
      fields[i] = {text_.data() + begin, ends_[i] - begin};
      begin = ends_[i];
    }
    return sd_journal_sendv(fields.data(), static_cast<int>(count_)) == 0;
  }

 private:
  static constexpr std::size_t kFieldsMax = 32;

  void end() { ends_.at(count_++) = text_.size(); }

  std::string text_;
  std::array<std::size_t, kFieldsMax> ends_{};
  std::size_t count_ = 0;
};

class CallJournal : public CallSink {
 private:
  std::size_t write(std::span<const CallRecord* const> records) override {
    std::size_t taken = 0;
    while (taken < records.size() && isThere() && isSent(*records[taken]))
      ++taken;
    return taken;
  }

  bool writeGap(const CallGap& gap) override {
    entry_.clear();
    entry_.add("MESSAGE", fmt::format("{} records of calls are missing here", gap.count));
    entry_.add("MESSAGE_ID", kGapId);
    entry_.add("PRIORITY", LOG_WARNING);
    entry_.add("CALL_RUN", gap.run);
    entry_.add("CALL_GAP_FIRST", gap.first);
    entry_.add("CALL_GAP_COUNT", gap.count);
    return isThere() && entry_.send();
  }

  // libsystemd takes every entry when there is no journal.
  static bool isThere() { return access(kSocket, W_OK) == 0; }

  bool isSent(const CallRecord& record) {
    entry_.clear();
    addOutcome(record);
    entry_.add("CALL_METHOD", record.method);
    entry_.add("CALL_USER", record.user);
    entry_.add("CALL_SESSION", record.session);
    entry_.add("CALL_PROOF", record.proof);
    entry_.add("CALL_PEER", record.peer);
    entry_.add("CALL_TRACEPARENT", record.traceparent);
    entry_.add("CALL_REASON", record.reason);
    entry_.add("CALL_OPERATION", record.operation);
    entry_.add("CALL_OBJECT", record.object);
    if (!record.operation.empty()) entry_.add("CALL_COUNT", record.count);
    entry_.add("CALL_MESSAGES_IN", record.messagesIn);
    entry_.add("CALL_MESSAGES_OUT", record.messagesOut);
    if (record.bytesIn != CallRecord::kUnknown) entry_.add("CALL_BYTES_IN", record.bytesIn);
    entry_.add("CALL_BYTES_OUT", record.bytesOut);
    return entry_.send();
  }

  void addOutcome(const CallRecord& record) {
    const std::string_view at = record.peer.empty() ? "" : " at ";
    const bool begun = record.end == CallEnd::begun;
    entry_.add("MESSAGE", fmt::format("{} of {}{}{}: {}{}{}", record.method, record.user, at,
                                      record.peer, begun ? "" : codeText(record.status),
                                      begun ? "" : ", ", textOf(record.end)));
    entry_.add("MESSAGE_ID", kRecordId);
    entry_.add("PRIORITY", priorityOf(record));
    entry_.add("CALL_RUN", record.run);
    entry_.add("CALL_NUMBER", record.number);
    entry_.add("CALL_END", textOf(record.end));
    entry_.add("CALL_START_US", microsOf(record.start.time_since_epoch()));
    entry_.add("CALL_DURATION_US", microsOf(record.duration));
    if (record.deadline != CallRecord::kNoDeadline)
      entry_.add("CALL_DEADLINE_US", microsOf(record.deadline.time_since_epoch()));
    if (!begun) {
      entry_.add("CALL_STATUS", record.status);
      entry_.add("CALL_CODE", codeText(record.status));
    }
    if (record.sent != CallRecord::kNothing && record.sent != record.status)
      entry_.add("CALL_SENT", record.sent);
  }

  Entry entry_;
};

}  // namespace

std::unique_ptr<CallSink> callJournal() { return std::make_unique<CallJournal>(); }

}  // namespace VornSdkRpc
