#include "agents/routing/SbfdMonitor.h"

#include <VornSdkRpc/ScopedNamespace.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vorn/tracer.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
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

std::uint32_t multiplierOf(const sbfd_echo_session_msg& config) {
  constexpr std::uint32_t kUsual = 3;
  return config.detection_multiplier() == 0 ? kUsual : config.detection_multiplier();
}

// Null when packets may not be sent.
std::unique_ptr<SbfdEcho> openEcho(const std::string& netns) try {
  return std::make_unique<SbfdEcho>(netns);
} catch (const std::system_error& error) {
  if (error.code().value() != EPERM && error.code().value() != EAFNOSUPPORT) throw;
  vorn::tracer("Sbfd").warn("sessions are simulated: %s", error.what());
  return nullptr;
}

}  // namespace

SbfdMonitor::SbfdMonitor(const std::string& netns, DownChanged downChanged, DataPlane dataPlane)
    : downChanged_(std::move(downChanged)) {
  if (dataPlane == kPackets) echo_ = openEcho(netns);
  {
    const VornSdkRpc::ScopedNamespace inside(netns);
    interfaces_ = Descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  }
  wake_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  std::array<int, 2> pair{};
  if (interfaces_ < 0 || wake_ < 0 ||
      socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot open a socket");
  }
  sockets_ = {Descriptor(pair[0]), Descriptor(pair[1])};
  thread_ = std::thread([this] { run(); });
}

SbfdMonitor::~SbfdMonitor() {
  stopping_ = true;
  wake();
  thread_.join();
}

void SbfdMonitor::set(const sbfd_echo_session_msg& session) {
  const std::string id = idOf(session.session_key());
  const vorn::lock_guard lock(mutex_);
  if (session.request_delete()) {
    const auto entry = sessions_.find(id);
    if (entry == sessions_.end()) return;
    if (entry->second.status == Status::DOWN && downChanged_)
      downChanged_(session.session_key(), false);
    if (echo_) echo_->forget(entry->second.number);
    ids_.erase(entry->second.number);
    sessions_.erase(entry);
    statuses_.remove(id);
    roundTripTimes_.remove(id);
  } else {
    const auto [entry, added] = sessions_.try_emplace(id);
    entry->second.config = session;
    entry->second.nextEcho = std::chrono::steady_clock::now();
    if (added) {
      entry->second.number = ++numbers_;
      ids_[entry->second.number] = id;
      entry->second.status = Status::INIT;
      publishStatus(id, entry->second);
    }
  }
  wake();
}

SbfdMonitor::Details SbfdMonitor::details(const sbfd_echo_session_key_msg& key) const {
  const vorn::lock_guard lock(mutex_);
  const auto entry = sessions_.find(idOf(key));
  return entry == sessions_.end() ? Details() : Details{entry->second.trouble, entry->second.rtt};
}

std::string SbfdMonitor::idOf(const sbfd_echo_session_key_msg& key) {
  return key.SerializeAsString();
}

// Sleeps until the next echo is due; without sessions, until there is one.
void SbfdMonitor::run() {
  while (!stopping_) {
    auto next = std::chrono::steady_clock::time_point::max();
    {
      const vorn::lock_guard lock(mutex_);
      if (echo_) {
        for (const auto& echo : echo_->receive())
          returned(echo);
      }
      const auto now = std::chrono::steady_clock::now();
      for (auto& [id, session] : sessions_) {
        if (session.nextEcho <= now) echo(id, session);
        next = std::min(next, session.nextEcho);
      }
    }
    pause(next);
  }
}

void SbfdMonitor::pause(std::chrono::steady_clock::time_point until) const {
  int timeout = -1;
  if (until != std::chrono::steady_clock::time_point::max()) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    timeout = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60000));
  }
  std::array<pollfd, 3> fds{pollfd{wake_, POLLIN, 0}, pollfd{echo_ ? echo_->ipv4() : -1, POLLIN, 0},
                            pollfd{echo_ ? echo_->ipv6() : -1, POLLIN, 0}};
  poll(fds.data(), fds.size(), timeout);
  std::uint64_t count = 0;
  [[maybe_unused]] const auto size = read(wake_, &count, sizeof count);
}

void SbfdMonitor::wake() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto size = write(wake_, &one, sizeof one);
}

void SbfdMonitor::echo(const std::string& id, Session& session) {
  session.nextEcho += intervalOf(session.config);
  const auto& interface = session.config.session_key().outgoing_interface();
  const Link link = session.config.track_interface_state() ? this->link(interface) : Link::up;
  if (link == Link::unknown) return;
  if (link == Link::down) return statusIs(id, session, Status::DOWN);
  if (echo_) return sendEcho(id, session);
  const auto rtt = roundTrip();
  if (!rtt) return statusIs(id, session, Status::DOWN);
  cameBack(id, session, *rtt);
}

void SbfdMonitor::sendEcho(const std::string& id, Session& session) {
  if (session.sent - session.returned >= multiplierOf(session.config))
    statusIs(id, session, Status::DOWN);
  try {
    session.trouble = echo_->send(session.config.session_key(), session.number, ++session.sent);
  } catch (const std::exception& error) {  // for want of memory, say: it counts as not come back
    session.trouble = error.what();
  }
}

void SbfdMonitor::returned(const SbfdEcho::Returned& echo) {
  const auto id = ids_.find(echo.number);
  if (id == ids_.end()) return;
  Session& session = sessions_.at(id->second);
  const bool isNew = echo.sequence > session.returned && echo.sequence <= session.sent;
  if (!isNew || session.sent - echo.sequence >= multiplierOf(session.config)) return;
  session.returned = echo.sequence;
  const auto time = std::chrono::duration_cast<std::chrono::microseconds>(echo.time).count();
  cameBack(id->second, session, static_cast<std::uint32_t>(std::max<std::int64_t>(time, 1)));
}

void SbfdMonitor::cameBack(const std::string& id, Session& session, std::uint32_t rtt) {
  statusIs(id, session, session.status == Status::DOWN ? Status::INIT : Status::UP);
  if (!session.config.rtt_enabled()) return;
  account(session, rtt);
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
