#include <Kiv/Demangle.h>
#include <VornSdkRpc/Conversions.h>
#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <iomanip>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

namespace VornSdkRpc {

namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;
using vorn::af_t;

const std::string v4("\x0a\x00\x00\xff", 4);
const std::string v6("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16);

template <typename Value>
std::string text(const Value& value) {
  std::ostringstream stream;
  stream << value;
  return stream.str();
}

pb::ip_address_msg address(const std::string& bytes) {
  pb::ip_address_msg message;
  message.set_addr(bytes);
  return message;
}

vorn::sbfd_echo_session_key_t key(const std::string& nexthop) {
  return {ipAddressToIpAddr(address(nexthop)), "Ethernet1"s, {100, 200, 300}, 0xfe, 7};
}

TEST(Conversions, OperationsBecomeActions) {
  constexpr std::pair<int, int> actions[] = {{0, 0}, {1, 1}, {2, 2},  {3, 3},          {4, 3},
                                             {5, 3}, {6, 0}, {-1, 0}, {0x7fffffff, 0}, {256, 0}};
  for (const auto& [op, action] : actions) {
    EXPECT_EQ(static_cast<int>(mplsOpToMplsAction(pb::nexthop_msg::mpls_operation_enum(op))),
              action)
        << op;
  }
}

TEST(Conversions, AddressesAndPrefixesByTheNumberOfBytes) {
  const std::pair<std::string, std::string> rows[] = {
      {"", "none"},
      {v4, "10.0.0.255"},
      {v6, "2001:db8::1"},
      {"123", "none"},
      {"12345", "none"},
      {std::string(17, 'x'), "none"},
      {std::string(260, 'x'), "none"},
  };
  for (const auto& [bytes, expected] : rows) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    const auto addr = ipAddressToIpAddr(address(bytes));
    const bool none = expected == "none";
    EXPECT_EQ(text(addr), expected);
    EXPECT_EQ(addr == vorn::ip_addr_t(), none);
    for (const std::uint32_t length : {24, 280, 255}) {
      pb::ip_prefix_msg message;
      message.set_addr(bytes);
      message.set_mask_length(length);
      const auto prefix = ipPrefixToPrefix(message);
      EXPECT_EQ(text(prefix), none ? expected : expected + "/" + std::to_string(length % 256));
      EXPECT_EQ(prefix == vorn::ip_prefix_t(), none);
    }
    if (!none) {
      EXPECT_EQ(ipAddrToIpAddress(addr).addr(), bytes);
    }
  }
  for (const auto& bytes : {v4, v6, "of any length"s, ""s})
    EXPECT_EQ(ipGenAddrToIpAddress(Zilnet::IpGenAddr(bytes)).addr(), bytes);
  auto message = address("left over");
  ipAddrToIpAddress(vorn::ip_addr_t(static_cast<af_t>(5), nullptr), &message);
  EXPECT_EQ(message.addr(), "") << "of a family that is unknown";
}

TEST(ConversionsDeathTest, ANullAddressIsTheCallersError) {
  pb::ip_address_msg filled;
  pb::sbfd_echo_session_key_msg message;
  const char* const said = "void VornSdkRpc::ipAddrToIpAddress\\(.*: Assertion `false' failed";
  EXPECT_DEATH(ipAddrToIpAddress(vorn::ip_addr_t(), &filled), said);
  EXPECT_DEATH(convertKey(key(""), &message), said);
}

TEST(Conversions, AKeyIsAppendedToTheLabelsAndReplacesTheRest) {
  pb::sbfd_echo_session_key_msg message;
  convertKey({ipAddressToIpAddr(address(v4)), "Ethernet2"s, {1}, 2, 3}, &message);
  convertKey(key(v6), &message);
  EXPECT_EQ(message.outgoing_interface(), "Ethernet1");
  EXPECT_EQ(message.nexthop().addr(), v6);
  EXPECT_THAT(message.labels(), ElementsAre(1, 100, 200, 300));
  EXPECT_EQ(message.dscp(), 0xfeU);
  EXPECT_EQ(message.mpls_exp(), 7U);
  EXPECT_EQ(convertMsg(message),
            vorn::sbfd_echo_session_key_t(ipAddressToIpAddr(address(v6)), "Ethernet1"s,
                                          {1, 100, 200, 300}, 0xfe, 7));
}

TEST(Conversions, AMessageFromAnywhereIsAKey) {
  pb::sbfd_echo_session_key_msg message;
  EXPECT_EQ(convertMsg(message), vorn::sbfd_echo_session_key_t({}, ""s, {}, 0, 0));
  message.mutable_nexthop()->set_addr("too long for IPv4");
  message.set_dscp(0x12e);
  message.set_mpls_exp(0x107);
  message.add_labels(0xffffffff);
  EXPECT_EQ(convertMsg(message), vorn::sbfd_echo_session_key_t({}, ""s, {0xffffffff}, 0x2e, 7));
}

TEST(Values, CompareHashAndPad) {
  const auto a = ipAddressToIpAddr(address(v4));
  EXPECT_EQ((std::unordered_set<vorn::ip_prefix_t>{{a, 8}, {a, 9}, {a, 8}, {{}, 9}, {}}.size()),
            3U);
  EXPECT_EQ((std::unordered_set<vorn::sbfd_echo_session_key_t>{
                key(v4), key(v6), key(v4), {a, "Ethernet1"s, {100, 300, 200}, 0xfe, 7}}
                 .size()),
            3U);
  std::ostringstream stream;
  stream << std::hex << std::showbase << std::showpos << std::setfill('*') << std::left
         << std::setw(12) << a << std::right << std::setw(14) << vorn::ip_prefix_t(a, 10);
  EXPECT_EQ(stream.str(), "10.0.0.255***10.0.0.255/10");
}

// Few bit patterns, so that runs of zeros of every length and place come up.
TEST(Values, AddressTextIsThatOfInetNtop) {
  std::mt19937 random(4);
  for (int i = 0; i < 20000; ++i) {
    unsigned char bytes[16];
    for (auto& byte : bytes)
      byte = static_cast<unsigned char>(random() % 3 == 0 ? random() : random() % 2 * 255);
    if (i % 2 == 0) std::fill_n(bytes, 10, static_cast<unsigned char>(0));
    char expected[INET6_ADDRSTRLEN];
    EXPECT_EQ(text(vorn::ip_addr_t(af_t::ipv6, bytes)),
              inet_ntop(AF_INET6, bytes, expected, sizeof expected));
    EXPECT_EQ(text(vorn::ip_addr_t(af_t::ipv4, bytes)),
              inet_ntop(AF_INET, bytes, expected, sizeof expected));
  }
}

template <int>
struct Numbered {};

template <typename Type>
std::string nameOf() {
  return std::string(std::string_view(Kiv::demangle(typeid(Type))));
}

TEST(Demangle, AnswersTheSameToEveryThread) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 100; ++round) {
        EXPECT_EQ(nameOf<pb::ip_route_msg>(), "VornSdkRpc::pb::ip_route_msg");
        EXPECT_EQ(nameOf<Numbered<7>>(), "VornSdkRpc::(anonymous namespace)::Numbered<7>");
        EXPECT_EQ(nameOf<int>(), "int");
      }
    });
  }
}

}  // namespace

}  // namespace VornSdkRpc
