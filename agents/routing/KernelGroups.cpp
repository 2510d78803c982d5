// KernelSync: groups of next hops, as objects of the kernel.
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <vorn/mutex.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "agents/routing/KernelSync.h"

namespace routing_agent {

namespace {

constexpr std::size_t kGroupsPerStep = 64;
constexpr std::size_t kQuestionsTogether = 256;

// Objects have numbers that are made from what they are, so that a new run of the agent finds its
// groups under the same ones.
constexpr std::uint32_t kHopIds = 0x40000000, kGroupIds = 0x60000000, kIdsOfKind = 0x20000000;

class Hash {
 public:
  Hash& add(std::string_view bytes) {
    for (const char byte : bytes)
      addByte(static_cast<unsigned char>(byte));
    return addNumber(bytes.size());
  }
  Hash& addNumber(std::uint64_t number) {
    for (unsigned shift = 0; shift < 64; shift += 8)
      addByte(static_cast<unsigned char>(number >> shift));
    return *this;
  }
  std::uint32_t id(std::uint32_t kind) const {
    return kind + static_cast<std::uint32_t>((hash_ ^ (hash_ >> 32)) % kIdsOfKind);
  }

 private:
  void addByte(unsigned char byte) { hash_ = (hash_ ^ byte) * 1099511628211U; }
  std::uint64_t hash_ = 14695981039346656037U;  // FNV-1a
};

std::uint32_t idOf(const KernelHop& hop) {
  Hash hash;
  hash.addNumber(hop.family).add(hop.gateway).addNumber(static_cast<std::uint64_t>(hop.interface));
  for (const auto label : hop.labels)
    hash.addNumber(label);
  return hash.id(kHopIds);
}

std::uint32_t next(std::uint32_t id, std::uint32_t kind) {
  return kind + (id - kind + 1) % kIdsOfKind;
}

bool isLinkLocal(const std::string& address) {
  return address.size() == 16 && address[0] == '\xfe' && (address[1] & 0xc0) == 0x80;
}

std::string textOf(const nexthop_msg& hop) {
  const auto& address = hop.nexthop_ip().addr();
  std::string text = address.empty() ? "" : addressText(address);
  if (!hop.nexthop_interface().empty())
    text += (text.empty() ? "" : " on ") + hop.nexthop_interface();
  return "next hop " + text;
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// Where next hops are reached

void KernelSync::resolve() {
  const bool all = std::exchange(resolve_, false);
  std::set<Question> asked;
  {
    const vorn::lock_guard lock(mutex_);
    if (!std::exchange(unresolved_, false) && !all) return;
    if (all) {
      for (auto& entry : groups_)
        entry.second.resolved = false;
      for (auto& entry : mplsRoutes_)
        entry.second.resolved = false;
    }
    asked = openQuestions();
  }
  const auto answers = ask(asked);
  const vorn::lock_guard lock(mutex_);
  for (auto& entry : groups_) {
    Group& group = entry.second;
    if (!group.set || group.resolved) continue;
    const bool changed = settle(group, answers);
    // What the kernel has refused is tried again.
    const bool refused = std::ranges::any_of(group.refused, &Trouble::operator bool) ||
                         std::ranges::any_of(group.trouble, &Trouble::operator bool);
    if (changed || (group.resolved && refused)) markGroup(entry);
  }
  for (auto& entry : mplsRoutes_) {
    MplsRoute& route = entry.second;
    if (!route.set || route.resolved) continue;
    const bool changed = settle(route, answers);
    if (changed || (route.resolved && route.trouble)) markMplsRoute(entry);
  }
}

std::set<KernelSync::Question> KernelSync::openQuestions() {
  std::set<Question> asked;
  for (const auto& [name, group] : groups_) {
    if (group.set && !group.resolved) asked.merge(questions(group));
  }
  for (const auto& [label, route] : mplsRoutes_) {
    if (route.set && !route.resolved) asked.merge(questions(route));
  }
  return asked;
}

// Answers whether that changes anything. What was set while the kernel was asked has its turn in
// the next step.
bool KernelSync::settle(Hops& hops, const Answers& answers) {
  hops.resolved = std::ranges::all_of(questions(hops),
                                      [&](const Question& one) { return answers.contains(one); });
  unresolved_ = unresolved_ || !hops.resolved;
  if (!hops.resolved) return false;
  bool changed = false;
  for (auto* const some : {&hops.primary, &hops.backup}) {
    for (auto& hop : *some)
      changed = answered(hop, answers) || changed;
  }
  return changed;
}

std::set<KernelSync::Question> KernelSync::questions(const Hops& hops) const {
  std::set<Question> all;
  for (const auto* const some : {&hops.primary, &hops.backup}) {
    for (const auto& hop : *some) {
      int interface = 0;
      Trouble trouble;
      if (auto asked = question(hop.message, interface, trouble)) all.insert(*asked);
    }
  }
  return all;
}

// What the kernel has to be asked about a next hop, once its interface is there and up.
std::optional<KernelSync::Question> KernelSync::question(const nexthop_msg& hop, int& interface,
                                                         Trouble& trouble) const {
  const auto& name = hop.nexthop_interface();
  const auto& address = hop.nexthop_ip().addr();
  if (!name.empty()) {
    const auto link =
        std::ranges::find(links_, name, [](const auto& entry) { return entry.second.name; });
    if (link == links_.end()) {
      trouble = {Programming::WAITING, "there is no interface of this name"};
    } else if (!link->second.up) {
      trouble = {Programming::WAITING, "the interface is down"};
    } else if (!link->second.carrier) {
      trouble = {Programming::WAITING, "the interface has no carrier"};
    } else {
      interface = link->first;
    }
  } else if (isLinkLocal(address)) {
    trouble = {Programming::FAILED, "a link-local address needs an interface"};
  }
  if (trouble || address.empty() || isLinkLocal(address)) return std::nullopt;
  return Question(address, interface);
}

KernelSync::Answers KernelSync::ask(const std::set<Question>& questions) {
  Answers answers;
  for (auto begin = questions.begin(); begin != questions.end();) {
    std::vector<NetlinkRequest> requests;
    std::vector<Question> asked;
    for (; begin != questions.end() && asked.size() < kQuestionsTogether; ++begin) {
      asked.push_back(*begin);
      requests.push_back(findRoute(begin->first, begin->second));
    }
    const auto told = netlink_.run(requests, [&](std::size_t position, const nlmsghdr& message) {
      const auto route = routeOf(message);
      const auto& [address, interface] = asked[position];
      const bool reached = route && route->direct && route->interface != 0 &&
                           (interface == 0 || interface == route->interface);
      answers[asked[position]] = {
          reached ? route->interface : 0,
          reached ? Trouble() : Trouble{Programming::WAITING, "is not reached directly"}};
    });
    for (std::size_t i = 0; i < told.size(); ++i) {
      if (told[i].error != 0) answers[asked[i]] = {0, {Programming::WAITING, told[i].text()}};
    }
  }
  return answers;
}

// Answers whether that changes anything.
bool KernelSync::answered(WantedHop& hop, const Answers& answers) const {
  int interface = 0;
  Trouble trouble;
  if (const auto asked = question(hop.message, interface, trouble)) {
    const auto answer = answers.find(*asked);
    if (answer != answers.end()) std::tie(interface, trouble) = answer->second;
  }
  const bool changed = interface != hop.interface || trouble != hop.trouble;
  hop.interface = interface;
  hop.trouble = std::move(trouble);
  return changed;
}

// ------------------------------------------------------------------------------------------------
// What a group is to be

// Why a next hop can't be used.
KernelSync::Trouble KernelSync::unreachable(const WantedHop& hop) const {
  const auto& message = hop.message;
  if (hop.trouble) return {hop.trouble.state, textOf(message) + ": " + hop.trouble.reason};
  if (message.has_sbfd_session_key() &&
      downSessions_.contains(message.sbfd_session_key().SerializeAsString()))
    return {Programming::WAITING, textOf(message) + ": its SBFD session is down"};
  return {};
}

// The same, by an IP route.
KernelSync::Trouble KernelSync::unusable(const WantedHop& hop, Family family) const {
  if (auto trouble = unreachable(hop)) return trouble;
  const auto& message = hop.message;
  const auto because = [&](Programming::state_enum state, const std::string& why) {
    return Trouble{state, textOf(message) + ": " + why};
  };
  if (message.mpls_op() != nexthop_msg::MPLS_NONE && message.mpls_op() != nexthop_msg::MPLS_PUSH)
    return because(Programming::FAILED, "an IP route can only push labels");
  if (family == kIpv6 && message.nexthop_ip().addr().size() == 4)
    return because(Programming::FAILED, "an IPv6 route can't use an IPv4 next hop");
  return {};
}

KernelSync::Plan KernelSync::plan(NamedGroup& group, Family family) const {
  Plan plan{.group = &group, .family = family};
  plan.needed = needs(group.second, family);
  if (!group.second.set || !plan.needed) return plan;
  addHops(plan, group.second.primary, false);
  if (plan.hops.empty()) addHops(plan, group.second.backup, true);
  if (!plan.hops.empty()) {
    plan.trouble = {};
  } else if (!plan.trouble) {
    plan.trouble = {Programming::WAITING, "it has no next hop"};
  }
  if (plan.hops.size() > kMaxKernelMembers) {
    plan.trouble = {Programming::FAILED,
                    "it has " + std::to_string(plan.hops.size()) + " next hops; 1024 are the most"};
    plan.hops.clear();
  }
  for (const auto& [hop, weight] : plan.hops) {
    if (weight <= kMaxKernelWeight) continue;
    plan.trouble = {Programming::FAILED,
                    "a next hop counts " + std::to_string(weight) + " times; 256 is the most"};
    plan.hops.clear();
    break;
  }
  return plan;
}

void KernelSync::addHops(Plan& plan, const std::vector<WantedHop>& hops, bool firstOnly) const {
  for (const auto& hop : hops) {
    if (auto trouble = unusable(hop, plan.family)) {
      if (!plan.trouble) plan.trouble = std::move(trouble);
      continue;
    }
    const auto& message = hop.message;
    const auto& address = message.nexthop_ip().addr();
    const bool ipv4 = address.empty() ? plan.family == kIpv4 : address.size() == 4;
    const KernelHop key{static_cast<std::uint8_t>(ipv4 ? AF_INET : AF_INET6),
                        address,
                        hop.interface,
                        {message.labels().begin(), message.labels().end()}};
    plan.hops[key] += std::max(message.replicate_count(), 1U);
    if (firstOnly) return;
  }
}

// The family that is programmed before there is a route, so that a group's state is known and
// routes that follow find it.
KernelSync::Family KernelSync::mainFamily(const Group& group) {
  const bool ipv6 = std::ranges::all_of(group.primary, [](const WantedHop& hop) {
    return hop.message.nexthop_ip().addr().size() == 16;
  });
  return ipv6 && !group.primary.empty() ? kIpv6 : kIpv4;
}

bool KernelSync::needs(const Group& group, Family family) {
  return group.routes[family] != 0 || (group.set && family == mainFamily(group));
}

// ------------------------------------------------------------------------------------------------
// Programming

// Does one step; returns whether there is more.
bool KernelSync::programGroups() {
  std::vector<NamedGroup*> groups;
  std::vector<Plan> planned;
  {
    const vorn::lock_guard lock(mutex_);
    for (auto left = dirtyGroups_.size(); left != 0 && groups.size() < kGroupsPerStep; --left) {
      auto* const group = dirtyGroups_.front();
      dirtyGroups_.pop_front();
      if (group->second.set && !group->second.resolved) {
        dirtyGroups_.push_back(group);  // whose next hops have not been looked for
        continue;
      }
      group->second.pending = {false, true};
      groups.push_back(group);
    }
    flying_ += groups.size();
    planned = plans(groups);
    if (groups.empty()) return !dirtyGroups_.empty();
  }
  makeHops(planned);
  makeObjects(planned);
  dropUnused_ = true;
  const vorn::lock_guard lock(mutex_);
  flying_ -= groups.size();
  for (auto* const group : groups) {
    group->second.pending.flying = false;
    tellOf(*group);
    markMplsRoutesOf(*group);
    eraseUnused(*group);
  }
  return !dirtyGroups_.empty();
}

std::vector<KernelSync::Plan> KernelSync::plans(const std::vector<NamedGroup*>& groups) {
  std::vector<Plan> planned;
  for (auto* const group : groups) {
    for (const Family family : kFamilies) {
      if (!needs(group->second, family) && group->second.object[family] == 0) continue;
      planned.push_back(plan(*group, family));
    }
  }
  return planned;
}

// Makes the next hops that are not there. One that the kernel refuses is left out of the plan.
void KernelSync::makeHops(std::vector<Plan>& plans) {
  std::map<KernelHop, Trouble> refused;
  std::vector<NetlinkRequest> requests;
  std::vector<KernelHop> hops;
  {
    const vorn::lock_guard lock(mutex_);
    for (const auto& plan : plans) {
      for (const auto& [hop, weight] : plan.hops) {
        HopObject& object = hops_[hop];
        if (object.present || object.id != 0) continue;
        object.id = idOf(hop);
        while (!ids_.insert(object.id).second)
          object.id = next(object.id, kHopIds);
        hops.push_back(hop);
        requests.push_back(newHop(object.id, hop));
      }
    }
  }
  const auto answers = netlink_.run(requests);
  const vorn::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < answers.size(); ++i) {
    HopObject& object = hops_[hops[i]];
    object.present = answers[i].error == 0;
    if (object.present) continue;
    if (answers[i].error == EEXIST) {  // somebody else's object has the number
      readNexthops_ = true;
      for (const auto& plan : plans)
        if (plan.hops.contains(hops[i])) markGroup(*plan.group);
    } else {
      ids_.erase(object.id);
    }
    object.id = 0;
    refused[hops[i]] = troubleOf(answers[i]);
  }
  for (auto& plan : plans) {
    for (const auto& [hop, weight] : plan.hops) {
      const auto& object = hops_[hop];
      if (object.present) {
        plan.members.push_back({object.id, static_cast<std::uint32_t>(weight)});
      } else if (const auto found = refused.find(hop); found != refused.end() && !plan.refused) {
        std::string to;
        if (!hop.gateway.empty()) to.append(" ").append(addressText(hop.gateway));
        plan.refused = {found->second.state, "next hop" + to + ": " + found->second.reason};
      }
    }
    if (plan.members.empty() && plan.refused) plan.trouble = plan.refused;
  }
}

void KernelSync::makeObjects(std::vector<Plan>& plans) {
  std::vector<NetlinkRequest> requests;
  std::vector<const Plan*> asked;
  std::vector<const Plan*> unchanged;
  {
    const vorn::lock_guard lock(mutex_);
    for (auto& plan : plans) {
      plan.object = objectFor(*plan.group, plan.family);
      const auto& present = objects_[plan.object].members;
      if (present == plan.members) {
        unchanged.push_back(&plan);
        continue;
      }
      asked.push_back(&plan);
      requests.push_back(plan.members.empty()
                             ? deleteNexthop(plan.object)
                             : newGroup(plan.object, plan.members, !present.empty()));
    }
  }
  const auto answers = netlink_.run(requests);
  const vorn::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < answers.size(); ++i)
    objectWritten(*asked[i], answers[i]);
  for (const auto* const plan : unchanged)
    objectWritten(*plan, {});
}

void KernelSync::objectWritten(const Plan& plan, const KernelAnswer& answer) {
  Group& group = plan.group->second;
  Trouble trouble = plan.trouble;
  if (answer.error == 0 || (plan.members.empty() && answer.error == ENOENT)) {
    const bool isNew = objects_[plan.object].members.empty() && !plan.members.empty();
    if (objects_[plan.object].members != plan.members) objectIs(plan.object, plan.members);
    if (isNew && group.routes[plan.family] != 0) newObjects_.insert(plan.object);
  } else if (answer.error == EEXIST) {  // somebody else's object has the number
    forget(group, plan.family);
    ids_.insert(plan.object);
    readNexthops_ = true;
    markGroup(*plan.group);
  } else {
    trouble = troubleOf(answer);
    readNexthops_ = true;  // one of its members may be gone
  }
  group.trouble[plan.family] = std::move(trouble);
  group.refused[plan.family] = plan.refused;
  if (!plan.needed && answer.error == 0) forget(group, plan.family);
}

void KernelSync::tellOf(NamedGroup& entry) {
  Group& group = entry.second;
  if (group.pending) return;
  const auto state = stateOf(entry);
  const Trouble trouble{state.state(), state.reason()};
  if (group.since != 0 && trouble == group.told) return;
  group.since = now();
  group.told = trouble;
  if (trouble) warn("next-hop group " + entry.first, trouble);
  tellWatchers(entry);
}

// That its routes have another state now.
void KernelSync::tellWatchers(const NamedGroup& group) {
  if (!watch_ || !watch_->watched()) return;
  for (const auto& [prefix, route] : routes_) {
    if (route.group == &group) watch_->changed(prefix);
  }
}

// ------------------------------------------------------------------------------------------------
// Objects

// The number of a group's object, with an entry in objects_: one that an earlier run has left under
// the number is taken over.
std::uint32_t KernelSync::objectFor(NamedGroup& group, Family family) {
  std::uint32_t& id = group.second.object[family];
  if (id != 0) return id;
  id = Hash().addNumber(family).add(group.first).id(kGroupIds);
  for (;; id = next(id, kGroupIds)) {
    const auto found = objects_.find(id);
    const bool adopted = found != objects_.end() && !found->second.owned;
    if (adopted || (found == objects_.end() && ids_.insert(id).second)) break;
  }
  objects_[id].owned = true;
  return id;
}

// What the kernel has as this object now.
void KernelSync::objectIs(std::uint32_t id, std::vector<KernelMember> members) {
  Object& object = objects_[id];
  if (members.empty()) {
    object.epoch = 0;
  } else if (object.members.empty()) {
    object.epoch = ++epochs_;
  }
  object.members = std::move(members);
}

void KernelSync::forget(Group& group, Family family) {
  if (group.object[family] == 0) return;
  newObjects_.erase(group.object[family]);
  objects_.erase(group.object[family]);
  ids_.erase(group.object[family]);
  group.object[family] = 0;
}

// A group that is not set and that no route names.
void KernelSync::eraseUnused(NamedGroup& entry) {
  Group& group = entry.second;
  if (group.set || group.pending) return;
  for (const Family family : kFamilies)
    forget(group, family);
  group.trouble = {};
  group.refused = {};
  if (group.routes[kIpv4] == 0 && group.routes[kIpv6] == 0 && group.mplsRoutes == 0)
    groups_.erase(entry.first);
}

// Next hops that no group has any more, and once the grace is over, what nobody has claimed.
void KernelSync::dropUnused() {
  if (!std::exchange(dropUnused_, false)) return;
  std::vector<std::uint32_t> unused;
  {
    const vorn::lock_guard lock(mutex_);
    if (grace_) return;
    std::set<std::uint32_t> used;
    for (auto object = objects_.begin(); object != objects_.end();) {
      if (object->second.owned) {
        for (const auto& member : object->second.members)
          used.insert(member.id);
        ++object;
      } else {
        if (!object->second.members.empty()) unused.push_back(object->first);
        ids_.erase(object->first);
        object = objects_.erase(object);
      }
    }
    for (auto hop = hops_.begin(); hop != hops_.end();) {
      if (hop->second.present && used.contains(hop->second.id)) {
        ++hop;
        continue;
      }
      if (hop->second.present) unused.push_back(hop->second.id);
      ids_.erase(hop->second.id);
      hop = hops_.erase(hop);
    }
    unused.insert(unused.end(), strays_.begin(), strays_.end());
    strays_.clear();
  }
  for (const auto id : unused) {
    std::vector<NetlinkRequest> request;
    request.push_back(deleteNexthop(id));
    netlink_.run(request);
  }
}

void KernelSync::markGroup(NamedGroup& group) {
  if (std::exchange(group.second.pending.queued, true)) return;
  dirtyGroups_.push_back(&group);
}

void KernelSync::markAllGroups() {
  for (auto& entry : groups_)
    markGroup(entry);
}

}  // namespace routing_agent
