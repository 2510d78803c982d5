#pragma once

#include <VornSdkRpc/RpcPublished.h>
#include <VornSdkRpcProtos/VornSdkRpc.pb.h>
#include <vorn/mutex.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "agents/routing/Descriptor.h"
#include "agents/routing/SbfdEcho.h"

namespace routing_agent {

using namespace VornSdkRpc::pb;

// Runs the SBFD echo sessions and publishes what changes. Echo packets go to the next hop and come
// back, and a session is down when as many in a row as its detection multiplier says did not (3
// where it says nothing). Where there may be no such packets, or none are wanted, the sessions are
// simulated: an echo goes through a socket pair of the monitor's own. A session that is down comes
// up with the second echo that comes back. A session that tracks its interface is down while there
// is no interface of that name, or it is down or has no carrier; when that can't be told, the
// session stays as it is. Any thread may call any operation.
class SbfdMonitor {
 public:
  // Told whenever a session goes down or is no longer down, with the session's key.
  using DownChanged = std::function<void(const sbfd_echo_session_key_msg& key, bool down)>;

  enum DataPlane : std::uint8_t { kSimulated, kPackets };

  // Works in the namespace `netns`, as `ip netns` knows it; empty: the calling thread's own.
  // `downChanged` is called on any thread, and must not call back. Without the right to send
  // packets (CAP_NET_RAW) the sessions are simulated, which a trace says.
  explicit SbfdMonitor(const std::string& netns = {}, DownChanged downChanged = {},
                       DataPlane dataPlane = kSimulated);
  ~SbfdMonitor();
  SbfdMonitor(const SbfdMonitor&) = delete;
  SbfdMonitor& operator=(const SbfdMonitor&) = delete;

  // Starts or changes a session, or ends it (request_delete).
  void set(const sbfd_echo_session_msg& session);

  // Sessions by their serialized keys, each with the item that a watcher is sent.
  using Sessions = VornSdkRpc::rpc::Published<std::string, watch_sbfd_echo_session_status_msg>;

  // Whether the sessions are simulated.
  bool simulated() const { return !echo_; }

  // What can be told of a session beside its status: why its echoes do not go out, and times.
  struct Details {
    std::string trouble;
    sbfd_echo_session_rtt_msg rtt;
  };
  Details details(const sbfd_echo_session_key_msg& key) const;

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
    std::uint32_t number = 0;    // that its packets carry
    std::uint32_t sent = 0;      // number of its last echo
    std::uint32_t returned = 0;  // number of the last one that came back
    std::string trouble;         // why the last one was not sent
    std::uint64_t echoes = 0;
    std::uint64_t rttSum = 0;  // of all echoes, microseconds
  };

  static std::string idOf(const sbfd_echo_session_key_msg& key);

  void run();
  void pause(std::chrono::steady_clock::time_point until) const;
  void wake() const;
  void echo(const std::string& id, Session& session) VORN_REQUIRES(mutex_);
  void sendEcho(const std::string& id, Session& session) VORN_REQUIRES(mutex_);
  void returned(const SbfdEcho::Returned& echo) VORN_REQUIRES(mutex_);
  void cameBack(const std::string& id, Session& session, std::uint32_t rtt) VORN_REQUIRES(mutex_);
  void statusIs(const std::string& id, Session& session, Status::status_enum status)
      VORN_REQUIRES(mutex_);
  enum class Link : std::uint8_t { up, down, unknown };
  Link link(const std::string& interface) const;
  void publishStatus(const std::string& id, const Session& session);
  void publishRoundTripTimes(const std::string& id, const Session& session);
  static void account(Session& session, std::uint32_t rtt);
  std::optional<std::uint32_t> roundTrip() const;  // microseconds; none when the echo was lost

  mutable vorn::mutex mutex_;
  std::atomic<bool> stopping_ = false;
  std::map<std::string, Session> sessions_ VORN_GUARDED_BY(mutex_);
  // Of the sessions, by their numbers.
  std::map<std::uint32_t, std::string> ids_ VORN_GUARDED_BY(mutex_);
  std::uint32_t numbers_ VORN_GUARDED_BY(mutex_) = 0;
  Sessions statuses_;
  Sessions roundTripTimes_;
  const DownChanged downChanged_;
  Descriptor interfaces_;  // a socket to ask for interfaces, so that this takes no new descriptor
  std::array<Descriptor, 2> sockets_;  // what simulated echoes go through
  Descriptor wake_;
  std::unique_ptr<SbfdEcho> echo_;  // null: simulated
  std::thread thread_;
};

}  // namespace routing_agent
