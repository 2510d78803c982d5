#pragma once

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace test {

// Takes over a logger's sinks for its lifetime, and keeps the text of every line that is written.
class Capture {
 public:
  explicit Capture(spdlog::logger& logger) : logger_(logger), before_(logger.sinks()) {
    logger_.sinks() = {sink_};
  }
  ~Capture() { logger_.sinks() = before_; }
  Capture(Capture const&) = delete;
  Capture& operator=(Capture const&) = delete;

  std::vector<std::string> lines() const { return sink_->lines(); }

  // How many lines hold `text`.
  std::size_t count(std::string_view text) const {
    const auto all = lines();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](auto const& line) {
      return line.find(text) != std::string::npos;
    }));
  }

 private:
  class Sink : public spdlog::sinks::base_sink<std::mutex> {
   public:
    std::vector<std::string> lines() {
      const std::lock_guard lock(mutex_);
      return lines_;
    }

   private:
    void sink_it_(spdlog::details::log_msg const& message) override {
      lines_.emplace_back(message.payload.data(), message.payload.size());
    }
    void flush_() override {}

    std::vector<std::string> lines_;
  };

  spdlog::logger& logger_;
  std::vector<spdlog::sink_ptr> before_;
  std::shared_ptr<Sink> sink_ = std::make_shared<Sink>();
};

}  // namespace test
