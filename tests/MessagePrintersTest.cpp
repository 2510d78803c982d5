#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <iomanip>
#include <ios>
#include <iterator>
#include <locale>
#include <new>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>

#include "VornSdkRpc/MessagePrinters.h"

namespace {

// How many allocations the thread may still make before memory runs out; below zero, any number.
thread_local long allocationsLeft = -1;

}  // namespace

// Not inlined, or GCC takes a visible free() for one that does not match its operator new.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (allocationsLeft == 0) throw std::bad_alloc();
  if (allocationsLeft > 0) --allocationsLeft;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace VornSdkRpc::pb {

namespace {

template <typename Message>
Message parsed(std::string const& fields) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(fields, &message)) << fields;
  return message;
}

// A locale that writes what the classic one does, but is not the classic one.
std::locale likeClassic() { return {std::locale::classic(), new std::numpunct<char>}; }

template <typename Message>
std::string written(Message const& message, std::locale const& locale) {
  std::ostringstream stream;
  stream.imbue(locale);
  stream << message;
  return stream.str();
}

template <typename Message>
void expectText(std::string const& fields, std::string const& text) {
  SCOPED_TRACE(fields);
  const auto message = parsed<Message>(fields);
  static_assert(noexcept(toString(message)) && noexcept(std::declval<std::ostream&>() << message));
  EXPECT_EQ(toString(message), text);
  EXPECT_EQ(written(message, std::locale::classic()), text);
  EXPECT_EQ(written(message, likeClassic()), text);
}

#define NS "VornSdkRpc::pb::"
#define DEFAULT_KEY \
  NS "sbfd_echo_session_key_msg{outgoingInterface= nexthop=none labels=[] dscp=0 mplsExp=0}"

constexpr char fullKey[] =
    R"(outgoing_interface: "et1" nexthop { addr: "\n\001\002\003" } labels: [16, 17, 18] dscp: 46
       mpls_exp: 7)";
#define FULL_KEY                                                                             \
  NS "sbfd_echo_session_key_msg{outgoingInterface=et1 nexthop=10.1.2.3 labels=[16, 17, 18] " \
     "dscp=46 mplsExp=7}"

const std::string fullNexthop =
    R"(nexthop_ip { addr: " \001\r\270\000\000\000\000\000\000\000\000\000\000\000\001" }
       nexthop_interface: "et2" mpls_op: MPLS_PUSH labels: 1048575 replicate_count: 4294967295
       sbfd_session_key { )" +
    std::string(fullKey) + " }";
#define FULL_NEXTHOP                                                            \
  NS "nexthop_msg{nexthopIp=2001:db8::1 nexthopInterface=et2 mplsOp=MPLS_PUSH " \
     "labels=[1048575] replicateCount=4294967295 sbfdSessionKey= " FULL_KEY "}"
#define DEFAULT_NEXTHOP                                                         \
  NS "nexthop_msg{nexthopIp=none nexthopInterface= mplsOp=MPLS_NONE labels=[] " \
     "replicateCount=0 sbfdSessionKey= " DEFAULT_KEY "}"

TEST(MessagePrinters, AddressesAndPrefixesAreBare) {
  expectText<ip_address_msg>("", "none");
  expectText<ip_address_msg>(R"(addr: "\n\001\002\003")", "10.1.2.3");
  expectText<ip_address_msg>(R"(addr: "12345")", "none");
  expectText<ip_prefix_msg>("mask_length: 24", "none");
  expectText<ip_prefix_msg>(R"(addr: "\n\001\002\003" mask_length: 280)", "10.1.2.3/24");
  expectText<ip_prefix_msg>(R"(addr: "123" mask_length: 24)", "none");
}

TEST(MessagePrinters, RoutesAndTunnels) {
  expectText<ip_route_msg>("", NS "ip_route_msg{prefix=none tag=0}");
  expectText<ip_route_msg>(R"(nexthop_group: "")",
                           NS "ip_route_msg{prefix=none nexthopGroup= tag=0}");
  expectText<ip_route_msg>(
      R"(prefix { addr: "\n\001\000\000" mask_length: 16 } nexthop_group: "G1" tag: 7)",
      NS "ip_route_msg{prefix=10.1.0.0/16 nexthopGroup=G1 tag=7}");
  expectText<nexthop_group_tunnel_msg>(
      "", NS "nexthop_group_tunnel_msg{prefix=none nexthopGroup= igpMetric=0}");
  expectText<nexthop_group_tunnel_msg>(
      R"(prefix { addr: "\000\000\000\000" } nexthop_group: "a\"\n\000b" igp_metric: 10)",
      std::string(NS "nexthop_group_tunnel_msg{prefix=0.0.0.0/0 nexthopGroup=a\"\n") + '\0' +
          "b igpMetric=10}");
}

TEST(MessagePrinters, NexthopsAndTheirGroups) {
  expectText<sbfd_echo_session_key_msg>("", DEFAULT_KEY);
  expectText<sbfd_echo_session_key_msg>(fullKey, FULL_KEY);
  expectText<nexthop_msg>("", DEFAULT_NEXTHOP);
  expectText<nexthop_msg>(fullNexthop, FULL_NEXTHOP);
  expectText<nexthop_msg>("mpls_op: 6", NS
                          "nexthop_msg{nexthopIp=none nexthopInterface= mplsOp= labels=[] "
                          "replicateCount=0 sbfdSessionKey= " DEFAULT_KEY "}");
  expectText<nexthop_group_msg>("", NS
                                "nexthop_group_msg{name= requestDelete=false nexthop=[] "
                                "backupNexthop=[] nexthopGroupType=NEXTHOP_GROUP_IP}");
  expectText<nexthop_group_msg>(
      R"(name: "G" request_delete: true nexthop { )" + fullNexthop +
          " } nexthop {} backup_nexthop {} nexthop_group_type: 1",
      NS "nexthop_group_msg{name=G requestDelete=true nexthop=[" FULL_NEXTHOP ", " DEFAULT_NEXTHOP
         "] backupNexthop=[" DEFAULT_NEXTHOP "] nexthopGroupType=}");
}

TEST(MessagePrinters, MplsRoutesAndRedirects) {
  expectText<mpls_route_msg>("", NS "mpls_route_msg{label=0 requestDelete=false}");
  expectText<mpls_route_msg>("label: 100 nexthop {}", NS
                             "mpls_route_msg{label=100 requestDelete=false "
                             "nexthop=" DEFAULT_NEXTHOP "}");
  expectText<mpls_route_msg>(R"(label: 100 nexthop_group { nexthop_group: "G1" })",
                             NS "mpls_route_msg{label=100 requestDelete=false nexthopGroup=" NS
                                "mpls_route_msg_forward_nexthop_group_msg{nexthopGroup=G1 "
                                "mplsOp=MPLS_POP}}");
  expectText<mpls_route_msg>(R"(request_delete: true pop_and_forward_vrf_name: "")",
                             NS "mpls_route_msg{label=0 requestDelete=true popAndForwardVrfName=}");
  expectText<mpls_route_msg>(R"(pop_and_forward_vrf_name: "red")", NS
                             "mpls_route_msg{label=0 requestDelete=false "
                             "popAndForwardVrfName=red}");
  expectText<mpls_route_msg_forward_nexthop_group_msg>(
      "mpls_op: 2", NS "mpls_route_msg_forward_nexthop_group_msg{nexthopGroup= mplsOp=}");
  expectText<cbf_nexthop_group_redirect_msg>(
      "", NS
      "cbf_nexthop_group_redirect_msg{matchNexthopGroup= matchIpv4Dscp=[] matchIpv6Dscp=[] "
      "redirectNexthopGroup= requestDelete=false}");
  expectText<cbf_nexthop_group_redirect_msg>(
      R"(match_nexthop_group: "A" match_ipv4_dscp: [0, 63] match_ipv6_dscp: 8
         redirect_nexthop_group: "B" request_delete: true)",
      NS
      "cbf_nexthop_group_redirect_msg{matchNexthopGroup=A matchIpv4Dscp=[0, 63] "
      "matchIpv6Dscp=[8] redirectNexthopGroup=B requestDelete=true}");
}

TEST(MessagePrinters, Sessions) {
  expectText<sbfd_echo_session_msg>("", NS "sbfd_echo_session_msg{sessionKey=" DEFAULT_KEY
                                           " requestDelete=false rttEnabled=false minTx=0 "
                                           "detectionMultiplier=0 trackInterfaceState=false}");
  expectText<sbfd_echo_session_msg>(
      "session_key { " + std::string(fullKey) +
          " } request_delete: true rtt_enabled: true min_tx: 300000 detection_multiplier: 3 "
          "track_interface_state: true",
      NS "sbfd_echo_session_msg{sessionKey=" FULL_KEY
         " requestDelete=true rttEnabled=true minTx=300000 detectionMultiplier=3 "
         "trackInterfaceState=true}");
  expectText<sbfd_echo_session_rtt_msg>(
      "last_rtt: 1 min_rtt: 2 avg_rtt: 3 max_rtt: 4 snapshot_min_rtt: 5 snapshot_avg_rtt: 6 "
      "snapshot_max_rtt: 7",
      NS
      "sbfd_echo_session_rtt_msg{lastRtt=1 minRtt=2 avgRtt=3 maxRtt=4 snapshotMinRtt=5 "
      "snapshotAvgRtt=6 snapshotMaxRtt=7}");
  expectText<sbfd_echo_session_oper_status_msg>("", "UNKNOWN");
  expectText<sbfd_echo_session_oper_status_msg>("status: UP", "UP");
  expectText<sbfd_echo_session_oper_status_msg>("status: 5", "");
}

TEST(MessagePrinters, WatchItemsWriteWhatIsThere) {
  expectText<watch_sbfd_echo_session_config_msg>(
      "", NS "watch_sbfd_echo_session_config_msg{requestRttUpdates=false}");
  expectText<watch_sbfd_echo_session_config_msg>(
      "request_rtt_updates: true", NS "watch_sbfd_echo_session_config_msg{requestRttUpdates=true}");

#define ITEM NS "watch_sbfd_echo_session_status_msg"
  const auto expectItem = expectText<watch_sbfd_echo_session_status_msg>;
  expectItem("", ITEM "{}");
  expectItem("session_key {}", ITEM "{sessionKey=" DEFAULT_KEY "}");
  expectItem("end_of_status_batch: true", ITEM "{endOfStatusBatch=true}");
  expectItem("end_of_status_batch: false", ITEM "{endOfStatusBatch=false}");
  expectItem("status { status: 77 }", ITEM "{status=}");
  expectItem("session_key {} status { status: DOWN }",
             ITEM "{sessionKey=" DEFAULT_KEY " status=DOWN}");
  expectItem("rtt {}", ITEM "{rtt=" NS
                            "sbfd_echo_session_rtt_msg{lastRtt=0 minRtt=0 avgRtt=0 maxRtt=0 "
                            "snapshotMinRtt=0 snapshotAvgRtt=0 snapshotMaxRtt=0}}");
  expectItem("bulk {} bulk { end_of_status_batch: true }",
             ITEM "{bulk=#2[" ITEM "{}, " ITEM "{endOfStatusBatch=true}]}");
  expectItem("session_key {} bulk {}", ITEM "{sessionKey=" DEFAULT_KEY " bulk=#1[" ITEM "{}]}");
  expectItem("status {} bulk { bulk { bulk { session_key {} } status { status: INIT } } bulk {} }",
             ITEM "{status=UNKNOWN bulk=#1[" ITEM "{bulk=#2[" ITEM "{status=INIT bulk=#1[" ITEM
                  "{sessionKey=" DEFAULT_KEY "}]}, " ITEM "{}]}]}");
}

TEST(MessagePrinters, ServerState) {
  expectText<rpc_status_msg>("", "SUCCESS");
  expectText<rpc_status_msg>("rpc_status_value: NO_RESOURCES", "NO_RESOURCES");
  expectText<rpc_status_msg>("rpc_status_value: -1", "");
  expectText<rpc_server_state_config_msg>("", NS "rpc_server_state_config_msg{set=[] delete=[]}");
  expectText<rpc_server_state_config_msg>(
      R"(set { key: "x" value: "1" } set { key: "y" value: "2" } delete { key: "z" } delete {})",
      NS "rpc_server_state_config_msg{set=[x=1, y=2] delete=[z, ]}");
  expectText<rpc_server_state_status_msg>("", NS "rpc_server_state_status_msg{value=[]}");
  expectText<rpc_server_state_status_msg>(R"(value { value: "a, b" } value {})",
                                          NS "rpc_server_state_status_msg{value=[a, b, ]}");
}

TEST(MessagePrinters, ALongTextIsWhole) {
  const std::string name(100'000, 'n');
  const std::string text = NS "ip_route_msg{prefix=none nexthopGroup=" + name + " tag=0}";
  expectText<ip_route_msg>("nexthop_group: \"" + name + '"', text);
  rpc_server_state_status_msg many;
  std::string expected = NS "rpc_server_state_status_msg{value=[";
  for (int i = 0; i < 2'000; ++i) {
    many.add_value()->set_value(std::to_string(i));
    expected += (i == 0 ? "" : ", ") + std::to_string(i);
  }
  EXPECT_EQ(toString(many), expected + "]}");
  EXPECT_EQ(written(many, std::locale::classic()), expected + "]}");
}

// ---------------------------------------------------------------------------------------------------
// Streams

struct Grouped : std::numpunct<char> {
  char do_thousands_sep() const override { return '\''; }
  std::string do_grouping() const override { return "\3"; }
  std::string do_truename() const override { return "yes"; }
};

TEST(MessagePrintersOnStreams, NumbersFollowTheStream) {
  const auto tunnel = parsed<nexthop_group_tunnel_msg>(
      R"(prefix { addr: "\n\000\000\000" mask_length: 16 } igp_metric: 66047)");
  const auto print = [](auto const& message, auto&&... manipulators) {
    std::ostringstream stream;
    (stream << ... << manipulators) << message;
    return stream.str();
  };
  const auto expected = [](std::string const& metric) {
    return NS "nexthop_group_tunnel_msg{prefix=10.0.0.0/16 nexthopGroup= igpMetric=" + metric + "}";
  };
  EXPECT_EQ(print(tunnel, std::hex), expected("101ff"));
  EXPECT_EQ(print(tunnel, std::hex, std::showbase, std::uppercase), expected("0X101FF"));
  EXPECT_EQ(print(tunnel, std::oct, std::showbase), expected("0200777"));
  EXPECT_EQ(print(tunnel, std::showpos, std::noboolalpha), expected("66047"));
  const auto item = parsed<watch_sbfd_echo_session_status_msg>("bulk {}");
  EXPECT_EQ(print(item, std::showpos), ITEM "{bulk=#+1[" ITEM "{}]}");

  const std::locale grouped(std::locale::classic(), new Grouped);
  EXPECT_EQ(written(tunnel, grouped), expected("66'047"));
  const auto config = parsed<watch_sbfd_echo_session_config_msg>("request_rtt_updates: true");
  EXPECT_EQ(written(config, grouped),
            NS "watch_sbfd_echo_session_config_msg{requestRttUpdates=yes}");
  const std::locale before = std::locale::global(grouped);
  EXPECT_EQ(toString(tunnel), expected("66'047"));
  std::locale::global(before);
}

TEST(MessagePrintersOnStreams, WidthAndFillPadTheFirstText) {
  std::ostringstream stream;
  const auto state = parsed<rpc_server_state_status_msg>("value {}");
  stream << std::setfill('.') << std::left << std::setw(46) << state;
  EXPECT_EQ(stream.str(), NS "rpc_server_state_status_msg...{value=[]}");
  EXPECT_EQ(stream.width(), 46);

  stream.str("");
  stream << std::setw(9) << parsed<rpc_status_msg>("") << std::setw(5)
         << parsed<rpc_status_msg>("rpc_status_value: 9") << std::right << std::setw(6)
         << ip_address_msg();
  EXPECT_EQ(stream.str(), "SUCCESS.........none");
  EXPECT_EQ(stream.width(), 0);
}

// Frees and copies the text that a stream's pword holds, as the owner of a pword does.
void ownedText(std::ios_base::event event, std::ios_base& stream, int index) {
  auto& text = reinterpret_cast<std::string*&>(stream.pword(index));
  if (text == nullptr || event == std::ios_base::imbue_event) return;
  if (event == std::ios_base::erase_event) {
    delete text;
    text = nullptr;
  } else {
    text = new std::string(*text);
  }
}

TEST(MessagePrintersOnStreams, EverySettingIsRestored) {
  const auto message = parsed<nexthop_group_msg>("nexthop {} request_delete: true");
  const int word = std::ios_base::xalloc();
  const int farWord = word + 40;  // a stream has room for fewer in itself
  for (const auto base : {std::ios_base::dec, std::ios_base::hex}) {
    std::ostringstream stream;
    std::ostringstream tied;
    const auto flags = base | std::ios_base::unitbuf | std::ios_base::showpoint;
    stream.flags(flags);
    stream.precision(3);
    stream.width(7);
    stream.fill('#');
    stream.tie(&tied);
    stream.exceptions(std::ios_base::badbit);
    stream.register_callback(ownedText, word);
    stream.pword(word) = new std::string("owned");
    stream.iword(farWord) = 2000;
    const auto locale = stream.getloc();

    stream << message << message;
    EXPECT_EQ(stream.flags(), flags);
    EXPECT_EQ(stream.precision(), 3);
    EXPECT_EQ(stream.width(), 7);
    EXPECT_EQ(stream.fill(), '#');
    EXPECT_EQ(stream.getloc(), locale);
    EXPECT_EQ(stream.tie(), &tied);
    EXPECT_EQ(stream.exceptions(), std::ios_base::badbit);
    EXPECT_EQ(*static_cast<std::string*>(stream.pword(word)), "owned");
    EXPECT_EQ(stream.iword(farWord), 2000);
  }
}

// ---------------------------------------------------------------------------------------------------
// Streams that fail

enum class Fault { shortWrite, throwingWrite, failingSync, throwingSync };

// Takes some bytes, and then fails.
class BrokenBuffer : public std::streambuf {
 public:
  BrokenBuffer(Fault fault, std::size_t room) : fault_(fault), room_(room) {}
  std::string const& taken() const { return taken_; }

 private:
  std::streamsize xsputn(char const* text, std::streamsize size) override {
    if (fault_ == Fault::failingSync || fault_ == Fault::throwingSync) return size;
    const std::size_t taken = std::min(room_ - taken_.size(), static_cast<std::size_t>(size));
    taken_.append(text, taken);
    if (fault_ == Fault::throwingWrite && taken_.size() == room_) throw std::runtime_error("full");
    return static_cast<std::streamsize>(taken);
  }
  int_type overflow(int_type c) override {
    const char text = traits_type::to_char_type(c);
    return xsputn(&text, 1) == 1 ? c : traits_type::eof();
  }
  int sync() override {
    if (fault_ == Fault::throwingSync) throw std::runtime_error("full");
    return fault_ == Fault::failingSync ? -1 : 0;
  }

  Fault fault_;
  std::size_t room_;
  std::string taken_;
};

constexpr auto allStates = std::ios_base::badbit | std::ios_base::failbit | std::ios_base::eofbit;

TEST(MessagePrintersOnBrokenStreams, TheStreamIsBadAndTheProcessLives) {
  const auto message = parsed<mpls_route_msg>("label: 1 nexthop {}");
  const std::string text = toString(message);
  for (const auto fault :
       {Fault::shortWrite, Fault::throwingWrite, Fault::failingSync, Fault::throwingSync}) {
    for (const auto base : {std::ios_base::dec, std::ios_base::fmtflags{}}) {
      for (const std::size_t room : {0U, 1U, 20U, 100U, 250U}) {
        BrokenBuffer buffer(fault, room);
        std::ostream stream(&buffer);
        stream.flags(base | std::ios_base::unitbuf);
        stream.exceptions(allStates);
        stream << message << rpc_status_msg() << ip_address_msg();
        EXPECT_TRUE(stream.bad());
        EXPECT_EQ(buffer.taken(), text.substr(0, buffer.taken().size()));
        if (fault == Fault::shortWrite) {
          EXPECT_EQ(buffer.taken().size(), room);
        }
        EXPECT_EQ(stream.exceptions(), allStates);
        EXPECT_EQ(stream.flags(), base | std::ios_base::unitbuf);
      }
    }
  }
}

TEST(MessagePrintersOnBrokenStreams, NoBufferAFailedStreamAndAThrowingTie) {
  const auto message = parsed<mpls_route_msg>("label: 1 nexthop {}");
  for (const auto base : {std::ios_base::dec, std::ios_base::fmtflags{}}) {
    std::ostream none(nullptr);
    none.flags(base);
    EXPECT_THROW(none.exceptions(allStates), std::ios_base::failure);
    none << message << ip_address_msg();
    EXPECT_TRUE(none.bad());
    EXPECT_EQ(none.exceptions(), allStates);

    std::ostringstream failed;
    failed.flags(base);
    failed.setstate(std::ios_base::failbit);
    failed << message << ip_address_msg();
    EXPECT_EQ(failed.rdstate(), std::ios_base::failbit);
    EXPECT_EQ(failed.flags(), base);
    EXPECT_EQ(failed.str(), "");

    BrokenBuffer buffer(Fault::failingSync, 0);
    std::ostream tied(&buffer);
    tied.exceptions(std::ios_base::badbit);
    std::ostringstream stream;
    stream.flags(base);
    stream.tie(&tied);
    stream.exceptions(std::ios_base::badbit);
    stream << message;
    EXPECT_TRUE(stream.bad());
    EXPECT_EQ(stream.flags(), base);
  }
}

// Every allocation on the way fails once.
TEST(MessagePrintersOutOfMemory, IsABadStreamOrAnEmptyString) {
  const auto message = parsed<mpls_route_msg>("label: 1 nexthop {}");
  const std::string text = toString(message);
  const int farWord = std::ios_base::xalloc() + 40;
  for (const auto base : {std::ios_base::dec, std::ios_base::fmtflags{}}) {
    long allocations = 0;
    for (bool done = false; !done; ++allocations) {
      std::ostringstream stream;
      stream.flags(base);
      stream.iword(farWord) = 1;
      stream.exceptions(allStates);
      allocationsLeft = allocations;
      stream << message;
      allocationsLeft = -1;
      done = stream.good();
      EXPECT_TRUE(done || stream.bad());
      EXPECT_EQ(stream.str(), text.substr(0, done ? text.size() : stream.str().size()));
      EXPECT_EQ(stream.flags(), base);
      EXPECT_EQ(stream.width(), 0);
      EXPECT_EQ(stream.exceptions(), allStates);
    }
    EXPECT_GT(allocations, 1);
  }
  for (auto const& locale : {std::locale::classic(), likeClassic()}) {
    const std::locale before = std::locale::global(locale);
    std::string got;
    for (long allocations = 0; got.empty(); ++allocations) {
      allocationsLeft = allocations;
      std::string result = toString(message);
      allocationsLeft = -1;
      got = std::move(result);
    }
    EXPECT_EQ(got, text);
    std::locale::global(before);
  }
}

TEST(MessagePrintersOutOfMemory, APlainStreamNeedsNoMemory) {
  const auto message = parsed<nexthop_group_msg>("nexthop {} backup_nexthop {}");
  const std::string text = toString(message);
  char room[1000];
  struct Buffer : std::streambuf {
    Buffer(char* begin, char* end) { setp(begin, end); }
    std::size_t size() const { return static_cast<std::size_t>(pptr() - pbase()); }
  } buffer(std::begin(room), std::end(room));
  std::ostream stream(&buffer);
  allocationsLeft = 0;
  stream << message;
  allocationsLeft = -1;
  EXPECT_EQ(std::string_view(room, buffer.size()), text);
}

}  // namespace

}  // namespace VornSdkRpc::pb
