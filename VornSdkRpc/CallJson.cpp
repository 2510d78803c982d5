#include <VornSdkRpc/CallJson.h>

#include <Kiv/Line.h>
#include <VornSdkRpc/CallFields.h>
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <concepts>
#include <ctime>
#include <iterator>
#include <string_view>
#include <utility>

namespace VornSdkRpc {

namespace {

// An object that is being written.
class Object {
 public:
  explicit Object(std::string& text) : text_(text) { text_ += '{'; }
  ~Object() { text_ += '}'; }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  template <std::integral Number>
  void add(std::string_view name, Number number) {
    key(name);
    fmt::format_to(std::back_inserter(text_), "{}", number);
  }

  void add(std::string_view name, std::string_view value) {
    if (value.empty()) return;
    key(name);
    text_ += '"';
    const auto begin = text_.size();
    Kiv::appendOneLine(text_, value);
    escapeFrom(begin);
    text_ += '"';
  }

  void add(std::string_view name, CallRecord::Clock::time_point time) {
    const auto micros = std::chrono::floor<std::chrono::microseconds>(time.time_since_epoch());
    const auto seconds = std::chrono::floor<std::chrono::seconds>(micros);
    key(name);
    fmt::format_to(std::back_inserter(text_), "\"{:%Y-%m-%dT%H:%M:%S}.{:06}Z\"",
                   fmt::gmtime(static_cast<std::time_t>(seconds.count())),
                   (micros - seconds).count());
  }

 private:
  void key(std::string_view name) {
    if (text_.back() != '{') text_ += ',';
    text_ += '"';
    text_ += name;
    text_ += "\":";
  }

  // What is a line already has nothing else that JSON wants escaped.
  void escapeFrom(std::size_t begin) {
    for (auto at = text_.find_first_of("\"\\", begin); at != std::string::npos;
         at = text_.find_first_of("\"\\", at + 2))
      text_.insert(at, 1, '\\');
  }

  std::string& text_;
};

}  // namespace

void appendJson(std::string& text, const CallRecord& record) {
  Object object(text);
  tellFields(record, object);
}

void appendJson(std::string& text, const CallGap& gap) {
  Object object(text);
  tellFields(gap, object);
}

CallJsonFile::CallJsonFile(std::string path)
    : file_(std::move(path)), torn_(file_.openedWithinLine()) {}

void CallJsonFile::reopen() {
  const vorn::lock_guard lock(mutex_);
  file_.reopen();
  torn_ = file_.openedWithinLine();
}

std::size_t CallJsonFile::write(std::span<const CallRecord* const> records) {
  constexpr std::size_t kEnough = 1 << 16;  // for one write
  std::size_t taken = 0;
  while (taken < records.size()) {
    text_.clear();
    auto end = taken;
    for (; end < records.size() && text_.size() < kEnough; ++end) {
      appendJson(text_, *records[end]);
      text_ += '\n';
    }
    const auto lines = linesWritten();
    taken += lines;
    if (taken < end) break;
  }
  return taken;
}

bool CallJsonFile::writeGap(const CallGap& gap) {
  text_.clear();
  appendJson(text_, gap);
  text_ += '\n';
  return linesWritten() == 1;
}

// Writes the text, and returns how many of its lines are in the file as a whole.
std::size_t CallJsonFile::linesWritten() {
  const vorn::lock_guard lock(mutex_);
  if (torn_) text_.insert(text_.begin(), '\n');
  const auto written = std::string_view(text_).substr(0, file_.append(text_));
  if (written.empty()) return 0;
  const auto lines = std::count(written.begin(), written.end(), '\n') - (torn_ ? 1 : 0);
  torn_ = written.back() != '\n';
  return static_cast<std::size_t>(lines);
}

}  // namespace VornSdkRpc
