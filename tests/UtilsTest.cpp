#include <VornSdkRpc/PeerInfo.h>
#include <VornSdkRpc/Utils.h>
#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;
using namespace VornSdkRpc;

// ------------------------------------------------------------------------------------------------
// Peers

TEST(PeerInfo, SplitsPeerTexts) {
  for (const Words& c : std::vector<Words>{
           {"ipv4:10.1.2.3:900", "ipv4", "10.1.2.3", "900"},
           {"ipv4:10.0.0.5:", "ipv4", "10.0.0.5", ""},
           {"ipv6:[::1]:900", "ipv6", "[::1]", "900"},
           {"unix:/run/agent.sock", "unix", "/run/agent.sock", "/run/agent.sock"},
           {"unix:", "unix", "", ""},
           {"a::d", "a", "", "d"},
           {":b", "", "b", "b"},
           {"no colon", "", "", ""},
           {"", "", "", ""},
       }) {
    const auto info = parsePeerURI(c[0]);
    EXPECT_THAT((Words{c[0], info.scheme, info.addr, info.port}), testing::ElementsAreArray(c));
  }
  EXPECT_EQ(extractIpAddr("10.0.0.5"), "10.0.0.5");
  EXPECT_EQ(extractIpAddr("[::1]:900"), "[");
}

TEST(PeerInfo, KnowsPeersOfThisHost) {
  const struct {
    const char *peer, *localAddr;
    bool local;
  } cases[] = {
      {"unix:/run/agent.sock", "", true},
      {"unix-abstract:name", "10.0.0.5", true},
      {"unix:", "", true},
      {"unixish:/run/agent.sock", "", false},
      {"ipv4:localhost:900", "", true},
      {"ipv4:127:900", "", true},
      {"ipv4:127.200.1.1:900", "10.0.0.5", true},
      {"ipv4:1270.0.0.1:900", "", false},
      {"ipv4:10.127.0.0:900", "", false},
      {"ipv4:10.0.0.5:900", "10.0.0.5:900", true},
      {"ipv4:10.0.0.5:900", "10.0.0.5", true},
      {"ipv4:10.0.0.5:900", "10.0.0.6:900", false},
      {"ipv4:10.0.0.5:900", "", false},
      {"ipv4:10.0.0.5:900", "10.0.0.50", false},
      {"ipv6:[::1]:900", "[::1]:900", false},
      {"ipv6:%5B::1%5D:900", "[::1]:900", false},
      {"ipv4::900", "", false},
      {"no colon", "no colon", false},
  };
  for (const auto& [peer, localAddr, local] : cases)
    EXPECT_EQ(isLocalIpAddr(peer, localAddr), local) << peer << " against " << localAddr;
}

// ------------------------------------------------------------------------------------------------
// The command line

TEST(Argv, TakesTheFirstOfAnOptionAndLeavesTheOthersInOrder) {
  struct Case {
    Words before;
    std::string value;
    bool present;
    Words after;  // without the value, and without the option
  };
  for (auto& [before, value, present, after] : std::vector<Case>{
           {{"prog", "--name", "agent1", "--verbose"}, "agent1", false, {"prog", "--verbose"}},
           {{"prog", "a", "--name", "--other"}, "--other", false, {"prog", "a"}},
           {{"prog", "--name"}, "default", false, {"prog"}},
           {{"prog", "--name", "", "--name"}, "", true, {"prog"}},
           {{"prog", "--name", "1", "--name", "2"}, "1", true, {"prog", "2"}},
           {{"--name=1", "--nam", "--names"}, "default", false, {"--name=1", "--nam", "--names"}},
           {{}, "default", false, {}},
       }) {
    std::vector<char*> pointers;
    for (auto& word : before)
      pointers.push_back(word.data());
    pointers.push_back(nullptr);
    auto left = argv::vectorize(static_cast<int>(before.size()), pointers.data());
    EXPECT_EQ(argv::getOptionValue(left, "--name", "default"), value);
    EXPECT_EQ(argv::isOptionPresent(left, "--name"), present);
    EXPECT_EQ(Words(left.begin(), left.end()), after);
  }
  EXPECT_THROW(argv::vectorize(-1, nullptr), std::length_error);

  char name[] = "--name", given[] = "agent1";
  std::vector<char*> arguments = {name, given};
  EXPECT_EQ(argv::getOptionValue(arguments, "--name", "").data(), given) << "a view of it";
}

}  // namespace
