#include <VornSdkRpc/MessagePrinters.h>
#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <cstddef>
#include <iomanip>
#include <ios>
#include <locale>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "FailingNew.h"

namespace VornSdkRpc::pb {

namespace {

using test::allocationsLeft;

template <typename Message>
Message parsed(const std::string& fields) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(fields, &message)) << fields;
  return message;
}

// A locale that writes what the classic one does, but is not the classic one.
std::locale likeClassic() { return {std::locale::classic(), new std::numpunct<char>}; }

template <typename Message>
std::string written(const Message& message, const std::locale& locale = std::locale::classic(),
                    std::ios_base::fmtflags flags = std::ios_base::dec) {
  std::ostringstream stream;
  stream.imbue(locale);
  stream.flags(flags);
  stream << message;
  return stream.str();
}

template <typename Message>
void expectText(const std::string& fields, const std::string& text) {
  SCOPED_TRACE(fields);
  const auto message = parsed<Message>(fields);
  static_assert(noexcept(toString(message)) && noexcept(std::declval<std::ostream&>() << message));
  EXPECT_EQ(toString(message), text);
  EXPECT_EQ(written(message), text);
  EXPECT_EQ(written(message, likeClassic()), text);
}

// message | its fields, in protobuf's text format | its text
// In the texts, $key and $nexthop are those of default messages, $item is the name of the watch's
// item, and @ is the namespace.
constexpr char texts[] = R"(
ip_address_msg | | none
ip_address_msg | addr: "\n\001\002\003" | 10.1.2.3
ip_address_msg | addr: "\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\001" | ::1
ip_prefix_msg | mask_length: 24 | none
ip_prefix_msg | addr: "\n\001\002\003" mask_length: 280 | 10.1.2.3/24
ip_route_msg | | @ip_route_msg{prefix=none tag=0}
ip_route_msg | nexthop_group: "" | @ip_route_msg{prefix=none nexthopGroup= tag=0}
ip_route_msg | prefix { addr: "\n\001\000\000" mask_length: 16 } nexthop_group: "G1" tag: 7 | @ip_route_msg{prefix=10.1.0.0/16 nexthopGroup=G1 tag=7}
nexthop_group_tunnel_msg | | @nexthop_group_tunnel_msg{prefix=none nexthopGroup= igpMetric=0}
nexthop_group_tunnel_msg | prefix { addr: "\000\000\000\000" } nexthop_group: "a\"\tb" igp_metric: 10 | @nexthop_group_tunnel_msg{prefix=0.0.0.0/0 nexthopGroup=a"	b igpMetric=10}
sbfd_echo_session_key_msg | | @sbfd_echo_session_key_msg{outgoingInterface= nexthop=none labels=[] dscp=0 mplsExp=0}
sbfd_echo_session_key_msg | outgoing_interface: "et1" nexthop { addr: "\n\001\002\003" } labels: [16, 17, 18] dscp: 46 mpls_exp: 511 | @sbfd_echo_session_key_msg{outgoingInterface=et1 nexthop=10.1.2.3 labels=[16, 17, 18] dscp=46 mplsExp=511}
nexthop_msg | | @nexthop_msg{nexthopIp=none nexthopInterface= mplsOp=MPLS_NONE labels=[] replicateCount=0 sbfdSessionKey= @sbfd_echo_session_key_msg{outgoingInterface= nexthop=none labels=[] dscp=0 mplsExp=0}}
nexthop_msg | nexthop_ip { addr: " \001\r\270\000\000\000\000\000\000\000\000\000\000\000\001" } nexthop_interface: "et2" mpls_op: MPLS_POP_TO_IPV6 labels: 1048575 replicate_count: 4294967295 sbfd_session_key { dscp: 8 } | @nexthop_msg{nexthopIp=2001:db8::1 nexthopInterface=et2 mplsOp=MPLS_POP_TO_IPV6 labels=[1048575] replicateCount=4294967295 sbfdSessionKey= @sbfd_echo_session_key_msg{outgoingInterface= nexthop=none labels=[] dscp=8 mplsExp=0}}
nexthop_msg | mpls_op: 6 | @nexthop_msg{nexthopIp=none nexthopInterface= mplsOp= labels=[] replicateCount=0 sbfdSessionKey= $key}
nexthop_group_msg | | @nexthop_group_msg{name= requestDelete=false nexthop=[] backupNexthop=[] nexthopGroupType=NEXTHOP_GROUP_IP}
nexthop_group_msg | name: "G" request_delete: true nexthop {} nexthop {} backup_nexthop {} nexthop_group_type: 1 | @nexthop_group_msg{name=G requestDelete=true nexthop=[$nexthop, $nexthop] backupNexthop=[$nexthop] nexthopGroupType=}
mpls_route_msg | | @mpls_route_msg{label=0 requestDelete=false}
mpls_route_msg | label: 100 nexthop {} | @mpls_route_msg{label=100 requestDelete=false nexthop=$nexthop}
mpls_route_msg | label: 100 nexthop_group { nexthop_group: "G1" } | @mpls_route_msg{label=100 requestDelete=false nexthopGroup=@mpls_route_msg_forward_nexthop_group_msg{nexthopGroup=G1 mplsOp=MPLS_POP}}
mpls_route_msg | pop_and_forward_vrf_name: "red" | @mpls_route_msg{label=0 requestDelete=false popAndForwardVrfName=red}
mpls_route_msg | request_delete: true pop_and_forward_vrf_name: "" | @mpls_route_msg{label=0 requestDelete=true popAndForwardVrfName=}
mpls_route_msg_forward_nexthop_group_msg | mpls_op: MPLS_SWAP | @mpls_route_msg_forward_nexthop_group_msg{nexthopGroup= mplsOp=MPLS_SWAP}
mpls_route_msg_forward_nexthop_group_msg | mpls_op: 2 | @mpls_route_msg_forward_nexthop_group_msg{nexthopGroup= mplsOp=}
cbf_nexthop_group_redirect_msg | | @cbf_nexthop_group_redirect_msg{matchNexthopGroup= matchIpv4Dscp=[] matchIpv6Dscp=[] redirectNexthopGroup= requestDelete=false}
cbf_nexthop_group_redirect_msg | match_nexthop_group: "A" match_ipv4_dscp: [0, 63] match_ipv6_dscp: 8 redirect_nexthop_group: "B" request_delete: true | @cbf_nexthop_group_redirect_msg{matchNexthopGroup=A matchIpv4Dscp=[0, 63] matchIpv6Dscp=[8] redirectNexthopGroup=B requestDelete=true}
sbfd_echo_session_msg | | @sbfd_echo_session_msg{sessionKey=$key requestDelete=false rttEnabled=false minTx=0 detectionMultiplier=0 trackInterfaceState=false}
sbfd_echo_session_msg | request_delete: true min_tx: 300000 detection_multiplier: 3 track_interface_state: true | @sbfd_echo_session_msg{sessionKey=$key requestDelete=true rttEnabled=false minTx=300000 detectionMultiplier=3 trackInterfaceState=true}
sbfd_echo_session_msg | rtt_enabled: true | @sbfd_echo_session_msg{sessionKey=$key requestDelete=false rttEnabled=true minTx=0 detectionMultiplier=0 trackInterfaceState=false}
sbfd_echo_session_rtt_msg | last_rtt: 1 min_rtt: 2 avg_rtt: 3 max_rtt: 4 snapshot_min_rtt: 5 snapshot_avg_rtt: 6 snapshot_max_rtt: 7 | @sbfd_echo_session_rtt_msg{lastRtt=1 minRtt=2 avgRtt=3 maxRtt=4 snapshotMinRtt=5 snapshotAvgRtt=6 snapshotMaxRtt=7}
sbfd_echo_session_oper_status_msg | | UNKNOWN
sbfd_echo_session_oper_status_msg | status: UP | UP
sbfd_echo_session_oper_status_msg | status: 5 |
watch_sbfd_echo_session_config_msg | | @watch_sbfd_echo_session_config_msg{requestRttUpdates=false}
watch_sbfd_echo_session_config_msg | request_rtt_updates: true | @watch_sbfd_echo_session_config_msg{requestRttUpdates=true}
watch_sbfd_echo_session_status_msg | | $item{}
watch_sbfd_echo_session_status_msg | end_of_status_batch: true | $item{endOfStatusBatch=true}
watch_sbfd_echo_session_status_msg | end_of_status_batch: false | $item{endOfStatusBatch=false}
watch_sbfd_echo_session_status_msg | status { status: 77 } | $item{status=}
watch_sbfd_echo_session_status_msg | session_key {} status { status: DOWN } | $item{sessionKey=$key status=DOWN}
watch_sbfd_echo_session_status_msg | rtt {} | $item{rtt=@sbfd_echo_session_rtt_msg{lastRtt=0 minRtt=0 avgRtt=0 maxRtt=0 snapshotMinRtt=0 snapshotAvgRtt=0 snapshotMaxRtt=0}}
watch_sbfd_echo_session_status_msg | bulk {} bulk { end_of_status_batch: true } | $item{bulk=#2[$item{}, $item{endOfStatusBatch=true}]}
watch_sbfd_echo_session_status_msg | status {} bulk { bulk { bulk { session_key {} } status { status: INIT } } bulk {} } | $item{status=UNKNOWN bulk=#1[$item{bulk=#2[$item{status=INIT bulk=#1[$item{sessionKey=$key}]}, $item{}]}]}
rpc_status_msg | | SUCCESS
rpc_status_msg | rpc_status_value: NO_RESOURCES | NO_RESOURCES
rpc_status_msg | rpc_status_value: -1 |
rpc_server_state_config_msg | | @rpc_server_state_config_msg{set=[] delete=[]}
rpc_server_state_config_msg | set { key: "x" value: "1" } set { key: "y" value: "2" } delete { key: "z" } delete {} | @rpc_server_state_config_msg{set=[x=1, y=2] delete=[z, ]}
rpc_server_state_status_msg | | @rpc_server_state_status_msg{value=[]}
rpc_server_state_status_msg | value { value: "a, b" } value {} | @rpc_server_state_status_msg{value=[a, b, ]}
)";

std::string expanded(std::string text) {
  constexpr std::pair<const char*, const char*> shorthands[] = {
      {"$nexthop",
       "@nexthop_msg{nexthopIp=none nexthopInterface= mplsOp=MPLS_NONE labels=[] replicateCount=0 "
       "sbfdSessionKey= $key}"},
      {"$key",
       "@sbfd_echo_session_key_msg{outgoingInterface= nexthop=none labels=[] dscp=0 mplsExp=0}"},
      {"$item", "@watch_sbfd_echo_session_status_msg"},
      {"@", "VornSdkRpc::pb::"}};
  for (const auto& [shorthand, meaning] : shorthands)
    for (auto at = text.find(shorthand); at != std::string::npos; at = text.find(shorthand, at))
      text.replace(at, std::string_view(shorthand).size(), meaning);
  return text;
}

template <typename... Messages>
auto checksByName() {
  return std::map<std::string, void (*)(const std::string&, const std::string&)>{
      {Messages::descriptor()->name(), expectText<Messages>}...};
}

TEST(MessagePrinters, EveryMessageHasItsText) {
  const auto checks =
      checksByName<ip_address_msg, ip_prefix_msg, ip_route_msg, nexthop_group_tunnel_msg,
                   nexthop_msg, sbfd_echo_session_key_msg, nexthop_group_msg, mpls_route_msg,
                   mpls_route_msg_forward_nexthop_group_msg, cbf_nexthop_group_redirect_msg,
                   sbfd_echo_session_msg, sbfd_echo_session_rtt_msg,
                   sbfd_echo_session_oper_status_msg, watch_sbfd_echo_session_config_msg,
                   watch_sbfd_echo_session_status_msg, rpc_status_msg, rpc_server_state_config_msg,
                   rpc_server_state_status_msg>();
  std::set<std::string> seen;
  std::istringstream rows(texts);
  for (std::string row; std::getline(rows, row);) {
    if (row.empty()) continue;
    const auto fields = row.find('|') + 1;
    const auto text = row.find('|', fields) + 1;
    const std::string message = row.substr(0, fields - 2);
    checks.at(message)(row.substr(fields, text - 1 - fields),
                       text < row.size() ? expanded(row.substr(text + 1)) : "");
    seen.insert(message);
  }
  EXPECT_EQ(seen.size(), checks.size());
}

TEST(MessagePrinters, EveryByteOfALongTextIsThere) {
  std::string bytes(100'000, 'n');
  for (std::size_t i = 0; i < 256; ++i)
    bytes[390 * i] = static_cast<char>(i);
  ip_route_msg route;
  route.set_nexthop_group(bytes);
  rpc_server_state_status_msg many;
  std::string list;
  for (int i = 0; i < 2'000; ++i) {
    many.add_value()->set_value(std::to_string(i));
    list += (i == 0 ? "" : ", ") + std::to_string(i);
  }
  const std::string text = expanded("@ip_route_msg{prefix=none nexthopGroup=") + bytes +
                           expanded(" tag=0}@rpc_server_state_status_msg{value=[") + list + "]}";
  EXPECT_EQ(toString(route) + toString(many), text);
  EXPECT_EQ(written(route) + written(many), text);
}

// ---------------------------------------------------------------------------------------------------
// Streams

struct Grouped : std::numpunct<char> {
  char do_thousands_sep() const override { return '\''; }
  std::string do_grouping() const override { return "\3"; }
  std::string do_truename() const override { return "yes"; }
};

TEST(MessagePrintersOnStreams, NumbersFollowTheStream) {
  using std::ios_base;
  const auto tunnel = parsed<nexthop_group_tunnel_msg>(
      R"(prefix { addr: "\n\000\000\000" mask_length: 16 } igp_metric: 66047)");
  const std::locale grouped(std::locale::classic(), new Grouped);
  const std::tuple<ios_base::fmtflags, std::locale, std::string> rows[] = {
      {ios_base::hex, {}, "101ff"},
      {ios_base::hex | ios_base::showbase | ios_base::uppercase, {}, "0X101FF"},
      {ios_base::oct | ios_base::showbase, {}, "0200777"},
      {ios_base::dec | ios_base::showpos, {}, "66047"},
      {ios_base::dec, grouped, "66'047"},
  };
  const auto text = [](const std::string& metric) {
    return expanded(
        "@nexthop_group_tunnel_msg{prefix=10.0.0.0/16 nexthopGroup= igpMetric=" + metric + "}");
  };
  for (const auto& [flags, locale, metric] : rows)
    EXPECT_EQ(written(tunnel, locale, flags), text(metric));
  const std::locale before = std::locale::global(grouped);
  EXPECT_EQ(toString(tunnel), text("66'047"));
  std::locale::global(before);

  const auto item =
      parsed<watch_sbfd_echo_session_status_msg>("bulk { end_of_status_batch: true }");
  EXPECT_EQ(written(item, grouped, ios_base::dec | ios_base::showpos),
            expanded("$item{bulk=#+1[$item{endOfStatusBatch=yes}]}"));
}

TEST(MessagePrintersOnStreams, WidthAndFillPadTheFirstText) {
  std::ostringstream stream;
  const auto state = parsed<rpc_server_state_status_msg>("value {}");
  stream << std::setfill('.') << std::left << std::setw(46) << state;
  EXPECT_EQ(stream.str(), expanded("@rpc_server_state_status_msg...{value=[]}"));
  EXPECT_EQ(stream.width(), 46);

  stream.str("");
  stream << std::setw(9) << parsed<rpc_status_msg>("") << std::setw(5)
         << parsed<rpc_status_msg>("rpc_status_value: 9") << std::right << std::setw(6)
         << ip_address_msg();
  EXPECT_EQ(stream.str(), "SUCCESS.........none");
  EXPECT_EQ(stream.width(), 0);
}

constexpr auto allStates = std::ios_base::badbit | std::ios_base::failbit | std::ios_base::eofbit;

// What printing must leave as it was.
auto settings(std::ostream& stream) {
  static const int farWord = std::ios_base::xalloc() + 40;  // a stream has room for fewer in itself
  if (stream.iword(farWord) == 0) stream.iword(farWord) = 2000;
  return std::tuple(stream.flags(), stream.precision(), stream.width(), stream.fill(),
                    stream.getloc(), stream.tie(), stream.exceptions(), stream.iword(farWord));
}

TEST(MessagePrintersOnStreams, EverySettingIsRestored) {
  const auto message = parsed<nexthop_group_msg>("nexthop {} request_delete: true");
  for (const auto base : {std::ios_base::dec, std::ios_base::hex}) {
    std::ostringstream stream, tied;
    stream.flags(base | std::ios_base::unitbuf | std::ios_base::showpoint);
    stream.precision(3);
    stream.width(7);
    stream.fill('#');
    stream.tie(&tied);
    stream.exceptions(std::ios_base::badbit);
    const auto before = settings(stream);
    stream << message << message;
    EXPECT_TRUE(settings(stream) == before);
  }
}

// ---------------------------------------------------------------------------------------------------
// Streams that fail

enum class Fault { shortWrite, throwingWrite, failingSync, throwingSync };

// Takes some bytes, and then fails.
class BrokenBuffer : public std::streambuf {
 public:
  BrokenBuffer(Fault fault, std::size_t room) : fault_(fault), room_(room) {}
  const std::string& taken() const { return taken_; }

 private:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
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
        const auto before = settings(stream);
        stream << message << rpc_status_msg() << ip_address_msg();
        EXPECT_TRUE(stream.bad());
        EXPECT_TRUE(text.starts_with(buffer.taken()));
        EXPECT_TRUE(fault != Fault::shortWrite || buffer.taken().size() == room);
        EXPECT_TRUE(settings(stream) == before);
      }
    }
  }
}

// Written at once or piece by piece, a stream that breaks has taken the same and says the same.
TEST(MessagePrintersOnBrokenStreams, WhereItBreaksTheStateIsTheSame) {
  const auto message = parsed<rpc_server_state_config_msg>(R"(set { key: "x" } delete {})");
  const std::size_t size = toString(message).size();
  for (std::size_t room = 0; room <= size; ++room) {
    BrokenBuffer atOnce(Fault::shortWrite, room);
    BrokenBuffer byPiece(Fault::shortWrite, room);
    std::ostream plain(&atOnce);
    std::ostream other(&byPiece);
    other.imbue(likeClassic());
    plain << message;
    other << message;
    EXPECT_EQ(atOnce.taken(), byPiece.taken());
    EXPECT_EQ(plain.rdstate(), other.rdstate()) << room;
    EXPECT_EQ(plain.bad(), room < size);
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
  for (const auto base : {std::ios_base::dec, std::ios_base::fmtflags{}}) {
    int allocations = 0;
    for (bool done = false; !done; ++allocations) {
      std::ostringstream stream;
      stream.flags(base);
      stream.width(base == std::ios_base::dec ? 0 : 5);  // 5 pads no name
      stream.exceptions(allStates);
      const auto before = settings(stream);
      allocationsLeft = allocations;
      stream << message;
      done = allocationsLeft >= 0;
      allocationsLeft = -1;
      EXPECT_TRUE(stream.good() ? stream.str() == text
                                : stream.bad() && text.starts_with(stream.str()));
      EXPECT_TRUE(settings(stream) == before);
    }
    EXPECT_GT(allocations, 1);
  }
  for (const auto& locale : {std::locale::classic(), likeClassic()}) {
    const std::locale before = std::locale::global(locale);
    std::string got;
    for (int allocations = 0; got.empty(); ++allocations) {
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
  std::ostringstream stream(std::string(1000, ' '));
  allocationsLeft = 0;
  stream << message;
  allocationsLeft = -1;
  EXPECT_TRUE(stream.str().starts_with(text));
}

}  // namespace

}  // namespace VornSdkRpc::pb
