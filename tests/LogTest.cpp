#include <Kiv/Line.h>
#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/Capture.h"
#include "tests/WaitUntil.h"

using testing::ElementsAre;
using namespace std::string_literals;

namespace logged {

// A value that counts how often it is turned into text.
struct Counted {
  std::string text;
  int* conversions;
};

Velm::String valueToString(const Counted& value) {
  ++*value.conversions;
  return Velm::String(std::string_view(value.text));
}

}  // namespace logged

namespace {

using logged::Counted;

constexpr auto kForever = std::chrono::hours(1);

Kiv::LogDescriptor described(const char* format) {
  return {"TEST_MESSAGE", format, "Written by a test", "\x01", 6};
}

TEST(Log, FillsTheFormatAndKeepsEveryRecordOneLine) {
  struct {
    const char* format;
    std::string first;
    std::string second;
    const char* line;
  } const cases[] = {
      {"a: %s, b: %s", "1", "", "a: 1, b: "},
      {"%s%s", "%s", "%%", "%s%%"},  // a value is not a format
      {"100%% %d %s %", "x", "", "100% %d x %"},
      {"%s", "x", "too many", "x"},
      {"%s %s %s", "x", "y", "x y %s"},
      {"%s|%s", "a\0b"s, "c\x7f", "a\\x00b|c\\x7f"},
      {"user: %s%s", "eve\nTEST_MESSAGE: user: root\r", "",
       "user: eve\\x0aTEST_MESSAGE: user: root\\x0d"},
  };
  for (const auto& c : cases) {
    const test::Capture log(Kiv::platformLogger());
    const auto descriptor = described(c.format);
    const Kiv::LogHandle handle(&descriptor, Velm::Duration(0), 1.0, 0, 0);
    Kiv::log(handle, c.first, c.second);
    EXPECT_THAT(log.lines(), ElementsAre("TEST_MESSAGE: "s + c.line));
  }
  const test::Capture log(Kiv::platformLogger());
  const auto descriptor = described("%s %s");
  Kiv::log(Kiv::LogHandle(&descriptor, Velm::Duration(0), 1.0, 0, 0), -7, 0);
  EXPECT_THAT(log.lines(), ElementsAre("TEST_MESSAGE: -7 0"));
}

TEST(Line, WritesWhatReadersActOnAsEscapes) {
  const std::pair<std::string, std::string> cases[] = {
      {"Ångström 東京 \U0001F600 CORP\\alice C:\\x \\xg0 \\", ""},  // stays as it is
      {"\u009b31mred\u0085root", "\\xc2\\x9b31mred\\xc2\\x85root"},
      {"a\u2028b\u2029c", "a\\xe2\\x80\\xa8b\\xe2\\x80\\xa9c"},
      {"\u202e\u2066\u2069", "\\xe2\\x80\\xae\\xe2\\x81\\xa6\\xe2\\x81\\xa9"},
      {"\u200e\u200f\u061c", "\\xe2\\x80\\x8e\\xe2\\x80\\x8f\\xd8\\x9c"},
      {"\u00a0\u200d\u202f\u2065\u206a", ""},  // their neighbours
      {"\\x0a \\xAF \\\\x00", "\\x5cx0a \\x5cxAF \\\\x5cx00"},
      {"\\x0", ""},
      {"\x80 \xc3", "\\x80 \\xc3"},                           // half a character
      {"\xc0\x8a\xe0\x80\x8a", "\\xc0\\x8a\\xe0\\x80\\x8a"},  // a line feed in too long a form
      {"\xc1\x81", "\\xc1\\x81"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},  // a surrogate
      {"\xf4\x90\x80\x80\xff", "\\xf4\\x90\\x80\\x80\\xff"},
  };
  for (const auto& [text, line] : cases)
    EXPECT_EQ(Kiv::oneLine(text), line.empty() ? text : line);
}

TEST(Line, IsCutBetweenCharactersAndSaysSo) {
  EXPECT_EQ(Kiv::cutTo("abcd", 4), "abcd");
  EXPECT_EQ(Kiv::cutTo("abcde", 4), "abcd...[cut]");
  EXPECT_EQ(Kiv::cutTo("abcdé", 5), "abcd...[cut]");
  EXPECT_EQ(Kiv::cutTo("ab\U0001F600", 5), "ab...[cut]");
  EXPECT_EQ(Kiv::cutTo(std::string(9, '\x80'), 5), std::string(5, '\x80') + "...[cut]");
  EXPECT_EQ(Kiv::oneLine("0123456789ab", 12), "0123456789ab");
  EXPECT_EQ(Kiv::oneLine("0123456789abc", 12), "0\\x2e..[cut]");
  EXPECT_EQ(Kiv::oneLine("\r\r\r\r", 16), "\\x0d\\x0d\\x0d\\x0d");
  EXPECT_EQ(Kiv::oneLine("\r\r\r\r", 15), "\\x0d\\x2e..[cut]");
}

TEST(Line, ThatIsTooLongKeepsItsWordsAndItsShortArguments) {
  const test::Capture log(Kiv::platformLogger());
  const auto write = [](const char* format, const std::string& first) {
    const auto descriptor = described(format);
    Kiv::log(Kiv::LogHandle(&descriptor, Velm::Duration(0), 1.0, 0, 0), first, "bob");
  };
  write("a: %s, b: %s, end", std::string(1024, '\0'));
  write("a: %s, b: %s, end", std::string(100000, '\r'));
  const std::string words(9000, 'w');
  write(words.c_str(), "");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].size(), 4 * 1024 + "TEST_MESSAGE: a: , b: bob, end"s.size());
  for (const auto& line : lines)
    EXPECT_LE(line.size(), Kiv::kLineMax);
  EXPECT_THAT(lines[1], testing::EndsWith("\\x0d\\x2e..[cut], b: bob, end"));
  EXPECT_THAT(lines[2], testing::EndsWith("w\\x2e..[cut]"));

  const test::Capture trace(Kiv::traceLogger());
  Kiv::TraceHandle("a\u0085", false).write(0, "\u2028" + words);
  ASSERT_THAT(trace.lines(), ElementsAre(testing::StartsWith("a\\xc2\\x85/0: \\xe2\\x80\\xa8ww")));
  EXPECT_LE(trace.lines()[0].size(), Kiv::kLineMax);
}

TEST(Log, ASuppressedOccurrenceConvertsItsKeyAndNothingMore) {
  struct {
    unsigned keyArgs;
    int keyConversions;
    int otherConversions;
    std::size_t lines;
  } const cases[] = {
      {0, 1, 1, 1},  // one key for the message: the first occurrence alone
      {1, 3, 2, 2},  // a, (a), b
      {2, 3, 3, 3},  // a byte that moves from one argument to the next makes another key
      {9, 3, 3, 3},
  };
  for (const auto& c : cases) {
    const test::Capture log(Kiv::platformLogger());
    const auto descriptor = described("%s %s");
    const Kiv::LogHandle handle(&descriptor, kForever, 1.0, c.keyArgs, 0);
    int keys = 0, others = 0;
    Kiv::log(handle, Counted{"a", &keys}, Counted{"bc", &others});
    Kiv::log(handle, Counted{"a", &keys}, Counted{"c", &others});
    Kiv::log(handle, Counted{"ab", &keys}, Counted{"c", &others});
    EXPECT_EQ(keys, c.keyConversions) << c.keyArgs;
    EXPECT_EQ(others, c.otherConversions) << c.keyArgs;
    EXPECT_EQ(log.lines().size(), c.lines) << c.keyArgs;
  }
  Kiv::LogString one, other;
  for (auto* record : {&one, &other})
    record->strIs(0, Velm::String("the key"));
  other.strIs(1, Velm::String("and more"));
  EXPECT_EQ(Kiv::Impl::logArgsHash(one, 1), Kiv::Impl::logArgsHash(other, 1));
}

TEST(Log, ALineHasThePriorityOfItsMessage) {
  auto& sinks = Kiv::platformLogger().sinks();
  const auto ring = std::make_shared<spdlog::sinks::ringbuffer_sink_st>(8);
  const auto before = std::exchange(sinks, {ring});
  for (const std::uint64_t severity : {0, 2, 3, 4, 5, 6, 7}) {
    auto descriptor = described("");
    descriptor.severity = severity;
    Kiv::log(Kiv::LogHandle(&descriptor, Velm::Duration(0), 1.0, 0, 0), "");
  }
  sinks = before;
  std::vector<int> priorities;
  for (const auto& line : ring->last_raw())
    priorities.push_back(Kiv::priorityOf(line.level));
  EXPECT_THAT(priorities, ElementsAre(2, 2, 3, 4, 6, 6, 7));
}

TEST(Log, AKeyIsWrittenAgainWhenItsIntervalIsOver) {
  const auto descriptor = described("");
  const Kiv::LogHandle handle(&descriptor, std::chrono::milliseconds(1), 1.0, 0, 0);
  ASSERT_TRUE(handle.okToLog(1));
  test::waitUntil([&] { return handle.okToLog(1); }, "the key is written again");
}

TEST(Log, RemembersTheLatestKeysOnly) {
  const auto descriptor = described("");
  const Kiv::LogHandle handle(&descriptor, kForever, 1.0, 0, 0);
  for (std::uint32_t key = 0; key <= 4096; ++key)
    ASSERT_TRUE(handle.okToLog(key));
  EXPECT_FALSE(handle.okToLog(4096));
  EXPECT_FALSE(handle.okToLog(1));
  EXPECT_TRUE(handle.okToLog(0));
}

TEST(Log, ASinkThatThrowsIsToldOnceAndStopsNothing) {
  const test::Capture trace(Kiv::traceLogger());
  const auto descriptor = described("%s");
  const Kiv::LogHandle handle(&descriptor, Velm::Duration(0), 1.0, 0, 0);
  const auto logThree = [&](auto thrown) {
    const test::Capture log(Kiv::platformLogger(), [&] { throw thrown; });
    for (int i = 0; i < 3; ++i)
      Kiv::log(handle, i);
    return log.lines().size();
  };
  EXPECT_EQ(logThree(std::runtime_error("disk full")), 3U);
  EXPECT_EQ(trace.count("PlatformLog/0: "), 1U);
  EXPECT_EQ(trace.count("disk full"), 1U);
  // Other sinks that fail are news, whatever they throw.
  EXPECT_EQ(logThree(42), 3U);
  EXPECT_EQ(trace.count("PlatformLog/0: "), 2U);
}

TEST(Trace, TheSettingHoldsForHandlesThatExistAndThoseMadeLater) {
  const Kiv::TraceHandle before("GrpcServer", false);
  Kiv::traceSettingIs(" GrpcServer/3-5,, */7");
  EXPECT_THROW(Kiv::traceSettingIs("GrpcServer/9,GrpcServer/32"), std::invalid_argument);
  const Kiv::TraceHandle after("GrpcServer", false), other("Other", false);
  for (unsigned level = 0; level < 32; ++level) {
    EXPECT_EQ(before.enabled(level), level == 0 || (level >= 3 && level <= 5) || level == 7);
    EXPECT_EQ(after.enabled(level), before.enabled(level));
    EXPECT_EQ(other.enabled(level), level == 0 || level == 7);
  }
  Kiv::traceSettingIs("");
}

}  // namespace
