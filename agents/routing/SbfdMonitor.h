#pragma once

#include <VornSdkRpc/RpcPublished.h>
#include <VornSdkRpcProtos/VornSdkRpc.pb.h>
#include <vorn/mutex.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>

namespace routing_agent {

using namespace VornSdkRpc::pb;

// Runs the SBFD echo sessions and publishes what changes. This example has no data
// plane: an echo goes through a socket pair of the monitor's own, so the round-trip times are real
// ones of that path, and a session comes up with its second echo. A session that tracks its
// interface is down while there is no interface of that name, or it is down or has no carrier; when
// that can't be told, the session stays as it is. Any thread may call any operation.
class SbfdMonitor {
 public:
  // Told whenever a session goes down or is no longer down, with the session's key.
  using DownChanged = std::function<void(const sbfd_echo_session_key_msg& key, bool down)>;

  // Looks for interfaces in the namespace `netns`, as `ip netns` knows it; empty: the calling
  // thread's own. `downChanged` is called on any thread, and must not call back.
  explicit SbfdMonitor(const std::string& netns = {}, DownChanged downChanged = {});
  ~SbfdMonitor();
  SbfdMonitor(const SbfdMonitor&) = delete;
  SbfdMonitor& operator=(const SbfdMonitor&) = delete;

  // Starts or changes a session, or ends it (request_delete).
  void set(const sbfd_echo_session_msg& session);

  // Sessions by their serialized keys, each with the item that a watcher is sent.
  using Sessions = VornSdkRpc::rpc::Published<std::string, watch_sbfd_echo_session_status_msg>;

  // The status of every session, and the round-trip times of those that measure them.
  Sessions& statuses() { return statuses_; }
  Sessions& roundTripTimes() { return roundTripTimes_; }

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
  void echo(const std::string& id, Session& session) VORN_REQUIRES(mutex_);
  void statusIs(const std::string& id, Session& session, Status::status_enum status)
      VORN_REQUIRES(mutex_);
  enum class Link : std::uint8_t { up, down, unknown };
  Link link(const std::string& interface) const;
  void publishStatus(const std::string& id, const Session& session);
  void publishRoundTripTimes(const std::string& id, const Session& session);
  static void account(Session& session, std::uint32_t rtt);
  std::optional<std::uint32_t> roundTrip() const;  // microseconds; none when the echo was lost

  vorn::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ VORN_GUARDED_BY(mutex_) = false;
  std::map<std::string, Session> sessions_ VORN_GUARDED_BY(mutex_);
  Sessions statuses_;
  Sessions roundTripTimes_;
  const DownChanged downChanged_;
  int interfaces_ = -1;  // a socket to ask for interfaces, so that this takes no new descriptor
  int sockets_[2] = {-1, -1};
  std::thread thread_;
};

}  // namespace routing_agent
