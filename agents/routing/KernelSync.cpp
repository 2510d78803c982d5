#include "agents/routing/KernelSync.h"

#include <Kiv/Log.h>
#include <VornSdkRpc/ScopedNamespace.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <system_error>

namespace routing_agent {

namespace {

Kiv::LogDescriptor refusedDescriptor = {
    "ROUTING_AGENT_KERNEL_REFUSED",
    "%s (%s); it is tried again when that changes, and what else has failed is listed by vornctl "
    "list --failed",
    "The kernel does not take a route or a next-hop group. Change it, or what is in its way. "
    "Others "
    "with the same reason may follow without a line for a minute.",
    "\x01", 4};
Kiv::LogDescriptor waitsDescriptor = {
    "ROUTING_AGENT_NEXTHOP_WAITS", "%s (%s); it is used when that has changed",
    "A next hop can't be used for now, as its interface is down or its address out of reach; the "
    "group goes on without it. Others with the same reason may follow without a line for a minute.",
    "\x01", 5};
// By the reason: a hundred thousand routes with one reason are one line a minute.
Kiv::LogHandle refusedHandle(&refusedDescriptor, std::chrono::minutes(1), 1.0, 1, 0);
Kiv::LogHandle waitsHandle(&waitsDescriptor, std::chrono::minutes(1), 1.0, 1, 0);

Kiv::LogDescriptor failedDescriptor = {
    "ROUTING_AGENT_KERNEL_FAILED", "%s; the agent reads the kernel's tables anew",
    "The agent has lost track of the kernel, or has no memory or descriptor left", "\x01", 3};
Kiv::LogHandle failedHandle(&failedDescriptor, std::chrono::minutes(1), 1.0, 1, 0);

constexpr auto kRestAfterFailure = std::chrono::seconds(1);

[[noreturn]] void fail(int error, const char* what) {
  throw std::system_error(error, std::generic_category(), what);
}

}  // namespace

KernelSync::KernelSync(Settings settings)
    : settings_(std::move(settings)), netlink_(settings_.netns) {
  lockNamespace();
  wake_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (wake_ < 0) fail(errno, "eventfd");
  checkPermission();
}

KernelSync::~KernelSync() { stop(); }

// A name among the abstract sockets of the namespace, which ends with the process.
void KernelSync::lockNamespace() {
  constexpr std::string_view kName("\0routing-agent-kernel", 21);
  const VornSdkRpc::ScopedNamespace inside(settings_.netns);
  lock_ = Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (lock_ < 0) fail(errno, "cannot open a socket");
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  std::copy(kName.begin(), kName.end(), name.sun_path);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + kName.size());
  if (bind(lock_, reinterpret_cast<const sockaddr*>(&name), size) != 0)
    fail(errno, "another agent programs this namespace's kernel");
}

// By a request that can't be followed: the kernel looks at who asks before it looks at what.
void KernelSync::checkPermission() {
  std::vector<NetlinkRequest> requests;
  requests.push_back(deleteNexthop(0));
  const auto answer = netlink_.run(requests).front();
  if (answer.error == EPERM) fail(EPERM, "the kernel's routes need CAP_NET_ADMIN");
  if (answer.error == EOPNOTSUPP)
    fail(EOPNOTSUPP, "this kernel has no next-hop objects, which came with Linux 5.3");
}

std::vector<PrefixKey> KernelSync::adopt() {
  readLinks();
  readNexthops();
  auto adopted = adoptRoutes();
  adoptMplsRoutes();
  if (!adopted.empty()) tracer_.trace0("%zu routes of an earlier run adopted", adopted.size());
  return adopted;
}

void KernelSync::start(std::function<void(const PrefixKey&)> swept, RouteWatch* watch) {
  swept_ = std::move(swept);
  watch_ = watch;
  graceEnd_ = std::chrono::steady_clock::now() + settings_.grace;
  thread_ = std::thread([this] { run(); });
}

void KernelSync::stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  wake();
  thread_.join();
}

// ------------------------------------------------------------------------------------------------
// The kernel's thread

void KernelSync::run() {
  bool more = false;
  while (!stopping_) {
    runStep(more);
    if (!stopping_) pause(more);
  }
  if (settings_.keepRoutes) return;
  try {
    removeAll();
  } catch (const std::exception& error) {
    Kiv::log(failedHandle, std::string("routes are left in the kernel: ") + error.what());
  }
}

// What fails, fails for want of memory, of descriptors or of room in a socket: what is in the
// kernel is then read anew.
void KernelSync::runStep(bool& more) {
  try {
    more = step();
    reachable_ = true;
  } catch (const std::exception& error) {
    reachable_ = false;
    try {
      Kiv::log(failedHandle, std::string(error.what()));
    } catch (const std::bad_alloc&) {
      tracer_.error("no memory");
    }
    std::this_thread::sleep_for(kRestAfterFailure);
    recover();
    more = true;
  }
}

// What the kernel was working on may be done or not.
void KernelSync::recover() {
  readAll_ = true;
  const vorn::lock_guard lock(mutex_);
  flying_ = 0;
  for (auto& entry : routes_) {
    if (std::exchange(entry.second.pending.flying, false)) markRoute(entry);
  }
  for (auto& entry : groups_) {
    if (std::exchange(entry.second.pending.flying, false)) markGroup(entry);
  }
  for (auto& entry : mplsRoutes_) {
    if (std::exchange(entry.second.pending.flying, false)) markMplsRoute(entry);
  }
}

bool KernelSync::step() {
  readNotifications();
  if (std::exchange(readAll_, false)) {
    ++resyncs_;
    readLinks();
    readNexthops();
    readRoutes();
    resolve_ = true;
  } else if (std::exchange(readNexthops_, false)) {
    readNexthops();
  }
  resolve();
  bool more = programGroups() || programMplsRoutes() || programRoutes();
  if (!more && std::exchange(readRoutes_, false)) {
    readRoutes();
    more = true;
  }
  // What may be gone is looked for first: what is forgotten would not be missed then.
  more = more || readAll_ || readNexthops_ || readRoutes_;
  if (!more) {
    dropUnused();
    more = sweepWhenDue();
  }
  ++changes_;
  tried_.set();
  return more;
}

bool KernelSync::sweepWhenDue() {
  {
    const vorn::lock_guard lock(mutex_);
    if (!grace_ || !(sweep_ || std::chrono::steady_clock::now() >= graceEnd_)) return false;
    if (!dirtyRoutes_.empty() || !dirtyGroups_.empty() || !dirtyMplsRoutes_.empty()) return true;
    grace_ = false;
  }
  removeUnclaimed();
  dropUnused_ = true;
  return true;
}

// Until there is something to do.
void KernelSync::pause(bool more) {
  int timeout = -1;
  if (more) {
    timeout = 0;
  } else if (inGrace()) {
    const auto left = graceEnd_ - std::chrono::steady_clock::now();
    timeout = static_cast<int>(
        std::max<std::int64_t>(0, std::chrono::ceil<std::chrono::milliseconds>(left).count()));
  }
  std::array<pollfd, 2> fds{pollfd{netlink_.notificationsFd(), POLLIN, 0},
                            pollfd{wake_, POLLIN, 0}};
  poll(fds.data(), fds.size(), timeout);
  std::uint64_t count = 0;
  [[maybe_unused]] const auto size = read(wake_, &count, sizeof count);
  woken_ = false;
}

bool KernelSync::inGrace() const {
  const vorn::lock_guard lock(mutex_);
  return grace_;
}

// One system call for all that comes until the thread looks.
void KernelSync::wake() {
  ++changes_;
  if (woken_.exchange(true)) return;
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto size = ::write(wake_, &one, sizeof one);
}

// ------------------------------------------------------------------------------------------------
// What is wanted

void KernelSync::routeSet(const ip_route_msg& route) {
  const PrefixKey prefix(route.prefix());
  {
    const vorn::lock_guard lock(mutex_);
    auto& entry = *routes_.try_emplace(prefix).first;
    auto& group = *groups_.try_emplace(route.nexthop_group()).first;
    if (entry.second.group != &group) {
      leaveGroup(prefix, entry.second);
      entry.second.group = &group;
      ++group.second.routes[familyOf(prefix)];
      if (group.second.set && group.second.object[familyOf(prefix)] == 0) markGroup(group);
    }
    markRoute(entry);
  }
  wake();
}

void KernelSync::routeRemoved(const PrefixKey& prefix) {
  {
    const vorn::lock_guard lock(mutex_);
    const auto entry = routes_.find(prefix);
    if (entry == routes_.end()) return;
    leaveGroup(prefix, entry->second);
    markRoute(*entry);
  }
  wake();
}

void KernelSync::groupChanged(const nexthop_group_msg& message) {
  {
    const vorn::lock_guard lock(mutex_);
    auto& entry = *groups_.try_emplace(message.name()).first;
    Group& group = entry.second;
    group.set = !message.request_delete();
    group.resolved = false;
    unresolved_ = true;
    group.primary.clear();
    group.backup.clear();
    if (group.set) {
      for (const auto& hop : message.nexthop())
        group.primary.push_back({hop, 0, {}});
      for (const auto& hop : message.backup_nexthop())
        group.backup.push_back({hop, 0, {}});
    }
    markGroup(entry);
  }
  wake();
}

void KernelSync::mplsRouteChanged(const mpls_route_msg& message) {
  {
    const vorn::lock_guard lock(mutex_);
    auto& entry = *mplsRoutes_.try_emplace(message.label()).first;
    MplsRoute& route = entry.second;
    auto* const former = std::exchange(route.group, nullptr);
    route.set = !message.request_delete();
    route.wanted = message;
    route.primary.clear();
    if (message.has_nexthop()) route.primary.push_back({message.nexthop(), 0, {}});
    if (message.has_pop_and_forward_vrf_name()) {
      nexthop_msg hop;
      hop.set_nexthop_interface(message.pop_and_forward_vrf_name());
      hop.set_mpls_op(nexthop_msg::MPLS_POP);
      route.primary.push_back({hop, 0, {}});
    }
    route.resolved = false;
    unresolved_ = true;
    if (route.set && message.has_nexthop_group()) {
      auto& group = *groups_.try_emplace(message.nexthop_group().nexthop_group()).first;
      route.group = &group;
      ++group.second.mplsRoutes;
    }
    if (former) {
      --former->second.mplsRoutes;
      if (!former->second.set) markGroup(*former);  // it may be forgotten
    }
    markMplsRoute(entry);
  }
  wake();
}

void KernelSync::sessionIsDown(const sbfd_echo_session_key_msg& key, bool down) {
  const auto id = key.SerializeAsString();
  {
    const vorn::lock_guard lock(mutex_);
    if (down ? !downSessions_.insert(id).second : downSessions_.erase(id) == 0) return;
    const auto watched = [&](const WantedHop& hop) {
      return hop.message.has_sbfd_session_key() &&
             hop.message.sbfd_session_key().SerializeAsString() == id;
    };
    for (auto& entry : groups_) {
      if (std::ranges::any_of(entry.second.primary, watched) ||
          std::ranges::any_of(entry.second.backup, watched))
        markGroup(entry);
    }
    for (auto& entry : mplsRoutes_) {
      if (std::ranges::any_of(entry.second.primary, watched)) markMplsRoute(entry);
    }
  }
  wake();
}

void KernelSync::sweep() {
  {
    const vorn::lock_guard lock(mutex_);
    sweep_ = true;
  }
  wake();
}

// ------------------------------------------------------------------------------------------------
// What became of it

KernelSync::Programming KernelSync::routeState(const PrefixKey& prefix) const {
  const vorn::lock_guard lock(mutex_);
  const auto found = routes_.find(prefix);
  return found == routes_.end() ? Programming() : stateOf(found->first, found->second);
}

KernelSync::Programming KernelSync::groupState(const std::string& name) const {
  const vorn::lock_guard lock(mutex_);
  const auto found = groups_.find(name);
  return found == groups_.end() ? Programming() : stateOf(*found);
}

KernelSync::Programming KernelSync::mplsRouteState(std::uint32_t label) const {
  const vorn::lock_guard lock(mutex_);
  const auto found = mplsRoutes_.find(label);
  return found == mplsRoutes_.end() ? Programming() : stateOf(found->second);
}

std::size_t KernelSync::waiting() const {
  const vorn::lock_guard lock(mutex_);
  return underWay();
}

std::size_t KernelSync::underWay() const {
  return dirtyRoutes_.size() + dirtyGroups_.size() + dirtyMplsRoutes_.size() + newObjects_.size() +
         flying_;
}

void KernelSync::count(summary_msg& summary) const {
  const vorn::lock_guard lock(mutex_);
  const auto changes = changes_.load();
  if (countedAt_ != changes) countStates();
  // While something is under way, what is counted now is not what it will be.
  countedAt_ = underWay() == 0 ? std::optional(changes) : std::nullopt;
  summary.set_programmed(summary.programmed() + counted_[Programming::PROGRAMMED]);
  summary.set_failed(summary.failed() + counted_[Programming::FAILED]);
  summary.set_adopted(summary.adopted() + counted_[Programming::ADOPTED]);
  summary.set_waiting(summary.waiting() + counted_[Programming::WAITING]);
}

void KernelSync::countStates() const {
  counted_ = {};
  const auto add = [this](Programming::state_enum state)
                       VORN_REQUIRES(mutex_) { ++counted_.at(state); };
  for (const auto& [prefix, route] : routes_)
    add(verdictOf(prefix, route).state);
  for (const auto& group : groups_) {
    if (group.second.set) add(stateOf(group).state());
  }
  for (const auto& [label, route] : mplsRoutes_) {
    if (route.set) add(stateOf(route).state());
  }
}

KernelSync::Programming KernelSync::stateOf(const PrefixKey& prefix, const Route& route) const {
  const auto verdict = verdictOf(prefix, route);
  Programming state;
  state.set_state(verdict.state);
  state.set_time(verdict.since);
  std::string reason(verdict.reason);
  if (verdict.group) reason.insert(0, "next-hop group " + *verdict.group + verdict.link);
  state.set_reason(std::move(reason));
  return state;
}

// Waiting without a reason: not tried yet.
KernelSync::Verdict KernelSync::verdictOf(const PrefixKey& prefix, const Route& route) const {
  const auto since = route.since;
  if (!route.group) return {inKernel(route) ? Programming::ADOPTED : Programming::WAITING, since};
  const auto& [name, group] = *route.group;
  const auto object = group.object[familyOf(prefix)];
  if (route.pending || group.pending || newObjects_.contains(object))
    return {Programming::WAITING, since};
  if (route.refusal && isThere(object)) return {Programming::FAILED, since, *route.refusal};
  if (kept(route)) return {Programming::ADOPTED, since, "is not set", &name, " "};
  if (!group.set) return {Programming::WAITING, since, "is not set", &name, " "};
  const auto& trouble = group.trouble[familyOf(prefix)];
  if (inKernel(route) && !trouble) return {Programming::PROGRAMMED, since};
  const auto last = std::max(since, group.since);
  if (!trouble) return {Programming::WAITING, last};
  return {trouble.state, last, trouble.reason, &name};
}

KernelSync::Programming KernelSync::stateOf(const NamedGroup& entry) const {
  const Group& group = entry.second;
  Programming state;
  state.set_time(group.since);
  if (group.pending) return state;
  Trouble worst;
  const auto consider = [&](const Trouble& trouble) {
    if (trouble && (!worst || trouble.state > worst.state)) worst = trouble;
  };
  for (const auto& refused : group.refused)
    consider(refused);
  consider(group.trouble[mainFamily(group)]);
  for (const auto& hop : group.primary)
    consider(unusable(hop, kIpv4));
  state.set_state(worst.state);
  state.set_reason(worst.reason);
  return state;
}

// ------------------------------------------------------------------------------------------------
// Refusals

std::uint64_t KernelSync::now() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
}

// What is gone by itself when an interface or an address comes waits; the rest has failed.
KernelSync::Trouble KernelSync::troubleOf(const KernelAnswer& answer) {
  switch (answer.error) {
    case 0:
      return {};
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTUNREACH:
    case ENODEV:
      return {Programming::WAITING, answer.text()};
    case EOPNOTSUPP:
    case EAFNOSUPPORT:
    case EPROTONOSUPPORT:
      return {Programming::FAILED,
              "not supported by this kernel" + (answer.words.empty() ? "" : ": " + answer.words)};
    default:
      return {Programming::FAILED, answer.text()};
  }
}

void KernelSync::warn(const std::string& what, const Trouble& trouble) const {
  if (trouble.state == Programming::FAILED) ++refusals_;
  tracer_.warn("%s: %s", what.c_str(), trouble.reason.c_str());
  Kiv::log(trouble.state == Programming::FAILED ? refusedHandle : waitsHandle, trouble.reason,
           what);
}

}  // namespace routing_agent
