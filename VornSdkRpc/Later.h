#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace VornSdkRpc {

// Does something after a while, unless it is destroyed before, on a thread that gRPC can't hold up.
// The destructor waits for what has begun.
class Later {
 public:
  static constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365);

  // A longer delay than kLongest is kLongest. Throws nothing: see planned().
  Later(std::chrono::milliseconds delay, std::function<void()> action);

  // False when there was no thread to be had.
  bool planned() const { return thread_.joinable(); }

 private:
  std::jthread thread_;
};

}  // namespace VornSdkRpc
