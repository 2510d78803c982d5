#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace routing_agent {

// Calls a function for each SIGHUP, on a thread of its own, for the lifetime of one object.
class ReloadOnSignal {
 public:
  // Holds SIGHUP back in the calling thread and in those that it starts from now on: to be called
  // before there is another thread. One that has come by then reaches the first object.
  static void holdSignal();

  // What `reload` throws is traced ("ReloadOnSignal/0").
  explicit ReloadOnSignal(std::function<void()> reload);

  // Returns when a call in progress has.
  ~ReloadOnSignal();

  ReloadOnSignal(const ReloadOnSignal&) = delete;
  ReloadOnSignal& operator=(const ReloadOnSignal&) = delete;

 private:
  void run();

  const std::function<void()> reload_;
  std::atomic<bool> over_ = false;
  std::thread thread_;
};

}  // namespace routing_agent
