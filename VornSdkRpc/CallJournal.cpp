#define SD_JOURNAL_SUPPRESS_LOCATION
#include <VornSdkRpc/CallJournal.h>

#include <Kiv/Line.h>
#include <VornSdkRpc/CallFields.h>
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

  // Returns false when the journal doesn't take it.
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

// A record's fields in an entry, by their names there.
class CallFields {
 public:
  explicit CallFields(Entry& entry) : entry_(entry) {}

  template <typename Value>
  void add(std::string_view name, const Value& value) {
    entry_.add(nameOf(name), value);
  }

  void add(std::string_view name, CallRecord::Clock::time_point time) {
    const auto since = time.time_since_epoch();
    entry_.add(nameOf(name) + "_US",
               std::chrono::duration_cast<std::chrono::microseconds>(since).count());
  }

 private:
  static std::string nameOf(std::string_view name) {
    std::string text = "CALL_";
    for (const char c : name)
      text += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    return text;
  }

  Entry& entry_;
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
    CallFields fields(entry_);
    tellFields(gap, fields);
    return isThere() && entry_.send();
  }

  // libsystemd takes every entry when there is no journal.
  static bool isThere() { return access(kSocket, W_OK) == 0; }

  bool isSent(const CallRecord& record) {
    entry_.clear();
    const std::string_view at = record.peer.empty() ? "" : " at ";
    const bool begun = record.end == CallEnd::begun;
    entry_.add("MESSAGE", fmt::format("{} of {}{}{}: {}{}{}", record.method, record.user, at,
                                      record.peer, begun ? "" : codeText(record.status),
                                      begun ? "" : ", ", textOf(record.end)));
    entry_.add("MESSAGE_ID", kRecordId);
    entry_.add("PRIORITY", priorityOf(record));
    CallFields fields(entry_);
    tellFields(record, fields);
    return entry_.send();
  }

  Entry entry_;
};

}  // namespace

std::unique_ptr<CallSink> callJournal() { return std::make_unique<CallJournal>(); }

}  // namespace VornSdkRpc
