#pragma once

#include <Velm/Duration.h>
#include <Velm/String.h>
#include <spdlog/logger.h>
#include <vorn/export.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

// The platform log: messages that are declared once, as a descriptor, and written through a handle
// that may suppress repeated occurrences. A line is the message id, a colon, a blank and the
// formatted text, and it is one line of at most kLineMax bytes whatever its arguments hold
// (Kiv/Line.h): what could end it or drive a terminal is written as \xNN, and the arguments of a
// line that would be longer are cut.
//
//   [[gnu::section(".tolmar_logmsg"), gnu::used, gnu::retain]] Kiv::LogDescriptor restarted = {
//       "AGENT_RESTARTED", "agent %s restarted, reason %s", "An agent was restarted", "\x01", 6};
//   Kiv::LogHandle restartedHandle(&restarted, std::chrono::minutes(1), 1.0, 1, 0);
//
// It is written with
//
//   Kiv::log(restartedHandle, agentName, reason);  // at most once a minute for an agent
namespace Kiv {

// The logger that every log line is written through; it passes every level. Its one sink is syslog
// where /dev/log exists, under the identity that the process gave itself with openlog(3), and
// standard error otherwise (Kiv/StderrSink.h), until the agent replaces sinks(), which is to be
// done before other threads log. Never destroyed, so that static destructors can still log.
//
// A sink that throws costs its line and nothing else. The first failure of the sinks is told as a
// level-0 trace line of the handle "PlatformLog"; from then on, as long as the same sinks are
// installed, one failure an hour at most is told, with the number of failures so far.
VORN_EXPORT spdlog::logger& platformLogger();

// The priority of syslog(3) that lines of a level have, there and in the journal.
VORN_EXPORT int priorityOf(spdlog::level::level_enum level);

// While one lives, the lines that its thread logs may wait, so that many are one write to sinks
// that can do that (Kiv/LineSink.h); then the sinks are flushed. Lines of other threads wait for
// nothing.
class VORN_EXPORT LogBatch {
 public:
  LogBatch();
  ~LogBatch();
  LogBatch(const LogBatch&) = delete;
  LogBatch& operator=(const LogBatch&) = delete;
};

// What is known about a message before it is written. The section .tolmar_logmsg holds a library's
// descriptors and nothing else; there tools read its messages without running it.
struct LogDescriptor {
  const char* messageId;
  const char* format;       // every %s takes the next argument's text, %% is a percent sign
  const char* explanation;  // what the message tells an operator
  const char* marker;       // carried for the platform; this layer has no use for it
  std::uint64_t severity;   // syslog's: 0 emergency to 7 debug
};
static_assert(sizeof(LogDescriptor) == 40, "tools rely on five 8-byte fields");

// The position of an argument, from 0.
using LogStringIndex = unsigned;

// The arguments of one occurrence, as texts that are the caller's.
using LogArgs = std::span<const std::string_view>;

// The arguments of one occurrence as texts of its own, however many, and the hash of those that are
// its suppression key. Who knows the number uses log(handle, values...), which copies no text.
class VORN_EXPORT LogString {
 public:
  LogString() = default;

  // The number of arguments, each empty until strIs.
  void argCountIs(unsigned count) { texts_.resize(count); }
  unsigned argCount() const { return static_cast<unsigned>(texts_.size()); }

  // Stores the text of an argument; an index past the last one adds arguments.
  void strIs(LogStringIndex index, const Velm::String& text);

  // The text of an argument; empty when it has none.
  std::string_view str(LogStringIndex index) const;

  void hashIs(std::uint32_t hash) { hash_ = hash; }
  std::uint32_t hash() const { return hash_; }

 private:
  std::uint32_t hash_ = 0;
  std::vector<Velm::String> texts_;
};

// Through which the occurrences of one message are written. Any thread may use it.
class VORN_EXPORT LogHandle {
 public:
  // `descriptor` must outlive the handle. An `interval` of zero suppresses nothing; otherwise an
  // occurrence is suppressed when one with the same key was written less than the interval ago. The
  // key is the first `keyArgs` arguments: with 0 the message as a whole has one key. `factor` and
  // `extra` are carried for the platform; this layer has no use for them.
  LogHandle(const LogDescriptor* descriptor, Velm::Duration interval, double factor,
            unsigned keyArgs, unsigned extra);
  ~LogHandle();
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  // The number of leading arguments that are an occurrence's suppression key.
  std::uint32_t rateLimitArgsMask() const { return keyArgs_; }

  // A hash of the message id.
  std::uint32_t idHash() const { return idHash_; }

  // Whether the occurrence of this key is to be written now, where `key` is idHash() exclusive-or
  // the hash of the key arguments. True starts a new interval for the key. At most 4096 keys are
  // remembered, the latest ones: beyond that, messages are written too often rather than lost. Keys
  // are told apart by this hash alone.
  bool okToLog(std::uint32_t key) const;

  // Writes the message with the arguments' texts in place of the format's conversions, at the
  // severity of the descriptor. Throws std::bad_alloc, and only before anything is written; it
  // takes memory only for a line that is long or not plain.
  void log(LogArgs args) const;
  void log(const LogString& record) const;

 private:
  class Suppressor;

  const LogDescriptor* descriptor_;
  std::uint32_t keyArgs_;
  std::uint32_t idHash_;
  std::unique_ptr<Suppressor> suppressor_;  // null: every occurrence is written
};

// The text of an integer, in decimal. A type of an agent's own is logged by declaring a
// valueToString for it in the type's namespace.
VORN_EXPORT Velm::String valueToString(const int& value);

// Another type must not be turned into an int on the way.
template <typename Other>
Velm::String valueToString(const Other&) = delete;

namespace Impl {

// A hash of the texts of the first `count` arguments, each with its length.
VORN_EXPORT std::uint32_t logArgsHash(LogArgs args, unsigned count);
VORN_EXPORT std::uint32_t logArgsHash(const LogString& record, unsigned count);

// The texts of some values: those that are none are made, when they are asked for.
template <std::size_t count>
class ArgTexts {
 public:
  // Converts and stores the values from position `first` up to, not including, `last`.
  template <typename... Values>
  void store(unsigned first, unsigned last, const Values&... values) {
    unsigned index = 0;
    const auto storeOne = [&](const auto& value) {
      if (index >= first && index < last) storeAt(index, value);
      ++index;
    };
    (storeOne(values), ...);
  }

  operator LogArgs() const { return texts_; }

 private:
  template <typename Value>
  void storeAt(unsigned index, const Value& value) {
    if constexpr (std::is_convertible_v<const Value&, std::string_view>) {
      texts_[index] = value;
    } else {
      texts_[index] = made_[index] = valueToString(value);
    }
  }

  std::array<std::string_view, count> texts_;
  std::array<Velm::String, count> made_;
};

}  // namespace Impl

// Writes one occurrence of a message, or suppresses it. The values, texts or whatever valueToString
// takes, fill the format's conversions in order. Only the key arguments are converted before the
// decision, so a suppressed occurrence costs little. Throws std::bad_alloc, and only before
// anything is written.
template <typename... Values>
void log(const LogHandle& handle, const Values&... values) {
  const std::uint32_t keyArgs = handle.rateLimitArgsMask();
  Impl::ArgTexts<sizeof...(Values)> texts;
  texts.store(0, keyArgs, values...);
  if (!handle.okToLog(handle.idHash() ^ Impl::logArgsHash(texts, keyArgs))) return;
  texts.store(keyArgs, std::numeric_limits<unsigned>::max(), values...);
  handle.log(texts);
}

}  // namespace Kiv
