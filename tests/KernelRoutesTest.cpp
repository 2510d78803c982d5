#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "agents/routing/KernelRoutes.h"

namespace test {
namespace {

using routing_agent::KernelRoutes;
using testing::HasSubstr;
using VornSdkRpc::pb::ip_prefix_msg;
using VornSdkRpc::pb::nexthop_msg;

// What a command prints, errors too, with one blank between words.
std::string output(const std::string& command) {
  const auto close = [](FILE* file) { pclose(file); };
  const std::unique_ptr<FILE, decltype(close)> pipe(popen((command + " 2>&1").c_str(), "r"), close);
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

// Next hops from words ADDRESS%INTERFACE*COUNT, each part of which may be missing.
std::vector<nexthop_msg> hops(const std::string& text) {
  static const std::regex parts("([^%*]*)%?([^*]*)[*]?(.*)");
  std::vector<nexthop_msg> all;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    std::smatch part;
    std::regex_match(word, part, parts);
    auto& message = all.emplace_back();
    if (part.length(1) != 0) message.mutable_nexthop_ip()->set_addr(bytes(part.str(1)));
    message.set_nexthop_interface(part.str(2));
    if (part.length(3) != 0)
      message.set_replicate_count(static_cast<std::uint32_t>(std::stoul(part.str(3))));
  }
  return all;
}

// A namespace of the test's own with two interfaces, d0 and d1.
class KernelRoutesTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string refusal = output("ip netns add " + netns_);
    if (!refusal.empty()) GTEST_SKIP() << "this user may not make network namespaces: " << refusal;
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
      ASSERT_EQ(ip(command), "") << command;
    }
    before_ = all();
  }
  void TearDown() override { output("ip netns delete " + netns_); }

  std::string ip(const std::string& arguments) const {
    return output("ip -n " + netns_ + " " + arguments);
  }
  // The main table's routes of a prefix, or all of a family.
  std::string shown(const std::string& destination) const {
    const bool v6 = destination.find(':') != std::string::npos;
    return ip((v6 ? "-6 route show " : "route show ") + destination);
  }
  std::string all() const { return ip("route show") + "\n" + ip("-6 route show"); }

  static void set(KernelRoutes& routes, const std::string& destination, const std::string& nexthops,
                  std::uint32_t metric = 0) {
    routes.set(prefix(destination), hops(nexthops), metric);
  }
  // What set() says when it throws.
  static std::string refusal(KernelRoutes& routes, const std::string& destination,
                             const std::vector<nexthop_msg>& nexthops, std::uint32_t metric = 0) {
    try {
      routes.set(prefix(destination), nexthops, metric);
    } catch (const std::system_error& error) {
      return error.what();
    }
    return "set";
  }

  const std::string netns_ = "rpc-test-k" + std::to_string(getpid());
  std::string before_;
};

TEST_F(KernelRoutesTest, SetsReplacesAndRemoves) {
  struct Step {
    std::string prefix, hops;
    std::uint32_t metric;
    std::string shown;
  };
  const Step steps[] = {
      {"10.9.0.0/16", "10.0.0.2", 0, "10.9.0.0/16 via 10.0.0.2 dev d0 proto 201 metric 201"},
      {"10.9.0.0/16", "10.0.0.2*3 10.0.1.2%d1", 0,
       "10.9.0.0/16 proto 201 metric 201 nexthop via 10.0.0.2 dev d0 weight 3 "
       "nexthop via 10.0.1.2 dev d1 weight 1"},
      {"10.9.0.0/16", "%d0 10.0.1.2*256", 0,
       "10.9.0.0/16 proto 201 metric 201 nexthop dev d0 weight 1 "
       "nexthop via 10.0.1.2 dev d1 weight 256"},
      {"10.9.0.0/16", "%d1", 0, "10.9.0.0/16 dev d1 proto 201 scope link metric 201"},
      {"10.9.0.0/16", "fd00::2%d0", 0, "10.9.0.0/16 via inet6 fd00::2 dev d0 proto 201 metric 201"},
      {"10.9.0.0/16", "10.0.1.2 10.0.1.2*2", 0,
       "10.9.0.0/16 via 10.0.1.2 dev d1 proto 201 metric 201"},
      {"10.9.0.0/16", "10.0.1.3", 77, "10.9.0.0/16 via 10.0.1.3 dev d1 proto 201 metric 77"},
      {"fd09::/32", "fd00::2%d0*2 fd00:1::2", 0,
       "fd09::/32 proto 201 metric 201 pref medium nexthop via fd00::2 dev d0 weight 2 "
       "nexthop via fd00:1::2 dev d1 weight 1"},
      {"fd09::/32", "%d1", 0, "fd09::/32 dev d1 proto 201 metric 201 pref medium"},
      {"fd09::/32", "fd00:1::2 fe80::2%d0", 0,
       "fd09::/32 proto 201 metric 201 pref medium nexthop via fd00:1::2 dev d1 weight 1 "
       "nexthop via fe80::2 dev d0 weight 1"},
      {"fd09::/32", "fd00::3", 77, "fd09::/32 via fd00::3 dev d0 proto 201 metric 77 pref medium"},
      {"0.0.0.0/0", "10.0.0.2", 0, "default via 10.0.0.2 dev d0 proto 201 metric 201"},
      {"::/0", "fd00::2", 0, "default via fd00::2 dev d0 proto 201 metric 201 pref medium"},
      {"10.8.1.1/32", "10.0.0.2", 0, "10.8.1.1 via 10.0.0.2 dev d0 proto 201 metric 201"},
  };
  const std::string outside = output("ip route show table all; ip -6 route show table all");
  KernelRoutes routes(netns_);
  for (const Step& step : steps) {
    for (int twice = 0; twice < 2; ++twice) {
      set(routes, step.prefix, step.hops, step.metric);
      EXPECT_EQ(shown(step.prefix), step.shown);
    }
  }
  EXPECT_EQ(output("ip route show table all; ip -6 route show table all"), outside)
      << "the process's own namespace";
  for (const Step& step : steps)
    routes.remove(prefix(step.prefix));
  EXPECT_EQ(all(), before_);
}

TEST_F(KernelRoutesTest, SaysWhatIsWrongAndKeepsTheFormerRoute) {
  KernelRoutes routes(netns_);
  auto labelled = hops("10.0.0.2"), crooked = labelled, zero = hops("%d0");
  labelled[0].add_labels(16);
  crooked[0].mutable_nexthop_ip()->set_addr("12345");
  zero[0].set_nexthop_interface(std::string("d0\0x", 4));
  const auto good = hops("10.0.0.2 10.0.1.2");
  routes.set(prefix("10.9.0.0/16"), good, 0);
  set(routes, "fd09::/32", "fd00::2 fd00:1::2");
  const std::string former = all();

  const std::vector<std::tuple<std::string, std::vector<nexthop_msg>, std::string>> refused = {
      {"10.9.0.0/16", hops("10.0.0.2 %d9"), "no interface d9: No such device"},
      {"10.9.0.0/16", zero, "a name that none can have"},
      {"10.9.0.0/16", hops("%a-name-too-long!"), "a name that none can have"},
      {"10.9.0.0/16", hops("10.7.0.1"), "Network is unreachable"},
      {"10.9.0.0/16", hops("10.0.1.2%d0"), "invalid gateway"},
      {"10.9.0.0/16", hops("10.0.0.2 10.0.0.2*256"), "counts 257 times"},
      {"10.9.0.0/16", labelled, "labels"},
      {"10.9.0.0/16", crooked, "5 bytes"},
      {"10.9.0.0/16", hops("*1"), "neither"},
      {"10.9.0.0/16", {}, "no next hop"},
      {"10.9.0.1/16", good, "Invalid argument"},
      {"10.9.0.0/33", good, "longer than its address"},
      {"fd09::/32", hops("10.0.0.2"), "Invalid argument"},
      {"fd09::/32", hops("fd00::2 %d0"), "Device only routes"},
  };
  for (const auto& [destination, nexthops, why] : refused) {
    const std::string said = refusal(routes, destination, nexthops);
    EXPECT_THAT(said, AllOf(HasSubstr(destination), HasSubstr(why)));
    EXPECT_EQ(all(), former);
  }
}

TEST_F(KernelRoutesTest, FindsInterfacesThatComeAndGo) {
  KernelRoutes routes(netns_);
  const auto set = [&] { return refusal(routes, "10.9.0.0/16", hops("%d2")); };
  EXPECT_THAT(set(), HasSubstr("no interface d2"));
  for (int again = 0; again < 2; ++again) {
    ASSERT_EQ(ip("link add d2 type veth peer name d3"), "");
    EXPECT_THAT(set(), HasSubstr("Network is down"));
    ASSERT_EQ(ip("link set d2 up"), "");
    EXPECT_EQ(set(), "set");
    ASSERT_EQ(ip("link delete d2"), "");
    EXPECT_EQ(all(), before_) << "the kernel drops it with the interface";
  }
  for (int again = 0; again < 2; ++again)
    EXPECT_NO_THROW(routes.remove(prefix("10.9.0.0/16")));
}

TEST_F(KernelRoutesTest, LeavesOtherOwnersRoutesAlone) {
  const std::pair<std::string, std::string> families[] = {{"10.9.0.0/16", "10.0.0."},
                                                          {"fd09::/32", "fd00::"}};
  for (const auto& [destination, network] : families) {
    const std::string route = " route add " + destination + " via " + network;
    ASSERT_EQ(ip(route + "9 metric 201"), "");
    ASSERT_EQ(ip(route + "8 metric 500 proto static"), "");
  }
  const std::string theirs = all();
  {
    KernelRoutes routes(netns_);
    for (const auto& [destination, network] : families) {
      EXPECT_THAT(refusal(routes, destination, hops(network + "2")),
                  HasSubstr("another owner's route has this metric"));
      set(routes, destination, network + "2", 300);
      EXPECT_THAT(refusal(routes, destination, hops(network + "3"), 500), HasSubstr("another"));
      EXPECT_THAT(shown(destination), HasSubstr(network + "2 dev d0 proto 201 metric 300"));
      routes.remove(prefix(destination));
      EXPECT_EQ(all(), theirs);

      // One that takes the very place of ours, which is gone, is not ours to remove.
      set(routes, destination, network + "2", 300);
      ASSERT_EQ(ip("route delete " + destination + " metric 300"), "");
      const std::string heir = destination + " metric 300 via " + network + "7";
      ASSERT_EQ(ip("route add " + heir), "");
      routes.remove(prefix(destination));
      ASSERT_EQ(ip("route delete " + heir), "");
    }
    for (const auto& [destination, network] : families)
      set(routes, destination, network + "2", 300);
  }
  EXPECT_EQ(all(), theirs);
}

// Once a clean end is over, or the next one has begun after an end that is not clean.
TEST_F(KernelRoutesTest, LeavesNothingBehind) {
  ASSERT_EQ(ip("route add 10.6.0.0/16 via 10.0.0.9 proto static"), "");
  const std::string theirs = all();
  for (const bool clean : {false, true}) {
    const pid_t child = fork();
    if (child == 0) {
      auto* const routes = new KernelRoutes(netns_);
      for (int i = 0; i < 256; ++i)
        set(*routes, "10.9." + std::to_string(i) + ".0/24", "10.0.0.2");
      set(*routes, "10.9.0.0/24", "10.0.0.2 10.0.1.2*2", 300);
      set(*routes, "0.0.0.0/0", "%d0");
      set(*routes, "fd09::/32", "fd00::2 fd00:1::2");
      set(*routes, "::/0", "%d0");
      if (clean) delete routes;
      _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    if (!clean) {
      ASSERT_THAT(all(), AllOf(HasSubstr("10.9.255.0/24"), HasSubstr("fd09::/32")));
      const KernelRoutes next(netns_);
      EXPECT_EQ(all(), theirs);
    }
  }
  EXPECT_EQ(all(), theirs);
}

}  // namespace
}  // namespace test
