#pragma once

#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpcProtos/VornSdkRpc.pb.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace routing_agent {

using namespace VornSdkRpc::pb;

// Runs the SBFD echo sessions and tells their watchers what changes. This example has no data
// plane: an echo goes through a socket pair of the monitor's own, so the round-trip times are real
// ones of that path, and a session comes up with its second echo. A session that tracks its
// interface is down while this host has no interface of that name. Any thread may call any
// operation.
class SbfdMonitor {
 public:
  SbfdMonitor();
  ~SbfdMonitor();
  SbfdMonitor(const SbfdMonitor&) = delete;
  SbfdMonitor& operator=(const SbfdMonitor&) = delete;

  // Starts or changes a session, or ends it (request_delete).
  void set(const sbfd_echo_session_msg& session);

  // One watcher, for its lifetime. Begins with the present status of every session as news.
  class Watch {
   public:
    // `news` is set whenever there is something to take. Round-trip times are news when `rtt`.
    Watch(SbfdMonitor& monitor, VornSdkRpc::rpc::Event& news, bool rtt);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // The news since the last call, at most one status and one set of round-trip times for each
    // session, whatever it has been through meanwhile.
    std::vector<watch_sbfd_echo_session_status_msg> take();

   private:
    friend class SbfdMonitor;

    struct News {
      bool status = false;
      bool rtt = false;
    };

    SbfdMonitor& monitor_;
    VornSdkRpc::rpc::Event& event_;
    const bool rtt_;
    std::map<std::string, News> news_;                        // by the session's id
    std::map<std::string, sbfd_echo_session_key_msg> ended_;  // sessions that are no more
  };

 private:
  using Status = sbfd_echo_session_oper_status_msg;

  struct Session {
    sbfd_echo_session_msg config;
    Status::status_enum status = Status::UNKNOWN;
    std::chrono::steady_clock::time_point nextEcho;
    sbfd_echo_session_rtt_msg rtt;
    std::uint64_t echoes = 0;
    std::uint64_t rttSum = 0;  // of all echoes, microseconds
  };

  static std::string idOf(const sbfd_echo_session_key_msg& key);

  void run();
  void echo(const std::string& id, Session& session);
  static void account(Session& session, std::uint32_t rtt);
  std::optional<std::uint32_t> roundTrip() const;  // microseconds; none when the echo was lost
  void changed(const std::string& id, bool status, bool rtt);

  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::map<std::string, Session> sessions_;
  std::set<Watch*> watches_;
  int sockets_[2] = {-1, -1};
  std::thread thread_;
};

}  // namespace routing_agent
