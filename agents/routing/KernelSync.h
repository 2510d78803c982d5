#pragma once

#include <VornSdkRpc/RpcEvents.h>
#include <VornSdkRpcProtos/VornSdkRpc.pb.h>
#include <vorn/mutex.h>
#include <vorn/tracer.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "agents/routing/Descriptor.h"
#include "agents/routing/KernelMessages.h"
#include "agents/routing/Netlink.h"
#include "agents/routing/RouteWatch.h"
#include "agents/routing/RoutingAgent.pb.h"
#include "agents/routing/Tables.h"

namespace routing_agent {

// Keeps the main routing table of a network namespace's kernel as the agent's tables say, on a
// thread of its own, and says of each route and group whether it is there.
//
// What is wanted is told by routeSet() and its neighbours, which return at once. A group of next
// hops becomes a next-hop object of the kernel, one for each address family that needs it, so that
// a change of the group is one message, however many routes use it. Changes of one thing that have
// not been tried yet are folded into the last one.
//
// What others do is followed by the kernel's notifications. A next hop whose interface is down, has
// no carrier or is not there, or whose address can't be reached directly, waits, and so does one
// whose SBFD session is down; the group goes on with the others, or with the first usable backup
// when none of the primary ones is left. Each comes back when its cause is gone. A route or object
// of ours that somebody takes away is put back. Whose protocol is not kKernelProtocol is not ours,
// and is left alone: where it has our prefix and metric, ours has failed until it is gone.
//
// What an earlier run has left in the kernel is adopted: it stays as it is until the same is set
// again, which writes nothing when nothing has changed, or until sweep().
//
// An MPLS route has its next hops itself, and follows those of its group; it takes a kernel with
// the module mpls_router, whose labels end at net.mpls.platform_labels.
class KernelSync {
 public:
  using Programming = programming_msg;

  struct Settings {
    std::string netns;  // as `ip netns` knows it; empty: the calling thread's own
    // What was adopted and not set again is removed after so long. Zero: at once.
    std::chrono::seconds grace{60};
    bool keepRoutes = false;  // leave everything in the kernel when the agent ends
  };

  // Opens the sockets and makes sure that this may program the namespace's kernel, and that nobody
  // else of this kind does; reads and changes nothing. Throws std::system_error: EADDRINUSE for
  // another agent, EPERM for want of CAP_NET_ADMIN, EOPNOTSUPP for a kernel without next-hop
  // objects (Linux 5.3 brought them). A namespace that can't be entered is a broken precondition,
  // as for ScopedNamespace.
  explicit KernelSync(Settings settings);

  // Calls stop().
  ~KernelSync();
  KernelSync(const KernelSync&) = delete;
  KernelSync& operator=(const KernelSync&) = delete;

  // Reads the kernel and adopts what is ours in it. Answers the prefixes that were adopted. Once,
  // before start().
  std::vector<PrefixKey> adopt();

  // Begins to program. `swept` is told, on the kernel's thread, each adopted prefix that is gone
  // without somebody who has set it, and must not call back; `watch` each route whose state
  // changes; null: nobody.
  void start(std::function<void(const PrefixKey&)> swept, RouteWatch* watch = nullptr);

  // Ends the programming after the operation in progress, and removes what is ours from the kernel
  // unless it is to be kept.
  void stop();

  // What is wanted. Any thread.
  void routeSet(const ip_route_msg& route);
  void routeRemoved(const PrefixKey& prefix);
  void groupChanged(const nexthop_group_msg& group);   // set, or deleted (request_delete)
  void mplsRouteChanged(const mpls_route_msg& route);  // likewise
  // Whether the SBFD session of a next hop is down. An unknown session is not.
  void sessionIsDown(const sbfd_echo_session_key_msg& key, bool down);
  // Everything has been set again: see the class.
  void sweep();

  // What became of it. Any thread.
  Programming routeState(const PrefixKey& prefix) const;
  Programming groupState(const std::string& name) const;
  Programming mplsRouteState(std::uint32_t label) const;
  // Whether the kernel can be worked with, as far as the last step tells.
  bool isReachable() const { return reachable_; }
  // How many changes have not been tried yet.
  std::size_t waiting() const;
  // Adds the routes, groups and MPLS routes to the counts.
  void count(summary_msg& summary) const;
  // How often the kernel has refused something, and how often its tables were read anew, as
  // notifications were lost or something has failed. Any thread.
  std::uint64_t refusals() const { return refusals_; }
  std::uint64_t resyncs() const { return resyncs_; }

  // Set whenever something has been tried.
  VornSdkRpc::rpc::Events& tried() { return tried_; }

 private:
  // Why something is not as it is wanted; a state of PROGRAMMED: it is.
  struct Trouble {
    Programming::state_enum state = Programming::PROGRAMMED;
    std::string reason;
    bool operator==(const Trouble&) const = default;
    explicit operator bool() const { return state != Programming::PROGRAMMED; }
  };

  // What became of a route, without a text of its own: all are counted while clients wait.
  struct Verdict {
    Programming::state_enum state = Programming::WAITING;
    std::uint64_t since = 0;
    std::string_view reason{};
    const std::string* group = nullptr;  // the name of the one that is the reason; null: none
    const char* link = ": ";             // between the name and the reason
  };

  // Whether something is still to be tried: it is in a queue, and the kernel is working on it. It
  // is both when it has been changed meanwhile.
  struct Pending {
    bool queued = false;
    bool flying = false;
    explicit operator bool() const { return queued || flying; }
  };

  // A next hop as a group names it.
  struct WantedHop {
    nexthop_msg message;
    int interface = 0;  // where it is reached
    Trouble trouble;    // when it can't be
  };

  enum Family : std::uint8_t { kIpv4, kIpv6 };
  static constexpr std::array kFamilies{kIpv4, kIpv6};

  struct Hops {
    bool resolved = false;  // they have been looked for
    std::vector<WantedHop> primary, backup;
  };

  struct Group : Hops {
    bool set = false;
    std::array<std::uint32_t, 2> object{};  // by family: its id, 0 when there is none
    std::array<Trouble, 2> trouble;         // of the object
    std::array<Trouble, 2> refused;         // of the first next hop that the kernel has refused
    std::array<std::size_t, 2> routes{};    // that use it
    std::size_t mplsRoutes = 0;             // likewise
    Pending pending;
    Trouble told;  // what was last told of it
    std::uint64_t since = 0;
  };
  using NamedGroup = std::pair<const std::string, Group>;

  // A group in the kernel. Its epoch tells it from a former one of the same id, whose routes the
  // kernel has dropped.
  struct Object {
    std::vector<KernelMember> members;  // empty: it is not there
    std::uint32_t epoch = 0;
    bool owned = false;  // by a group; else it was adopted
  };

  struct HopObject {
    std::uint32_t id = 0;
    bool present = false;
  };

  struct Route {
    NamedGroup* group = nullptr;           // null: adopted, or being removed
    const std::string* refusal = nullptr;  // the kernel's words
    std::uint64_t since = 0;
    std::uint32_t object = 0;  // which the kernel's route uses; 0: it is not there
    std::uint32_t epoch = 0;   // of that object
    Pending pending;
    bool foreign = false;  // another owner's route is in the way
  };
  using Routes = std::map<PrefixKey, Route>;

  struct MplsRoute : Hops {
    mpls_route_msg wanted;
    NamedGroup* group = nullptr;  // null: it has a next hop of its own, or is to be removed
    bool set = false;
    bool ours = false;  // the kernel has a route of ours
    // Which; not known of one that an earlier run has left: it is replaced in one step.
    std::vector<KernelHop> present;
    Trouble trouble;
    Pending pending;
    std::uint64_t since = 0;
  };
  using MplsRoutes = std::map<std::uint32_t, MplsRoute>;

  struct MplsWrite {
    std::uint32_t label;
    bool replaces;
    std::vector<KernelHop> hops{};  // none: removes the route
    Trouble trouble{};              // why there is none
  };

  // What a group is to be in one family.
  struct Plan {
    NamedGroup* group = nullptr;
    Family family = kIpv4;
    std::map<KernelHop, std::uint64_t> hops{};  // with their weights
    Trouble trouble{};                          // when there is none, why
    Trouble refused{};                          // of a next hop that the kernel refuses
    bool needed = true;
    std::uint32_t object = 0;
    std::vector<KernelMember> members{};
  };

  struct Write {
    PrefixKey prefix;
    std::uint32_t object;  // 0: removes the route
    std::uint32_t epoch;
    bool replaces;
  };

  using Seen = std::map<std::uint32_t, SeenNexthop>;
  using Question = std::pair<std::string, int>;  // an address, and an interface or 0
  using Answers = std::map<Question, std::pair<int, Trouble>>;

  // KernelSync.cpp: the thread, and what is wanted.
  void lockNamespace();
  void checkPermission();
  void run();
  void runStep(bool& more);
  void recover();
  bool step();
  bool sweepWhenDue();
  void pause(bool more);
  bool inGrace() const;
  void wake();
  std::size_t underWay() const VORN_REQUIRES(mutex_);
  void countStates() const VORN_REQUIRES(mutex_);
  Verdict verdictOf(const PrefixKey& prefix, const Route& route) const VORN_REQUIRES(mutex_);
  Programming stateOf(const PrefixKey& prefix, const Route& route) const VORN_REQUIRES(mutex_);
  Programming stateOf(const NamedGroup& group) const VORN_REQUIRES(mutex_);
  static std::uint64_t now();  // nanoseconds since 1970
  static Trouble troubleOf(const KernelAnswer& answer);
  void warn(const std::string& what, const Trouble& trouble) const;

  // Has the kernel do what was taken from a queue, and was counted as flying.
  template <typename AnyWrite>
  void perform(const std::vector<AnyWrite>& writes) {
    std::vector<NetlinkRequest> requests;
    requests.reserve(writes.size());
    for (const auto& write : writes)
      requests.push_back(requestFor(write));
    const auto answers = netlink_.run(requests);
    const vorn::lock_guard lock(mutex_);
    flying_ -= writes.size();
    for (std::size_t i = 0; i < writes.size(); ++i)
      written(writes[i], answers[i]);
  }

  // KernelReading.cpp: what is in the kernel.
  void readNotifications();
  void notified(const nlmsghdr& message);
  void routeNotified(const nlmsghdr& message);
  void linkNotified(const nlmsghdr& message);
  void readLinks();
  void readNexthops();
  bool compareHops(const Seen& seen) VORN_REQUIRES(mutex_);
  bool compareObjects(const Seen& seen) VORN_REQUIRES(mutex_);
  std::vector<std::pair<PrefixKey, std::uint32_t>> dumpRoutes();
  void readRoutes();
  std::vector<PrefixKey> adoptRoutes();
  void routeSeen(Routes::value_type& entry, std::uint32_t object) VORN_REQUIRES(mutex_);
  void removeAll();

  // KernelGroups.cpp
  void resolve();
  std::set<Question> openQuestions() VORN_REQUIRES(mutex_);
  std::set<Question> questions(const Hops& hops) const;
  void tellOf(NamedGroup& group) VORN_REQUIRES(mutex_);
  void tellWatchers(const NamedGroup& group) VORN_REQUIRES(mutex_);
  Answers ask(const std::set<Question>& questions);
  std::optional<Question> question(const nexthop_msg& hop, int& interface, Trouble& trouble) const;
  bool answered(WantedHop& hop, const Answers& answers) const;
  bool settle(Hops& hops, const Answers& answers) VORN_REQUIRES(mutex_);
  bool programGroups();
  std::vector<Plan> plans(const std::vector<NamedGroup*>& groups) VORN_REQUIRES(mutex_);
  Plan plan(NamedGroup& group, Family family) const VORN_REQUIRES(mutex_);
  void addHops(Plan& plan, const std::vector<WantedHop>& hops, bool firstOnly) const
      VORN_REQUIRES(mutex_);
  Trouble unreachable(const WantedHop& hop) const VORN_REQUIRES(mutex_);
  Trouble unusable(const WantedHop& hop, Family family) const VORN_REQUIRES(mutex_);
  void makeHops(std::vector<Plan>& plans);
  void makeObjects(std::vector<Plan>& plans);
  void objectWritten(const Plan& plan, const KernelAnswer& answer) VORN_REQUIRES(mutex_);
  void dropUnused();
  std::uint32_t objectFor(NamedGroup& group, Family family) VORN_REQUIRES(mutex_);
  void objectIs(std::uint32_t id, std::vector<KernelMember> members) VORN_REQUIRES(mutex_);
  void forget(Group& group, Family family) VORN_REQUIRES(mutex_);
  void markGroup(NamedGroup& group) VORN_REQUIRES(mutex_);
  void markAllGroups() VORN_REQUIRES(mutex_);
  void eraseUnused(NamedGroup& group) VORN_REQUIRES(mutex_);
  static Family mainFamily(const Group& group);
  static bool needs(const Group& group, Family family);

  // KernelMpls.cpp
  bool hasMpls();
  void forEachMplsRoute(const std::function<void(std::uint32_t)>& take);
  void adoptMplsRoutes();
  void mplsRouteNotified(const nlmsghdr& message);
  bool programMplsRoutes();
  static NetlinkRequest requestFor(const MplsWrite& write);
  std::vector<MplsWrite> takeMplsWrites() VORN_REQUIRES(mutex_);
  MplsWrite mplsWriteOf(std::uint32_t label, const MplsRoute& route) const VORN_REQUIRES(mutex_);
  void addMplsHops(MplsWrite& write, const MplsRoute& route, const std::vector<WantedHop>& hops,
                   bool firstOnly) const VORN_REQUIRES(mutex_);
  void written(const MplsWrite& write, const KernelAnswer& answer) VORN_REQUIRES(mutex_);
  void mplsTroubleIs(MplsRoutes::value_type& entry, Trouble trouble) VORN_REQUIRES(mutex_);
  void markMplsRoute(MplsRoutes::value_type& entry) VORN_REQUIRES(mutex_);
  void markMplsRoutesOf(const NamedGroup& group) VORN_REQUIRES(mutex_);
  void removeUnclaimedMplsRoutes() VORN_REQUIRES(mutex_);
  static Programming stateOf(const MplsRoute& route);

  // KernelRoutes.cpp
  bool programRoutes();
  static NetlinkRequest requestFor(const Write& write);
  std::vector<Write> takeWrites() VORN_REQUIRES(mutex_);
  std::optional<Write> writeOf(const PrefixKey& prefix, Route& route) const VORN_REQUIRES(mutex_);
  void written(const Write& write, const KernelAnswer& answer) VORN_REQUIRES(mutex_);
  void markRoute(Routes::value_type& entry) VORN_REQUIRES(mutex_);
  void markRoutesOfNewObjects() VORN_REQUIRES(mutex_);
  void leaveGroup(const PrefixKey& prefix, Route& route) VORN_REQUIRES(mutex_);
  void removeUnclaimed();
  bool inKernel(const Route& route) const VORN_REQUIRES(mutex_);
  bool isThere(std::uint32_t object) const VORN_REQUIRES(mutex_);
  bool kept(const Route& route) const VORN_REQUIRES(mutex_);  // as adopted, until the grace is over
  static Family familyOf(const PrefixKey& prefix) { return prefix.bytes == 4 ? kIpv4 : kIpv6; }

  vorn::tracer tracer_{"Kernel"};
  const Settings settings_;
  Descriptor lock_;
  Descriptor wake_;
  std::atomic<bool> woken_ = false;  // since the thread has looked last
  Netlink netlink_;
  VornSdkRpc::rpc::Events tried_;
  std::atomic<std::uint64_t> changes_ = 0;  // of what is wanted or known; some are none
  mutable std::atomic<std::uint64_t> refusals_ = 0;
  std::atomic<std::uint64_t> resyncs_ = 0;
  std::function<void(const PrefixKey&)> swept_;
  RouteWatch* watch_ = nullptr;
  std::chrono::steady_clock::time_point graceEnd_;

  mutable vorn::mutex mutex_;  // guards what follows; not held while the kernel works
  Routes routes_ VORN_GUARDED_BY(mutex_);
  std::map<std::string, Group> groups_ VORN_GUARDED_BY(mutex_);
  MplsRoutes mplsRoutes_ VORN_GUARDED_BY(mutex_);                    // by label
  std::map<std::uint32_t, Object> objects_ VORN_GUARDED_BY(mutex_);  // by id
  std::map<KernelHop, HopObject> hops_ VORN_GUARDED_BY(mutex_);
  std::set<std::uint32_t> ids_
      VORN_GUARDED_BY(mutex_);  // of all next-hop objects in the kernel and of those to come
  std::set<std::uint32_t> strays_ VORN_GUARDED_BY(mutex_);  // of those of ours that nothing knows
  std::set<std::string> downSessions_ VORN_GUARDED_BY(mutex_);
  std::set<std::string> texts_ VORN_GUARDED_BY(mutex_);  // the kernel's words, each once
  std::deque<PrefixKey> dirtyRoutes_ VORN_GUARDED_BY(mutex_);
  std::deque<NamedGroup*> dirtyGroups_ VORN_GUARDED_BY(mutex_);
  std::deque<std::uint32_t> dirtyMplsRoutes_ VORN_GUARDED_BY(mutex_);
  mutable std::optional<std::uint64_t> countedAt_ VORN_GUARDED_BY(mutex_);  // as changes_ stood
  mutable std::array<std::uint64_t, Programming::state_enum_ARRAYSIZE> counted_
      VORN_GUARDED_BY(mutex_){};                    // by state
  std::size_t flying_ VORN_GUARDED_BY(mutex_) = 0;  // routes and groups that the kernel works on
  std::set<std::uint32_t> newObjects_ VORN_GUARDED_BY(mutex_);  // whose routes are to be written
  std::uint32_t epochs_ VORN_GUARDED_BY(mutex_) = 0;
  bool grace_ VORN_GUARDED_BY(mutex_) = true;  // what was adopted is kept
  bool sweep_ VORN_GUARDED_BY(mutex_) = false;
  bool unresolved_ VORN_GUARDED_BY(mutex_) =
      false;  // a group has next hops that were not looked for

  // For the kernel's thread alone.
  std::map<int, SeenLink> links_;
  bool readAll_ = false;
  bool readNexthops_ = false;
  bool readRoutes_ = false;  // once everything has been tried
  bool resolve_ = false;
  bool dropUnused_ = false;
  std::atomic<bool> stopping_ = false;
  std::atomic<bool> reachable_ = true;  // the last step did not fail
  std::thread thread_;
};

}  // namespace routing_agent
