#include <VornSdkRpc/CallJson.h>

#include <Kiv/Line.h>
#include <VornSdkRpc/CallFields.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <concepts>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

namespace VornSdkRpc {

namespace {

using Buffer = fmt::memory_buffer;

// An object that is being written.
class Object {
 public:
  explicit Object(Buffer& text) : text_(text) {}
  ~Object() { text_.push_back('}'); }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  template <std::integral Number>
  void add(std::string_view name, Number number) {
    char digits[24];
    add(name, {}, {digits, std::to_chars(digits, std::end(digits), number).ptr}, {});
  }

  void add(std::string_view name, std::string_view value) {
    if (value.empty()) return;
    if (isItself(value)) return addText(name, value);
    std::string escaped;
    for (const char c : Kiv::oneLine(value)) {
      // What is a line already has nothing else that JSON wants escaped.
      if (c == '"' || c == '\\') escaped += '\\';
      escaped += c;
    }
    addText(name, escaped);
  }

  void add(std::string_view name, CallRecord::Clock::time_point time) {
    using std::chrono::floor;
    const auto micros = floor<std::chrono::microseconds>(time);
    const auto day = floor<std::chrono::days>(micros);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(micros - day);
    char text[] = "0000-00-00T00:00:00.000000Z";
    putDigits(text + 4, static_cast<int>(date.year()));
    putDigits(text + 7, static_cast<unsigned>(date.month()));
    putDigits(text + 10, static_cast<unsigned>(date.day()));
    putDigits(text + 13, clock.hours().count());
    putDigits(text + 16, clock.minutes().count());
    putDigits(text + 19, clock.seconds().count());
    putDigits(text + 26, clock.subseconds().count());
    addText(name, text);
  }

 private:
  static bool isItself(std::string_view text) {
    return Kiv::isPlain(text) && text.find('"') == std::string_view::npos;
  }

  // Puts a number in front of `end`, where zeros stand. (The clock ends before the year 2263.)
  template <std::integral Number>
  static void putDigits(char* end, Number number) {
    for (; number > 0; number /= 10)
      *--end = static_cast<char>('0' + number % 10);
  }

  void addText(std::string_view name, std::string_view text) { add(name, "\"", text, "\""); }

  void add(std::string_view name, std::string_view before, std::string_view value,
           std::string_view behind) {
    const std::string_view parts[] = {{&separator_, 1}, "\"", name, "\":", before, value, behind};
    std::size_t size = text_.size();
    for (const auto part : parts)
      size += part.size();
    auto* next = text_.data() + text_.size();
    if (size > text_.capacity()) {
      text_.reserve(size);
      next = text_.data() + text_.size();
    }
    for (const auto part : parts)
      next = std::copy(part.begin(), part.end(), next);
    text_.resize(size);
    separator_ = ',';
  }

  Buffer& text_;
  char separator_ = '{';
};

template <typename Told>
void appendObject(Buffer& text, const Told& told) {
  Object object(text);
  tellFields(told, object);
}

void beginLines(Buffer& text) {
  text.clear();
  text.push_back('\n');
}

template <typename Told>
void appendLine(Buffer& text, const Told& told) {
  appendObject(text, told);
  text.push_back('\n');
}

template <typename Told>
void appendTold(std::string& text, const Told& told) {
  Buffer object;
  appendObject(object, told);
  text.append(object.data(), object.size());
}

}  // namespace

void appendJson(std::string& text, const CallRecord& record) { appendTold(text, record); }

void appendJson(std::string& text, const CallGap& gap) { appendTold(text, gap); }

CallJsonFile::CallJsonFile(std::string path)
    : file_(std::move(path)), torn_(file_.openedWithinLine()) {}

void CallJsonFile::reopen() {
  const vorn::lock_guard lock(mutex_);
  file_.reopen();
  torn_ = file_.openedWithinLine();
}

std::size_t CallJsonFile::write(std::span<const CallRecord* const> records) {
  constexpr std::size_t kEnough = 1 << 16;  // for one write
  Buffer text;
  std::size_t taken = 0;
  while (taken < records.size()) {
    beginLines(text);
    auto end = taken;
    for (; end < records.size() && text.size() < kEnough; ++end)
      appendLine(text, *records[end]);
    const auto lines = linesWritten({text.data(), text.size()}, end - taken);
    taken += lines;
    if (taken < end) break;
  }
  return taken;
}

bool CallJsonFile::writeGap(const CallGap& gap) {
  Buffer text;
  beginLines(text);
  appendLine(text, gap);
  return linesWritten({text.data(), text.size()}, 1) == 1;
}

// Writes a text of so many lines, and returns how many of them are in the file as a whole. The text
// begins with a line's end, for a file that ends within a line.
std::size_t CallJsonFile::linesWritten(std::string_view text, std::size_t lines) {
  const vorn::lock_guard lock(mutex_);
  if (!torn_) text.remove_prefix(1);
  const auto written = text.substr(0, file_.append(text));
  if (written.empty()) return 0;
  const bool tornBefore = std::exchange(torn_, written.back() != '\n');
  if (written.size() == text.size()) return lines;
  const auto ends = std::count(written.begin(), written.end(), '\n');
  return static_cast<std::size_t>(ends) - (tornBefore ? 1 : 0);
}

}  // namespace VornSdkRpc
