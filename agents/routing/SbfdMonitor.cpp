#include "agents/routing/SbfdMonitor.h"

#include <VornSdkRpc/ScopedNamespace.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace routing_agent {

namespace {

// The shortest interval between two echoes of a session, however short its min_tx is.
constexpr auto kShortestInterval = std::chrono::milliseconds(100);

std::chrono::microseconds intervalOf(const sbfd_echo_session_msg& config) {
  return std::max<std::chrono::microseconds>(kShortestInterval,
                                             std::chrono::microseconds(config.min_tx()));
}

}  // namespace

SbfdMonitor::SbfdMonitor(const std::string& netns, DownChanged downChanged)
    : downChanged_(std::move(downChanged)) {
  {
    const VornSdkRpc::ScopedNamespace inside(netns);
    interfaces_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  }
  if (interfaces_ < 0 || socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sockets_) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot open a socket");
  }
  thread_ = std::thread([this] { run(); });
}

SbfdMonitor::~SbfdMonitor() {
  {
    const vorn::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
  for (const int fd : {interfaces_, sockets_[0], sockets_[1]})
    close(fd);
}

void SbfdMonitor::set(const sbfd_echo_session_msg& session) {
  const std::string id = idOf(session.session_key());
  const vorn::lock_guard lock(mutex_);
  if (session.request_delete()) {
    const auto entry = sessions_.find(id);
    if (entry == sessions_.end()) return;
    if (entry->second.status == Status::DOWN && downChanged_)
      downChanged_(session.session_key(), false);
    sessions_.erase(entry);
    statuses_.remove(id);
    roundTripTimes_.remove(id);
  } else {
    const auto [entry, added] = sessions_.try_emplace(id);
    entry->second.config = session;
    entry->second.nextEcho = std::chrono::steady_clock::now();
    if (added) {
      entry->second.status = Status::INIT;
      publishStatus(id, entry->second);
    }
  }
  wake_.notify_one();
}

std::string SbfdMonitor::idOf(const sbfd_echo_session_key_msg& key) {
  return key.SerializeAsString();
}

// Sleeps until the next echo is due; without sessions, until there is one.
void SbfdMonitor::run() {
  vorn::unique_lock lock(mutex_);
  while (!stopping_) {
    if (sessions_.empty()) {
      wake_.wait(lock);
      continue;
    }
    auto next = std::chrono::steady_clock::time_point::max();
    const auto now = std::chrono::steady_clock::now();
    for (auto& [id, session] : sessions_) {
      if (session.nextEcho <= now) echo(id, session);
      next = std::min(next, session.nextEcho);
    }
    wake_.wait_until(lock, next);
  }
}

void SbfdMonitor::echo(const std::string& id, Session& session) {
  session.nextEcho += intervalOf(session.config);
  const auto& interface = session.config.session_key().outgoing_interface();
  const Link link = session.config.track_interface_state() ? this->link(interface) : Link::up;
  if (link == Link::unknown) return;
  const auto rtt = link == Link::up ? roundTrip() : std::nullopt;
  if (!rtt) return statusIs(id, session, Status::DOWN);
  statusIs(id, session, session.status == Status::DOWN ? Status::INIT : Status::UP);
  if (!session.config.rtt_enabled()) return;
  account(session, *rtt);
  publishRoundTripTimes(id, session);
}

void SbfdMonitor::statusIs(const std::string& id, Session& session, Status::status_enum status) {
  const auto before = std::exchange(session.status, status);
  if (before == status) return;
  publishStatus(id, session);
  const bool down = status == Status::DOWN;
  if (downChanged_ && down != (before == Status::DOWN))
    downChanged_(session.config.session_key(), down);
}

// A shortage of anything is not taken for an interface that is gone.
SbfdMonitor::Link SbfdMonitor::link(const std::string& interface) const {
  ifreq request{};
  if (interface.size() >= sizeof request.ifr_name) return Link::down;
  std::copy(interface.begin(), interface.end(), request.ifr_name);
  if (ioctl(interfaces_, SIOCGIFFLAGS, &request) != 0)
    return errno == ENODEV ? Link::down : Link::unknown;
  const bool up = (request.ifr_flags & IFF_UP) != 0 && (request.ifr_flags & IFF_RUNNING) != 0;
  return up ? Link::up : Link::down;
}

void SbfdMonitor::account(Session& session, std::uint32_t rtt) {
  ++session.echoes;
  session.rttSum += rtt;
  auto& times = session.rtt;
  times.set_last_rtt(rtt);
  times.set_min_rtt(session.echoes == 1 ? rtt : std::min(times.min_rtt(), rtt));
  times.set_max_rtt(std::max(times.max_rtt(), rtt));
  times.set_avg_rtt(static_cast<std::uint32_t>(session.rttSum / session.echoes));
  // Every echo is a report, so the snapshot since the last one is the echo itself.
  times.set_snapshot_min_rtt(rtt);
  times.set_snapshot_avg_rtt(rtt);
  times.set_snapshot_max_rtt(rtt);
}

std::optional<std::uint32_t> SbfdMonitor::roundTrip() const {
  const auto start = std::chrono::steady_clock::now();
  char byte = 0;
  for (const int side : {0, 1}) {
    if (send(sockets_[side], &byte, 1, MSG_NOSIGNAL) != 1 ||
        // NOLINTNEXTLINE(clang-analyzer-unix.BlockInCriticalSection): MSG_DONTWAIT
        recv(sockets_[1 - side], &byte, 1, MSG_DONTWAIT) != 1) {
      return std::nullopt;
    }
  }
  const auto time = std::chrono::steady_clock::now() - start;
  return static_cast<std::uint32_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

void SbfdMonitor::publishStatus(const std::string& id, const Session& session) {
  watch_sbfd_echo_session_status_msg item;
  *item.mutable_session_key() = session.config.session_key();
  item.mutable_status()->set_status(session.status);
  statuses_.set(id, std::move(item));
}

void SbfdMonitor::publishRoundTripTimes(const std::string& id, const Session& session) {
  watch_sbfd_echo_session_status_msg item;
  *item.mutable_session_key() = session.config.session_key();
  *item.mutable_rtt() = session.rtt;
  roundTripTimes_.set(id, std::move(item));
}

}  // namespace routing_agent
