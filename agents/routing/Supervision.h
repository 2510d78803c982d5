#pragma once

#include <vorn/mutex.h>
#include <vorn/tracer.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

// What the service manager that has started the agent is told, by systemd's protocol: that the
// agent takes calls, how it does, that it still moves, and that it ends. Where there is none
// (NOTIFY_SOCKET is not set), nothing is said and no thread is started.
namespace routing_agent {

// Something that must not stand still: the serving loop, the backlog.
struct Moving {
  std::string name;
  std::function<std::uint64_t()> count;  // grows while it moves
  std::function<bool()> idle;            // it has nothing to do, so that it may stand still
};

class Supervision {
 public:
  // How often the status is told, where no watchdog asks for more.
  static constexpr std::chrono::seconds kInterval{5};

  // What moves is looked at no more often, so that a watchdog should allow a second.
  static constexpr std::chrono::milliseconds kLeastInterval{500};

  // `status` is the line that `systemctl status` shows. The functions are called on a thread of
  // this object, and refer to what outlives it. The watchdog is fed while each of `moving` has
  // moved since the last time or is idle; one that stands still is traced ("Supervision/0").
  Supervision(std::function<std::string()> status, std::vector<Moving> moving);

  // Says that the agent ends, if nobody has.
  ~Supervision();

  Supervision(const Supervision&) = delete;
  Supervision& operator=(const Supervision&) = delete;

  // The agent takes calls from now on. Any thread.
  void ready();

  // The agent ends, which takes at most so long. From now on nothing has to move. Any thread.
  void stopping(std::chrono::milliseconds atMost);

  // The agent reads its files again, until ready() is called. Any thread.
  void reloading();

 private:
  void run();
  void look();

  const std::function<std::string()> status_;
  const std::vector<Moving> moving_;
  const vorn::tracer tracer_{"Supervision"};
  std::chrono::microseconds interval_ = kInterval;
  std::vector<std::uint64_t> last_;  // counts at the last look
  vorn::mutex mutex_;
  std::condition_variable changed_;
  bool ready_ VORN_GUARDED_BY(mutex_) = false;
  bool stopping_ VORN_GUARDED_BY(mutex_) = false;
  bool over_ VORN_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace routing_agent
