#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "agents/routing/KernelSync.h"
#include "tests/OwnNetns.h"

namespace test {
namespace {

using namespace std::chrono_literals;
using namespace routing_agent;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using State = programming_msg;

// What a command prints, errors too, with one blank between words.
std::string output(const std::string& command) {
  const auto close = [](FILE* file) { pclose(file); };
  const std::unique_ptr<FILE, decltype(close)> pipe(popen((command + " 2>&1").c_str(), "re"),
                                                    close);
  std::string words;
  char word[256];
  while (std::fscanf(pipe.get(), "%255s", word) == 1)
    words += (words.empty() ? "" : " ") + std::string(word);
  return words;
}

std::string bytes(const std::string& address) {
  const bool v6 = address.find(':') != std::string::npos;
  std::string all(v6 ? 16 : 4, '\0');
  EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, address.c_str(), all.data()), 1) << address;
  return all;
}

ip_prefix_msg prefix(const std::string& text) {
  const auto slash = text.find('/');
  ip_prefix_msg message;
  message.set_addr(bytes(text.substr(0, slash)));
  message.set_mask_length(static_cast<std::uint32_t>(std::stoul(text.substr(slash + 1))));
  return message;
}

// A group of next hops from words ADDRESS%INTERFACE*COUNT, each part of which may be missing; those
// behind a word "backup" are backup next hops.
nexthop_group_msg group(const std::string& name, const std::string& text) {
  static const std::regex parts("([^%*]*)%?([^*]*)[*]?(.*)");
  nexthop_group_msg message;
  message.set_name(name);
  std::istringstream words(text);
  bool backup = false;
  for (std::string word; words >> word;) {
    if (word == "backup") {
      backup = true;
      continue;
    }
    std::smatch part;
    std::regex_match(word, part, parts);
    auto& hop = *(backup ? message.add_backup_nexthop() : message.add_nexthop());
    if (part.length(1) != 0) hop.mutable_nexthop_ip()->set_addr(bytes(part.str(1)));
    hop.set_nexthop_interface(part.str(2));
    if (part.length(3) != 0)
      hop.set_replicate_count(static_cast<std::uint32_t>(std::stoul(part.str(3))));
  }
  return message;
}

ip_route_msg route(const std::string& destination, const std::string& group) {
  ip_route_msg message;
  *message.mutable_prefix() = prefix(destination);
  message.set_nexthop_group(group);
  return message;
}

// Whether something holds before long.
bool eventually(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// A namespace of the test's own with two interfaces, d0 and d1.
class Namespace {
 public:
  Namespace() : name_("rpc-test-k" + std::to_string(getpid())) {
    refusal_ = output("ip netns add " + name_);
    if (!refusal_.empty()) return;
    for (const char* command : {
             "link add d0 type veth peer name d1",
             "link set d0 addrgenmode none",  // no link-local routes that come when they like
             "link set d1 addrgenmode none",
             "link set d0 up",
             "link set d1 up",
             "addr add 10.0.0.1/24 dev d0",
             "addr add 10.0.1.1/24 dev d1",
             "addr add fd00::1/64 dev d0 nodad",
             "addr add fd00:1::1/64 dev d1 nodad",
         }) {
      EXPECT_EQ(ip(command), "") << command;
    }
  }
  ~Namespace() { output("ip netns delete " + name_); }
  Namespace(const Namespace&) = delete;
  Namespace& operator=(const Namespace&) = delete;

  std::string ip(const std::string& arguments) const {
    return output("ip -n " + name_ + " " + arguments);
  }
  const std::string& name() const { return name_; }
  const std::string& refusal() const { return refusal_; }

 private:
  const std::string name_;
  std::string refusal_;
};

// A process of its own, which ends with this one.
class Process {
 public:
  explicit Process(const std::function<void()>& body) : pid_(fork()) {
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    body();
    for (;;)
      pause();
  }
  ~Process() { end(SIGKILL); }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  void signal(int number) const { kill(pid_, number); }
  void end(int number) {
    if (pid_ == 0) return;
    kill(pid_, number);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

class KernelSyncTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!namespace_.refusal().empty())
      GTEST_SKIP() << "this user may not make network namespaces: " << namespace_.refusal();
    before_ = all();
  }

  std::string ip(const std::string& arguments) const { return namespace_.ip(arguments); }
  // The main table's routes of a prefix, without the numbers of the kernel's objects.
  std::string shown(const std::string& destination) const {
    const bool v6 = destination.find(':') != std::string::npos;
    return std::regex_replace(ip((v6 ? "-6 route show " : "route show ") + destination),
                              std::regex("nhid [0-9]+ "), "");
  }
  std::string all() const {
    return ip("route show") + "\n" + ip("-6 route show") + "\n" + ip("nexthop show");
  }

  std::unique_ptr<KernelSync> agent(std::chrono::seconds grace = 0s, bool keep = false) {
    auto kernel =
        std::make_unique<KernelSync>(KernelSync::Settings{namespace_.name(), grace, keep});
    kernel->adopt();
    kernel->start([this](const PrefixKey& prefix) {
      const std::lock_guard lock(sweptMutex_);
      swept_.push_back(prefixText(prefix));
    });
    return kernel;
  }
  // What became of a route, or else of a group, once it has been tried.
  static State tried(const KernelSync& kernel, const std::string& what) {
    const bool isRoute = what.find('/') != std::string::npos;
    State state;
    EXPECT_TRUE(eventually([&] {
      state = isRoute ? kernel.routeState(PrefixKey(prefix(what))) : kernel.groupState(what);
      return kernel.waiting() == 0 && !(state.state() == State::WAITING && state.reason().empty());
    })) << what;
    return state;
  }
  static bool becomes(const KernelSync& kernel, const std::string& destination,
                      State::state_enum wanted) {
    return eventually(
        [&] { return kernel.routeState(PrefixKey(prefix(destination))).state() == wanted; });
  }

  const Namespace namespace_;
  std::string before_;
  std::mutex sweptMutex_;
  std::vector<std::string> swept_;
};

TEST_F(KernelSyncTest, SetsReplacesAndRemoves) {
  struct Step {
    std::string prefix, hops, shown;
    std::string group() const { return "of " + prefix.substr(0, prefix.find('/')); }
  };
  const Step steps[] = {
      {"10.9.0.0/16", "10.0.0.2", "10.9.0.0/16 via 10.0.0.2 dev d0 proto 201 metric 201"},
      {"10.9.0.0/16", "10.0.0.2*3 10.0.1.2%d1",
       "10.9.0.0/16 proto 201 metric 201 nexthop via 10.0.0.2 dev d0 weight 3 "
       "nexthop via 10.0.1.2 dev d1 weight 1"},
      {"10.9.0.0/16", "%d1", "10.9.0.0/16 dev d1 proto 201 metric 201"},
      {"10.9.0.0/16", "fd00::2%d0", "10.9.0.0/16 via inet6 fd00::2 dev d0 proto 201 metric 201"},
      {"10.9.0.0/16", "10.0.1.2 10.0.1.2*2",
       "10.9.0.0/16 via 10.0.1.2 dev d1 proto 201 metric 201"},
      {"fd09::/32", "fd00::2%d0*2 fd00:1::2",
       "fd09::/32 proto 201 metric 201 pref medium nexthop via fd00::2 dev d0 weight 2 "
       "nexthop via fd00:1::2 dev d1 weight 1"},
      {"fd09::/32", "%d1", "fd09::/32 proto 201 metric 201 pref medium nexthop dev d1 weight 1"},
      {"fd09::/32", "fe80::2%d0",
       "fd09::/32 proto 201 metric 201 pref medium nexthop via fe80::2 dev d0 weight 1"},
      {"0.0.0.0/0", "10.0.0.2", "default via 10.0.0.2 dev d0 proto 201 metric 201"},
      {"::/0", "fd00::2",
       "default proto 201 metric 201 pref medium nexthop via fd00::2 dev d0 weight 1"},
      {"10.8.1.1/32", "10.0.0.2*256", "10.8.1.1 via 10.0.0.2 dev d0 proto 201 metric 201"},
  };
  const std::string outside = output("ip route show table all; ip -6 route show table all");
  const auto kernel = agent();
  for (const Step& step : steps) {
    for (int twice = 0; twice < 2; ++twice) {
      kernel->groupChanged(group(step.group(), step.hops));
      kernel->routeSet(route(step.prefix, step.group()));
      EXPECT_EQ(tried(*kernel, step.prefix).state(), State::PROGRAMMED);
      EXPECT_GT(tried(*kernel, step.prefix).time(), 1'700'000'000'000'000'000U);
      EXPECT_EQ(tried(*kernel, step.group()).state(), State::PROGRAMMED);
      EXPECT_EQ(shown(step.prefix), step.shown);
    }
  }
  EXPECT_EQ(output("ip route show table all; ip -6 route show table all"), outside)
      << "the process's own namespace";
  for (const Step& step : steps) {
    kernel->routeRemoved(PrefixKey(prefix(step.prefix)));
    auto gone = group(step.group(), "");
    gone.set_request_delete(true);
    kernel->groupChanged(gone);
  }
  EXPECT_TRUE(eventually([&] { return all() == before_; })) << all();
}

TEST_F(KernelSyncTest, SaysWhatIsWrongInTheKernelsWords) {
  const auto kernel = agent();
  kernel->routeSet(route("10.9.0.0/16", "core"));
  kernel->routeSet(route("fd09::/32", "core"));
  EXPECT_THAT(tried(*kernel, "10.9.0.0/16").reason(), "next-hop group core is not set");

  struct Case {
    std::string hops;
    State::state_enum ipv4, ipv6, group;
    std::string why;
    std::string shown;  // how the IPv4 route goes on with the other next hops
  };
  const auto P = State::PROGRAMMED, W = State::WAITING, F = State::FAILED;
  const Case cases[] = {
      {"%d9", W, W, W, "d9: there is no interface of this name", ""},
      {"10.0.0.2 %d9", P, F, W, "d9: there is no interface of this name", "via 10.0.0.2 dev d0"},
      {"10.7.0.1", W, W, W, "10.7.0.1: Network is unreachable", ""},
      {"10.0.1.2%d0", W, W, W, "10.0.1.2 on d0", ""},
      {"10.0.0.2 10.0.0.2*256", F, F, F, "counts 257 times", ""},
      {"fe80::1", F, F, F, "a link-local address needs an interface", ""},
      {"", W, W, W, "it has no next hop", ""},
      {"fd00::2 10.0.0.2", P, P, P, "", "via inet6 fd00::2 dev d0"},
  };
  for (const Case& one : cases) {
    kernel->groupChanged(group("core", one.hops));
    const State state = tried(*kernel, "core");
    EXPECT_EQ(state.state(), one.group) << one.hops;
    EXPECT_THAT(state.reason(), HasSubstr(one.why)) << one.hops;
    EXPECT_EQ(tried(*kernel, "10.9.0.0/16").state(), one.ipv4) << one.hops;
    EXPECT_EQ(tried(*kernel, "fd09::/32").state(), one.ipv6) << one.hops;
    EXPECT_THAT(shown("10.9.0.0/16"), HasSubstr(one.shown)) << one.hops;
    EXPECT_EQ(shown("10.9.0.0/16").empty(), one.ipv4 != P) << one.hops;
    EXPECT_EQ(shown("fd09::/32").empty(), one.ipv6 != P) << one.hops;
  }

  auto labelled = group("core", "10.0.0.2");
  labelled.mutable_nexthop(0)->set_mpls_op(nexthop_msg::MPLS_SWAP);
  kernel->groupChanged(labelled);
  EXPECT_THAT(tried(*kernel, "core").reason(), HasSubstr("can only push labels"));
  labelled.mutable_nexthop(0)->set_mpls_op(nexthop_msg::MPLS_PUSH);
  labelled.mutable_nexthop(0)->add_labels(16);
  kernel->groupChanged(labelled);
  if (tried(*kernel, "core").state() == State::PROGRAMMED) {
    EXPECT_THAT(shown("10.9.0.0/16"), HasSubstr("encap mpls 16"));
  } else {  // the kernel is built without MPLS
    EXPECT_THAT(tried(*kernel, "10.9.0.0/16").reason(), HasSubstr("not supported by this kernel"));
  }
  kernel->routeSet(route("10.9.0.1/16", "core"));
  kernel->groupChanged(group("core", "10.0.0.2"));
  EXPECT_EQ(tried(*kernel, "10.9.0.1/16").reason(), "Invalid prefix for given prefix length");
  EXPECT_EQ(tried(*kernel, "10.9.0.0/16").state(), State::PROGRAMMED);
}

// What others do, and that the routes are back, or wait, without anybody setting them again.
TEST_F(KernelSyncTest, FollowsWhatOthersDo) {
  const auto kernel = agent();
  kernel->groupChanged(group("core", "10.0.0.2 backup 10.0.1.2"));
  kernel->groupChanged(group("both", "10.0.0.2 10.0.1.2%d1 fd00::2"));
  kernel->groupChanged(group("late", "%d2"));
  const std::string routes[] = {"10.9.0.0/16", "10.8.0.0/16", "fd09::/32", "10.7.0.0/16"};
  const std::string groups[] = {"core", "both", "both", "late"};
  for (int i = 0; i < 4; ++i)
    kernel->routeSet(route(routes[i], groups[i]));

  const std::string backup = "via 10.0.1.2 dev d1 proto", none;
  const std::string core = "via 10.0.0.2 dev d0 proto";
  const std::string both =
      "proto 201 metric 201 nexthop via 10.0.0.2 dev d0 weight 1 nexthop via "
      "10.0.1.2 dev d1 weight 1 nexthop via inet6 fd00::2 dev d0 weight 1";
  const std::string six = "via fd00::2 dev d0";
  struct Step {
    std::vector<std::string> commands;
    std::string shown[4];
  };
  const Step steps[] = {
      {{}, {core, both, six, none}},
      {{"route delete 10.9.0.0/16 metric 201", "-6 route delete fd09::/32 metric 201"},
       {core, both, six, none}},
      {{"route replace 10.8.0.0/16 metric 201 proto 201 via 10.0.0.7"}, {core, both, six, none}},
      {{"nexthop flush"}, {core, both, six, none}},
      {{"addr del 10.0.0.1/24 dev d0"},
       {backup, "via 10.0.1.2 dev d1 weight 1 nexthop via inet6 fd00::2", six, none}},
      {{"addr add 10.0.0.1/24 dev d0"}, {core, both, six, none}},
      {{"link add d2 type veth peer name d3"}, {core, both, six, none}},
      {{"link set d3 up", "link set d2 up"}, {core, both, six, "dev d2 proto"}},
      {{"link delete d2"}, {core, both, six, none}},
      {{"link add d2 type veth peer name d3", "link set d3 up", "link set d2 up"},
       {core, both, six, "dev d2 proto"}},
      {{"link set d2 down", "link set d2 name d4"}, {core, both, six, none}},
      // Both ends of the pair lose their carrier, and IPv6 its addresses.
      {{"link set d0 down"}, {none, none, none, none}},
      {{"link set d0 up", "addr replace fd00::1/64 dev d0 nodad"}, {core, both, six, none}},
      {{"link set d1 down"}, {none, none, none, none}},
      {{"link set d1 up"}, {core, both, six, none}},
  };
  int number = 0;
  for (const Step& step : steps) {
    for (const auto& command : step.commands)
      EXPECT_THAT(ip(command), testing::AnyOf("", HasSubstr("Flushed"))) << command;
    for (int i = 0; i < 4; ++i) {
      std::string now;
      const bool there = !step.shown[i].empty();
      EXPECT_TRUE(eventually([&] {
        now = shown(routes[i]);
        const auto state = kernel->routeState(PrefixKey(prefix(routes[i]))).state();
        return there ? now.find(step.shown[i]) != std::string::npos && state == State::PROGRAMMED
                     : now.empty() && state == State::WAITING;
      })) << "step "
          << number << ": " << routes[i] << " is " << now << ", "
          << kernel->routeState(PrefixKey(prefix(routes[i]))).ShortDebugString();
    }
    ++number;
  }
}

TEST_F(KernelSyncTest, FailsOverWhenAnSbfdSessionIsDown) {
  const auto kernel = agent();
  auto watched = group("core", "10.0.0.2 backup %d9 10.0.1.2 10.0.1.3");
  auto& key = *watched.mutable_nexthop(0)->mutable_sbfd_session_key();
  key.set_outgoing_interface("d0");
  kernel->groupChanged(watched);
  kernel->routeSet(route("10.9.0.0/16", "core"));
  for (const bool down : {false, true, false}) {
    kernel->sessionIsDown(key, down);
    EXPECT_EQ(tried(*kernel, "10.9.0.0/16").state(), State::PROGRAMMED);
    EXPECT_TRUE(eventually([&] {
      return shown("10.9.0.0/16").find(down ? "via 10.0.1.2 dev d1" : "via 10.0.0.2 dev d0") !=
             std::string::npos;
    })) << shown("10.9.0.0/16");
    EXPECT_THAT(tried(*kernel, "core").reason(),
                HasSubstr(down ? "10.0.0.2: its SBFD session is down" : ""));
  }
}

// What `ip -f mpls route add 100 proto 201 nexthop as 200/300 via inet 10.0.0.2 dev d0 nexthop dev
// d1` has sent, with d0 as 3 and d1 as 2, and the label alone for what is deleted.
TEST(KernelMessages, TellMplsRoutesAsIpDoes) {
  const auto bytesOf = [](const NetlinkRequest& request) {
    const auto* const begin = reinterpret_cast<const unsigned char*>(&request.message());
    return std::vector<int>(begin + sizeof(nlmsghdr), begin + request.message().nlmsg_len);
  };
  EXPECT_THAT(
      bytesOf(newMplsRoute(100, {{AF_INET, {10, 0, 0, 2}, 3, {200, 300}}, {AF_INET, {}, 2, {}}},
                           false)),
      testing::ElementsAre(0x1c, 0x14, 0, 0, 0xfe, 0xc9, 0, 1, 0, 0, 0, 0,              // the route
                           8, 0, 1, 0, 0, 0x06, 0x41, 0,                                // its label
                           0x2c, 0, 9, 0,                                               // next hops
                           0x20, 0, 0, 0, 3, 0, 0, 0,                                   // d0
                           0x0c, 0, 0x13, 0, 0, 0x0c, 0x80, 0, 0, 0x12, 0xc1, 0,        // labels
                           0x0a, 0, 0x12, 0, 2, 0, 0x0a, 0, 0, 2, /* padding: */ 0, 0,  // address
                           8, 0, 0, 0, 2, 0, 0, 0));                                    // d1
  const NetlinkRequest removal = deleteMplsRoute(100);
  const auto removed = mplsRouteOf(removal.message());
  ASSERT_TRUE(removed);
  EXPECT_EQ(removed->label, 100U);
}

TEST_F(KernelSyncTest, SaysThatTheKernelHasNoMpls) {
  if (access("/proc/sys/net/mpls", F_OK) == 0) GTEST_SKIP() << "this kernel has MPLS";
  const auto kernel = agent();
  mpls_route_msg route;
  route.set_label(100);
  route.mutable_nexthop_group()->set_nexthop_group("core");
  const auto becomes = [&](State::state_enum state, const std::string& reason) {
    return eventually([&] {
      const auto now = kernel->mplsRouteState(100);
      return now.state() == state && now.reason() == reason;
    });
  };
  kernel->mplsRouteChanged(route);
  EXPECT_TRUE(becomes(State::WAITING, "next-hop group core is not set"));
  kernel->groupChanged(group("core", "10.0.9.9"));
  EXPECT_TRUE(becomes(State::WAITING, "next hop 10.0.9.9: Network is unreachable"));
  kernel->groupChanged(group("core", "10.0.0.2 10.0.1.2"));
  EXPECT_TRUE(becomes(State::FAILED, "not supported by this kernel"));
  route.mutable_nexthop_group()->set_mpls_op(mpls_route_msg_forward_nexthop_group_msg::MPLS_SWAP);
  kernel->mplsRouteChanged(route);
  EXPECT_TRUE(becomes(State::FAILED, "a swap needs a label"));
  summary_msg counts;
  kernel->count(counts);
  EXPECT_EQ(counts.failed(), 1U);
  route.set_request_delete(true);
  kernel->mplsRouteChanged(route);
  nexthop_group_msg none;
  none.set_name("core");
  none.set_request_delete(true);
  kernel->groupChanged(none);
  EXPECT_TRUE(becomes(State::WAITING, ""));
  EXPECT_TRUE(eventually([&] { return kernel->waiting() == 0; }));
}

TEST_F(KernelSyncTest, LeavesOtherOwnersAlone) {
  const std::pair<std::string, std::string> families[] = {{"10.9.0.0/16", "10.0.0."},
                                                          {"fd09::/32", "fd00::"}};
  for (const auto& [destination, network] : families) {
    const std::string add = " route add " + destination + " via " + network;
    ASSERT_EQ(ip(add + "9 metric 201"), "");
    ASSERT_EQ(ip(add + "8 metric 500 proto static"), "");
  }
  ASSERT_EQ(ip("nexthop add id 77 via 10.0.0.6 dev d0"), "");
  const std::string theirs = all();
  {
    const auto kernel = agent();
    kernel->groupChanged(group("core", "10.0.0.2 fd00::2"));
    for (const auto& [destination, network] : families) {
      kernel->routeSet(route(destination, "core"));
      const State state = tried(*kernel, destination);
      EXPECT_EQ(state.state(), State::FAILED);
      EXPECT_EQ(state.reason(), "another owner's route has this metric");
      EXPECT_THAT(shown(destination), Not(HasSubstr("proto 201")));

      // When it goes, ours comes; one that takes the place of ours is not ours to remove.
      ASSERT_EQ(ip("route delete " + destination + " via " + network + "9 metric 201"), "");
      EXPECT_TRUE(becomes(*kernel, destination, State::PROGRAMMED));
      EXPECT_THAT(shown(destination), HasSubstr("proto 201"));
      ASSERT_EQ(ip("route replace " + destination + " via " + network + "9 metric 201"), "");
      EXPECT_TRUE(becomes(*kernel, destination, State::FAILED));
    }
    kernel->routeRemoved(PrefixKey(prefix("10.9.0.0/16")));
    EXPECT_TRUE(eventually([&] { return kernel->waiting() == 0; }));
  }
  EXPECT_EQ(all(), theirs);
}

TEST_F(KernelSyncTest, ChangesAGroupOfManyRoutesInOneStep) {
  constexpr int kRoutes = 20000;
  // Without it, the kernel repeats every route when its group changes.
  output("ip netns exec " + namespace_.name() + " sysctl -w net.ipv4.nexthop_compat_mode=0");
  const auto kernel = agent();
  kernel->groupChanged(group("core", "10.0.0.2"));
  for (int i = 0; i < kRoutes; ++i)
    kernel->routeSet(route(
        "10." + std::to_string(64 + i / 256) + "." + std::to_string(i % 256) + ".0/24", "core"));
  EXPECT_TRUE(eventually([&] { return kernel->waiting() == 0; }));
  EXPECT_EQ(output("ip -n " + namespace_.name() + " route show proto 201 | wc -l"),
            std::to_string(kRoutes));

  const std::string file = testing::TempDir() + namespace_.name() + ".monitor";
  const std::string done = "10.250.0.0/16";  // what ends the recording
  Process monitor([&] {
    dup2(open(file.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600), STDOUT_FILENO);
    execlp("ip", "ip", "-n", namespace_.name().c_str(), "monitor", "route", "nexthop", nullptr);
  });
  const auto recorded = [&] {
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  EXPECT_TRUE(eventually([&] {  // it listens
    ip("route add 10.251.0.0/16 dev d0");
    ip("route delete 10.251.0.0/16");
    return recorded().find("10.251.0.0/16") != std::string::npos;
  }));
  kernel->groupChanged(group("core", "10.0.0.3"));  // this and the next may be folded into one
  kernel->groupChanged(group("core", "10.0.1.2"));
  EXPECT_TRUE(eventually([&] { return kernel->waiting() == 0; }));
  ip("route add " + done + " dev d0");
  EXPECT_TRUE(eventually([&] { return recorded().find(done) != std::string::npos; }));
  EXPECT_EQ(recorded().find("proto 201 metric 201"), std::string::npos) << "a route was written";
  std::remove(file.c_str());
}

// ------------------------------------------------------------------------------------------------
// Starts and ends

TEST_F(KernelSyncTest, AdoptsWhatAKilledRunHasLeft) {
  const auto setAll = [](KernelSync& kernel) {
    kernel.groupChanged(group("core", "10.0.0.2 10.0.1.2*2"));
    kernel.groupChanged(group("edge", "10.0.0.3 fd00::2"));
    for (int i = 0; i < 200; ++i)
      kernel.routeSet(route("10.9." + std::to_string(i) + ".0/24", "core"));
    kernel.routeSet(route("fd09::/32", "edge"));
    kernel.routeSet(route("10.8.0.0/16", "edge"));
  };
  const auto full = [&] {
    return shown("10.9.199.0/24") != "" && shown("fd09::/32") != "" && shown("10.8.0.0/16") != "";
  };
  {
    Process killed([&] { setAll(*agent().release()); });
    ASSERT_TRUE(eventually(full));
  }
  const std::string left = all();
  {
    const auto kernel = agent(1h);
    EXPECT_EQ(all(), left) << "adopted as it is";
    EXPECT_EQ(kernel->routeState(PrefixKey(prefix("10.8.0.0/16"))).state(), State::ADOPTED);
    // Routes may come before their groups.
    kernel->routeSet(route("10.8.0.0/16", "edge"));
    EXPECT_EQ(tried(*kernel, "10.8.0.0/16").reason(), "next-hop group edge is not set");
    setAll(*kernel);
    kernel->routeRemoved(PrefixKey(prefix("10.9.7.0/24")));
    EXPECT_EQ(tried(*kernel, "fd09::/32").state(), State::PROGRAMMED);
    EXPECT_TRUE(eventually([&] { return shown("10.9.7.0/24").empty(); }));
    kernel->routeSet(route("10.9.7.0/24", "core"));
    EXPECT_EQ(tried(*kernel, "10.9.7.0/24").state(), State::PROGRAMMED);
    kernel->sweep();
    EXPECT_EQ(tried(*kernel, "10.9.0.0/24").state(), State::PROGRAMMED);
    EXPECT_EQ(all(), left) << "nothing has changed";
    // A clean stop keeps what it is told to keep.
  }
  EXPECT_EQ(all(), before_) << "a clean stop removes";
  {
    const auto kernel = agent(0s, true);
    setAll(*kernel);
    EXPECT_TRUE(eventually(full));
  }
  EXPECT_EQ(all(), left) << "a clean stop that keeps";
  {
    const auto kernel = agent(1h);
    kernel->groupChanged(group("edge", "10.0.0.3 fd00::2"));
    kernel->routeSet(route("fd09::/32", "edge"));
    EXPECT_EQ(ip("route delete 10.9.5.0/24"), "");
    EXPECT_TRUE(eventually([&] {
      const std::lock_guard lock(sweptMutex_);
      return swept_ == std::vector<std::string>{"10.9.5.0/24"};
    })) << "nobody puts it back";
    kernel->sweep();
    EXPECT_TRUE(eventually(
        [&] { return shown("10.9.0.0/24").empty() && ip("route show proto 201").empty(); }));
    EXPECT_THAT(shown("fd09::/32"), HasSubstr("via fd00::2"));
    const std::lock_guard lock(sweptMutex_);
    EXPECT_EQ(swept_.size(), 201U);
    EXPECT_THAT(swept_,
                AllOf(testing::Contains("10.8.0.0/16"), Not(testing::Contains("fd09::/32"))));
  }
  EXPECT_EQ(all(), before_);
}

TEST_F(KernelSyncTest, OneProgramsANamespaceAndOnlyWithTheRightToDoSo) {
  const auto errorOf = [&] {
    try {
      agent();
    } catch (const std::system_error& error) {
      return error.code().value();
    }
    return 0;
  };
  {
    const auto first = agent();
    first->groupChanged(group("core", "10.0.0.2"));
    first->routeSet(route("10.9.0.0/16", "core"));
    EXPECT_EQ(tried(*first, "10.9.0.0/16").state(), State::PROGRAMMED);
    EXPECT_EQ(errorOf(), EADDRINUSE);
    EXPECT_THAT(shown("10.9.0.0/16"), HasSubstr("proto 201"));
  }
  int error = 0;
  std::thread([&] {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    syscall(SYS_capget, &header, sets);
    sets[0].effective &= ~(1U << CAP_NET_ADMIN);
    syscall(SYS_capset, &header, sets);
    error = errorOf();
  }).join();
  EXPECT_EQ(error, EPERM);
  EXPECT_EQ(errorOf(), 0);
}

// An agent that is held up while more changes than its socket holds.
TEST_F(KernelSyncTest, ReadsAllAnewWhenNotificationsAreLost) {
  Process stopped([&] {
    auto* const kernel = agent().release();
    kernel->groupChanged(group("core", "10.0.0.2"));
    kernel->routeSet(route("10.9.0.0/16", "core"));
  });
  ASSERT_TRUE(eventually([&] { return !shown("10.9.0.0/16").empty(); }));
  stopped.signal(SIGSTOP);
  const std::string file = testing::TempDir() + namespace_.name() + ".batch";
  {
    std::ofstream batch(file);
    for (int i = 0; i < 100000; ++i)
      batch << "route " << (i % 2 ? "del" : "add") << " 10.77.0.0/16 dev d0\n";
    batch << "route del 10.9.0.0/16 metric 201\n";
  }
  ASSERT_EQ(ip("-batch " + file), "");
  std::remove(file.c_str());
  const std::string drops =
      output("ip netns exec " + namespace_.name() +
             " awk '$9 ~ /^[0-9]+$/ { sum += $9 } END { print sum }' /proc/net/netlink");
  EXPECT_GT(std::stoul(drops), 0U) << "notifications must be lost for this to be a test";
  ASSERT_EQ(shown("10.9.0.0/16"), "");
  stopped.signal(SIGCONT);
  EXPECT_TRUE(eventually([&] { return !shown("10.9.0.0/16").empty(); }));
}

}  // namespace
}  // namespace test
