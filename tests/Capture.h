#pragma once

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test {

// Takes over a logger's sinks for its lifetime, and keeps the text of every line that is written.
class Capture {
 public:
  // `afterEach`, if given, runs for every line on the thread that writes it, when it has been kept;
  // what it throws, the sink throws. lines() and count() wait until it returns.
  explicit Capture(spdlog::logger& logger, std::function<void()> afterEach = {})
      : logger_(logger),
        before_(logger.sinks()),
        sink_(std::make_shared<Sink>(std::move(afterEach))) {
    logger_.sinks() = {sink_};
  }
  ~Capture() { logger_.sinks() = before_; }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  std::vector<std::string> lines() const { return sink_->lines(); }

  // How many lines hold `text`.
  std::size_t count(std::string_view text) const {
    const auto all = lines();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const auto& line) {
      return line.find(text) != std::string::npos;
    }));
  }

 private:
  class Sink : public spdlog::sinks::base_sink<std::mutex> {
   public:
    explicit Sink(std::function<void()> afterEach) : afterEach_(std::move(afterEach)) {}

    std::vector<std::string> lines() {
      const std::lock_guard lock(mutex_);
      return lines_;
    }

   private:
    void sink_it_(const spdlog::details::log_msg& message) override {
      lines_.emplace_back(message.payload.data(), message.payload.size());
      if (afterEach_) afterEach_();
    }
    void flush_() override {}

    std::function<void()> afterEach_;
    std::vector<std::string> lines_;
  };

  spdlog::logger& logger_;
  std::vector<spdlog::sink_ptr> before_;
  std::shared_ptr<Sink> sink_;
};

}  // namespace test
