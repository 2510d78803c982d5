#include <VornSdkRpc/GrpcServer.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using VornSdkRpc::checkIfLoopbackAddr;
using VornSdkRpc::extractIpAddr;
using VornSdkRpc::isLocalIpAddr;

TEST(PeerInfo, SplitsPeerTexts) {
  struct Case {
    std::string uri, scheme, addr, port;
  };
  const Case cases[] = {
      {"ipv4:10.1.2.3:900", "ipv4", "10.1.2.3", "900"},
      {"ipv4:10.0.0.5:", "ipv4", "10.0.0.5", ""},
      {"ipv6:[::1]:900", "ipv6", "[::1]", "900"},
      {"ipv6:%5B::1%5D:900", "ipv6", "%5B::1%5D", "900"},
      {"unix:/run/agent.sock", "unix", "/run/agent.sock", "/run/agent.sock"},
      {"unix:", "unix", "", ""},
      {"unix-abstract:name", "unix-abstract", "name", "name"},
      {"a:b:c:d", "a", "b:c", "d"},
      {"a::d", "a", "", "d"},
      {":b", "", "b", "b"},
      {":", "", "", ""},
      {"no colon", "", "", ""},
      {"", "", "", ""},
  };
  for (const auto& [uri, scheme, addr, port] : cases) {
    const auto info = VornSdkRpc::parsePeerURI(uri);
    EXPECT_EQ(info.scheme, scheme) << uri;
    EXPECT_EQ(info.addr, addr) << uri;
    EXPECT_EQ(info.port, port) << uri;
  }
}

TEST(PeerInfo, TakesTheTextBeforeTheFirstColon) {
  EXPECT_EQ(extractIpAddr("10.0.0.5:900"), "10.0.0.5");
  EXPECT_EQ(extractIpAddr("10.0.0.5"), "10.0.0.5");
  EXPECT_EQ(extractIpAddr("[::1]:900"), "[");
  EXPECT_EQ(extractIpAddr(""), "");
}

TEST(PeerInfo, KnowsLoopbackByTheWholeFirstComponent) {
  for (const auto* addr : {"127", "127.0.0.1", "127.200.1.1", "127."})
    EXPECT_TRUE(checkIfLoopbackAddr(addr)) << addr;
  for (const auto* addr :
       {"1270.0.0.1", "127abc.0", "12", "10.127.0.0", "", ".127", "::1", "[::1]"})
    EXPECT_FALSE(checkIfLoopbackAddr(addr)) << addr;
}

TEST(PeerInfo, KnowsPeersOfThisHost) {
  struct Case {
    std::string peer, localAddr;
    bool local;
  };
  const Case cases[] = {
      {"unix:/run/agent.sock", "", true},
      {"unix-abstract:name", "10.0.0.5", true},
      {"unix:", "", true},
      {"unixish:/run/agent.sock", "", false},
      {"ipv4:localhost:900", "", true},
      {"ipv4:127.0.0.1:900", "", true},
      {"ipv4:127.200.1.1:900", "10.0.0.5", true},
      {"ipv4:10.0.0.5:900", "10.0.0.5:900", true},
      {"ipv4:10.0.0.5:900", "10.0.0.5", true},
      {"ipv4:10.0.0.5:900", "10.0.0.6:900", false},
      {"ipv4:10.0.0.5:900", "", false},
      {"ipv4:10.0.0.5:900", "10.0.0.50", false},
      {"ipv6:[::1]:900", "[::1]:900", false},
      {"ipv6:%5B::1%5D:900", "[::1]:900", false},
      {"ipv6:[2001:db8::1]:900", "[2001:db8::1]", false},
      {"ipv4::900", "", false},
      {"no colon", "no colon", false},
      {"", "", false},
  };
  for (const auto& [peer, localAddr, local] : cases)
    EXPECT_EQ(isLocalIpAddr(peer, localAddr), local) << peer << " against " << localAddr;
}

}  // namespace
