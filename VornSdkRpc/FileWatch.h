#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>

namespace VornSdkRpc {

// The contents of a file of at most `limit` bytes. Throws std::system_error, whose text names the
// file and the reason. A file that is no regular one is refused, since it could be waited for.
std::string readFile(const std::string& path, std::size_t limit);

// Calls `look` again and again, on a thread of its own, until it is destroyed. An exception of
// `look` is dropped. An interval that is not positive starts no thread.
class FileWatch {
 public:
  FileWatch(std::chrono::milliseconds interval, std::function<void()> look);

 private:
  std::jthread thread_;
};

}  // namespace VornSdkRpc
