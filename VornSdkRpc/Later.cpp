#include <VornSdkRpc/Later.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <stop_token>
#include <utility>

namespace VornSdkRpc {

Later::Later(std::chrono::milliseconds delay, std::function<void()> action) {
  try {
    thread_ = std::jthread([delay, action = std::move(action)](const std::stop_token& dropped) {
      std::mutex mutex;
      std::unique_lock lock(mutex);
      std::condition_variable_any never;
      never.wait_for(lock, dropped, std::min(delay, kLongest), [] { return false; });
      if (!dropped.stop_requested()) action();
    });
  } catch (const std::exception&) {
    // planned() tells.
  }
}

}  // namespace VornSdkRpc
