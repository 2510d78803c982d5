#pragma once

#include <VornSdkRpc/Listener.h>
#include <VornSdkRpc/OwnDescriptor.h>
#include <sys/socket.h>
#include <vorn/mutex.h>
#include <vorn/tracer.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>

namespace VornSdkRpc {

// What gRPC has counted of one connection, each at a time of its own: more calls may have been
// answered than had begun.
struct CallCounts {
  std::uint64_t begun = 0;
  std::uint64_t answered = 0;
  std::uint64_t failed = 0;    // abandoned, and forgotten by gRPC as well
  std::uint64_t messages = 0;  // received

  std::uint64_t unanswered() const { return begun - std::min(begun, answered); }
  std::uint64_t open() const { return unanswered() - std::min(unanswered(), failed); }
};

// Judges one connection by what its client has sent.
class FloodJudge {
 public:
  using Clock = std::chrono::steady_clock;

  explicit FloodJudge(const Listener::FloodLimits& limits) : limits_(limits) {}

  // What has become of the connection until now. Returns whether it is over a limit. Neither bytes
  // nor time go back.
  bool isFlood(const CallCounts& counts, std::uint64_t bytes, Clock::time_point now);

 private:
  bool hasAbandonedTooMany(const CallCounts& counts, Clock::time_point now);
  bool hasSentTooMuch(const CallCounts& counts, std::uint64_t bytes);

  Listener::FloodLimits limits_;
  CallCounts before_;
  Clock::time_point lookedAt_;
  double forgiven_ = 0;        // calls without an answer
  std::uint64_t bytesAt_ = 0;  // when something last came of them
};

// Closes TCP connections whose clients flood gRPC with what never reaches the agent. gRPC counts
// each connection's calls (its channelz); a thread looks at those that send something, twenty times
// a second, and finds a connection there by its addresses.
class FloodWatch {
 public:
  explicit FloodWatch(const Listener::FloodLimits& limits);
  ~FloodWatch();
  FloodWatch(const FloodWatch&) = delete;
  FloodWatch& operator=(const FloodWatch&) = delete;

  // Watches a connection from here on, until its last descriptor closes. Before gRPC has it. One
  // that is not of TCP is let be. `host` is the client's, whatever its port.
  void add(int connection, const sockaddr_storage& peer, const std::string& host);

  // Whether nothing is taken of a host, for what it has sent before.
  bool isShutOut(const std::string& host);

  // How many it has closed. Any thread.
  std::uint64_t closed() const { return closed_; }

 private:
  using Clock = FloodJudge::Clock;

  struct Connection {
    FileIdentity file;
    std::string name;  // in gRPC's list
    std::string host;
    int localPort = 0;
    std::intptr_t newerThan = 0;  // the id that gRPC has or will have for it
    FloodJudge judge;
    std::intptr_t id = 0;  // 0: not known yet
    std::uint64_t lookedAt = 0;
  };

  void run();
  bool handleEvents(int timeout);
  bool rest();
  void look(int fd);
  void close(const Connection& connection, int fd, const CallCounts& counts) VORN_REQUIRES(mutex_);
  void shutOut(const std::string& host) VORN_REQUIRES(mutex_);
  std::intptr_t find(const Connection& connection) VORN_REQUIRES(mutex_);
  std::intptr_t findIn(std::intptr_t server, const Connection& connection) VORN_REQUIRES(mutex_);

  const Listener::FloodLimits limits_;
  const vorn::tracer tracer_{"Listener"};
  int epoll_ = -1;
  OwnDescriptor stopped_;  // the end of a pipe that hangs up when `running_`, the other one, closes
  OwnDescriptor running_;
  vorn::mutex mutex_;
  // By their descriptors: one that has gone is there until its number is another's.
  std::unordered_map<int, Connection> connections_ VORN_GUARDED_BY(mutex_);
  std::intptr_t newest_ VORN_GUARDED_BY(mutex_) = 0;  // id that gRPC has told
  std::unordered_map<std::string, Clock::time_point> shutOutUntil_ VORN_GUARDED_BY(mutex_);
  std::atomic<std::uint64_t> closed_ = 0;

  // The thread's own.
  std::unordered_set<int> unread_;  // descriptors that gRPC has not read all from
  std::uint64_t untold_ = 0;
  Clock::time_point nextWord_ = Clock::time_point::min();
  std::jthread thread_;
};

}  // namespace VornSdkRpc
