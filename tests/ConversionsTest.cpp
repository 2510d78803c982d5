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
#include <type_traits>
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

pb::ip_prefix_msg prefix(const std::string& bytes, std::uint32_t length) {
  pb::ip_prefix_msg message;
  message.set_addr(bytes);
  message.set_mask_length(length);
  return message;
}

vorn::sbfd_echo_session_key_t key(const std::string& nexthop) {
  return {ipAddressToIpAddr(address(nexthop)), "Ethernet1"s, {100, 200, 300}, 0xfe, 7};
}

// What a process says when it is stopped by the assertion on null addresses.
constexpr char nullAddress[] =
    "/src/VornSdkRpc/Conversions.cpp.*void VornSdkRpc::ipAddrToIpAddress\\(const "
    "vorn::ip_addr_t&, VornSdkRpc::pb::ip_address_msg\\*\\): Assertion `false' failed";

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
  const struct {
    std::string bytes;
    af_t family;
    std::string address, prefix24, prefix255;
  } rows[] = {
      {"", af_t::none, "none", "none", "none"},
      {v4, af_t::ipv4, "10.0.0.255", "10.0.0.255/24", "10.0.0.255/255"},
      {v6, af_t::ipv6, "2001:db8::1", "2001:db8::1/24", "2001:db8::1/255"},
      {"123", af_t::none, "none", "none", "none"},
      {"12345", af_t::none, "none", "none", "none"},
      {std::string(17, 'x'), af_t::none, "none", "none", "none"},
      {std::string(260, 'x'), af_t::none, "none", "none", "none"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.bytes));
    const auto addr = ipAddressToIpAddr(address(row.bytes));
    EXPECT_EQ(addr.af(), row.family);
    EXPECT_EQ(text(addr), row.address);
    EXPECT_EQ(text(ipPrefixToPrefix(prefix(row.bytes, 24))), row.prefix24);
    EXPECT_EQ(text(ipPrefixToPrefix(prefix(row.bytes, 280))), row.prefix24);
    EXPECT_EQ(text(ipPrefixToPrefix(prefix(row.bytes, 255))), row.prefix255);
    EXPECT_EQ(ipPrefixToPrefix(prefix(row.bytes, 24)) == vorn::ip_prefix_t(),
              row.family == af_t::none);
    if (row.family != af_t::none) {
      EXPECT_EQ(ipAddrToIpAddress(addr).addr(), row.bytes);
    }
  }
}

TEST(Conversions, AddressesOfOtherKinds) {
  auto message = address("left over");
  ipAddrToIpAddress(vorn::ip_addr_t(static_cast<af_t>(5), nullptr), &message);
  EXPECT_EQ(message.addr(), "");
  for (const auto& bytes : {v4, v6, "of any length"s, ""s}) {
    ipGenAddrToIpAddress(Zilnet::IpGenAddr(bytes), &message);
    EXPECT_EQ(message.addr(), bytes);
    EXPECT_EQ(ipGenAddrToIpAddress(Zilnet::IpGenAddr(bytes)).addr(), bytes);
  }
}

TEST(ConversionsDeathTest, ANullAddressIsTheCallersError) {
  pb::ip_address_msg filled;
  pb::sbfd_echo_session_key_msg message;
  EXPECT_DEATH(ipAddrToIpAddress(vorn::ip_addr_t(), &filled), nullAddress);
  EXPECT_DEATH(ipAddrToIpAddress(vorn::ip_addr_t()), nullAddress);
  EXPECT_DEATH(convertKey(key(""), &message), nullAddress);
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

TEST(Values, AStreamPadsAnAddressAsItPadsAString) {
  std::ostringstream stream;
  stream << std::hex << std::showbase << std::uppercase << std::showpos << std::setfill('*')
         << std::left << std::setw(12) << ipAddressToIpAddr(address(v4)) << std::setw(14)
         << std::right << ipPrefixToPrefix(prefix(v6, 64)) << ipPrefixToPrefix(prefix(v4, 10));
  EXPECT_EQ(stream.str(), "10.0.0.255**2001:db8::1/6410.0.0.255/10");
}

TEST(Values, EqualityAndHash) {
  static_assert(sizeof(vorn::ip_addr_t) <= 24);
  static_assert(std::is_trivially_copyable_v<vorn::ip_addr_t>);
  const auto a = ipAddressToIpAddr(address(v4));
  const auto b = ipAddressToIpAddr(address(v6));
  EXPECT_EQ((std::unordered_set<vorn::ip_addr_t>{a, b, {}, a, b}.size()), 3U);
  EXPECT_EQ(
      (std::unordered_set<vorn::ip_prefix_t>{{a, 8}, {a, 9}, {b, 8}, {a, 8}, {{}, 9}, {}}.size()),
      4U);
  EXPECT_EQ((std::unordered_set<vorn::sbfd_echo_session_key_t>{
                key(v4), key(v6), key(v4), {a, "Ethernet1"s, {100, 300, 200}, 0xfe, 7}}
                 .size()),
            3U);
  EXPECT_EQ(
      (std::unordered_set<Zilnet::IpGenAddr>{Zilnet::IpGenAddr(v4), Zilnet::IpGenAddr(v4)}.size()),
      1U);
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
