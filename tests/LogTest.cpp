#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "Capture.h"

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

TEST(Log, ASuppressedOccurrenceConvertsItsKeyAndNothingMore) {
  struct {
    unsigned keyArgs;
    int keyConversions;
    int otherConversions;
    std::size_t lines;
  } const cases[] = {
      {0, 1, 1, 1},  // one key for the message: the first occurrence alone
      {1, 3, 2, 2},  // a, (a), b
      {2, 3, 3, 3},
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
}

TEST(Log, KeysDifferWhereverTheirArgumentsDo) {
  const auto descriptor = described("%s%s");
  const Kiv::LogHandle handle(&descriptor, kForever, 1.0, 2, 0);
  const test::Capture log(Kiv::platformLogger());
  Kiv::log(handle, "ab", "c");
  Kiv::log(handle, "a", "bc");
  Kiv::log(handle, "abc", "");
  EXPECT_EQ(log.lines().size(), 3U);
}

TEST(Log, AKeyIsWrittenAgainWhenItsIntervalIsOver) {
  const auto descriptor = described("");
  const Kiv::LogHandle handle(&descriptor, std::chrono::milliseconds(1), 1.0, 0, 0);
  ASSERT_TRUE(handle.okToLog(1));
  while (!handle.okToLog(1)) {
  }
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

}  // namespace
