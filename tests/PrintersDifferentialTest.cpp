// The printers against the obvious renderings, which insert every piece into the stream and save
// the stream's format at every level: random messages, random stream formats, streams that break
// half way. Text, state and settings must come out the same.

#include <Kiv/Demangle.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <locale>
#include <ostream>
#include <random>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>

#include "VornSdkRpc/Conversions.h"
#include "VornSdkRpc/MessagePrinters.h"

namespace VornSdkRpc::pb {

namespace {

// ---------------------------------------------------------------------------------------------------
// The obvious renderings

template <typename Value>
struct Plainly {
  Value const& value;
  Value const* operator->() const { return &value; }
};
template <typename Value>
Plainly<Value> p(Value const& value) {
  return {value};
}

template <typename Value>
std::ostream& operator<<(std::ostream& o, Plainly<Value> message) {
  std::ios saved(nullptr);
  saved.copyfmt(o);
  o << std::boolalpha << Kiv::demangle(typeid(Value));
  fields(o, message);
  o.copyfmt(saved);
  return o;
}
template <typename List>
std::ostream& list(std::ostream& o, List const& elements, auto const& write) {
  for (auto element = elements.begin(); element != elements.end(); ++element) {
    if (element != elements.begin()) o << ", ";
    write(*element);
  }
  return o;
}
std::ostream& operator<<(std::ostream& o, Plainly<google::protobuf::RepeatedField<unsigned>> l) {
  return list(o, l.value, [&](unsigned element) { o << element; });
}
template <typename Element>
std::ostream& operator<<(std::ostream& o, Plainly<google::protobuf::RepeatedPtrField<Element>> l) {
  return list(o, l.value, [&](Element const& element) { o << p(element); });
}

std::ostream& operator<<(std::ostream& o, Plainly<ip_address_msg> m) {
  return o << ipAddressToIpAddr(m.value);
}
std::ostream& operator<<(std::ostream& o, Plainly<ip_prefix_msg> m) {
  return o << ipPrefixToPrefix(m.value);
}
std::ostream& operator<<(std::ostream& o, Plainly<rpc_status_msg> m) {
  return o << rpc_status_msg::rpc_status_value_enum_Name(m->rpc_status_value());
}
std::ostream& operator<<(std::ostream& o, Plainly<sbfd_echo_session_oper_status_msg> m) {
  return o << sbfd_echo_session_oper_status_msg::status_enum_Name(m->status());
}
std::ostream& operator<<(std::ostream& o, Plainly<rpc_server_state_entry_msg> m) {
  return o << m->key() << "=" << m->value();
}
std::ostream& operator<<(std::ostream& o, Plainly<rpc_server_state_key_msg> m) {
  return o << m->key();
}
std::ostream& operator<<(std::ostream& o, Plainly<rpc_server_state_value_msg> m) {
  return o << m->value();
}

void fields(std::ostream& o, Plainly<ip_route_msg> m) {
  o << "{prefix=" << p(m->prefix());
  if (m->forwarding_case() == 2) o << " nexthopGroup=" << m->nexthop_group();
  o << " tag=" << m->tag() << "}";
}
void fields(std::ostream& o, Plainly<nexthop_group_tunnel_msg> m) {
  o << "{prefix=" << p(m->prefix()) << " nexthopGroup=" << m->nexthop_group()
    << " igpMetric=" << m->igp_metric() << "}";
}
void fields(std::ostream& o, Plainly<nexthop_msg> m) {
  o << "{nexthopIp=" << p(m->nexthop_ip()) << " nexthopInterface=" << m->nexthop_interface()
    << " mplsOp=" << nexthop_msg::mpls_operation_enum_Name(m->mpls_op()) << " labels=["
    << p(m->labels()) << "] replicateCount=" << m->replicate_count()
    << " sbfdSessionKey= " << p(m->sbfd_session_key()) << "}";
}
void fields(std::ostream& o, Plainly<sbfd_echo_session_key_msg> m) {
  o << "{outgoingInterface=" << m->outgoing_interface() << " nexthop=" << p(m->nexthop())
    << " labels=[" << p(m->labels()) << "] dscp=" << m->dscp() << " mplsExp=" << m->mpls_exp()
    << "}";
}
void fields(std::ostream& o, Plainly<nexthop_group_msg> m) {
  o << "{name=" << m->name() << " requestDelete=" << m->request_delete() << " nexthop=["
    << p(m->nexthop()) << "] backupNexthop=[" << p(m->backup_nexthop()) << "] nexthopGroupType="
    << nexthop_group_msg::nexthop_group_type_enum_Name(m->nexthop_group_type()) << "}";
}
void fields(std::ostream& o, Plainly<mpls_route_msg_forward_nexthop_group_msg> m) {
  o << "{nexthopGroup=" << m->nexthop_group() << " mplsOp="
    << mpls_route_msg_forward_nexthop_group_msg::mpls_operation_enum_Name(m->mpls_op()) << "}";
}
void fields(std::ostream& o, Plainly<mpls_route_msg> m) {
  o << "{label=" << m->label() << " requestDelete=" << m->request_delete();
  if (m->forwarding_case() == 3) o << " nexthop=" << p(m->nexthop());
  if (m->forwarding_case() == 4) o << " nexthopGroup=" << p(m->nexthop_group());
  if (m->forwarding_case() == 5) o << " popAndForwardVrfName=" << m->pop_and_forward_vrf_name();
  o << "}";
}
void fields(std::ostream& o, Plainly<cbf_nexthop_group_redirect_msg> m) {
  o << "{matchNexthopGroup=" << m->match_nexthop_group() << " matchIpv4Dscp=["
    << p(m->match_ipv4_dscp()) << "] matchIpv6Dscp=[" << p(m->match_ipv6_dscp())
    << "] redirectNexthopGroup=" << m->redirect_nexthop_group()
    << " requestDelete=" << m->request_delete() << "}";
}
void fields(std::ostream& o, Plainly<sbfd_echo_session_msg> m) {
  o << "{sessionKey=" << p(m->session_key()) << " requestDelete=" << m->request_delete()
    << " rttEnabled=" << m->rtt_enabled() << " minTx=" << m->min_tx()
    << " detectionMultiplier=" << m->detection_multiplier()
    << " trackInterfaceState=" << m->track_interface_state() << "}";
}
void fields(std::ostream& o, Plainly<sbfd_echo_session_rtt_msg> m) {
  o << "{lastRtt=" << m->last_rtt() << " minRtt=" << m->min_rtt() << " avgRtt=" << m->avg_rtt()
    << " maxRtt=" << m->max_rtt() << " snapshotMinRtt=" << m->snapshot_min_rtt()
    << " snapshotAvgRtt=" << m->snapshot_avg_rtt() << " snapshotMaxRtt=" << m->snapshot_max_rtt()
    << "}";
}
void fields(std::ostream& o, Plainly<watch_sbfd_echo_session_config_msg> m) {
  o << "{requestRttUpdates=" << m->request_rtt_updates() << "}";
}
void fields(std::ostream& o, Plainly<watch_sbfd_echo_session_status_msg> m) {
  const bool key = m->has_session_key();
  const bool update = m->update_case() != 0;
  o << "{";
  if (key) o << "sessionKey=" << p(m->session_key());
  if (key && update) o << " ";
  if (m->update_case() == 2) o << "status=" << p(m->status());
  if (m->update_case() == 3) o << "rtt=" << p(m->rtt());
  if (m->update_case() == 4) o << "endOfStatusBatch=" << m->end_of_status_batch();
  if ((key || update) && !m->bulk().empty()) o << " ";
  if (!m->bulk().empty()) o << "bulk=#" << m->bulk().size() << "[" << p(m->bulk()) << "]";
  o << "}";
}
void fields(std::ostream& o, Plainly<rpc_server_state_config_msg> m) {
  o << "{set=[" << p(m->set()) << "]" << " delete=[" << p(m->delete_()) << "]}";
}
void fields(std::ostream& o, Plainly<rpc_server_state_status_msg> m) {
  o << "{value=[" << p(m->value()) << "]}";
}

// ---------------------------------------------------------------------------------------------------
// Random messages and streams

using Random = std::mt19937;

std::string randomText(Random& random) {
  constexpr std::size_t sizes[] = {0, 4, 16, 1, 3, 300, 5000};
  std::string text(sizes[random() % (random() % 50 == 0 ? 7 : 5)], '\0');
  std::ranges::generate(text, [&] { return static_cast<char>(random() % 3 ? random() : 0); });
  if (random() % 2 == 0) std::ranges::replace_if(text, [](char c) { return c < ' '; }, 'x');
  return text;
}

void fill(google::protobuf::Message& message, Random& random, int depth);

void set(google::protobuf::Message& message, google::protobuf::FieldDescriptor const* field,
         Random& random, int depth) {
  using Field = google::protobuf::FieldDescriptor;
  auto const& to = *message.GetReflection();
  const bool repeated = field->is_repeated();
  switch (field->cpp_type()) {
    case Field::CPPTYPE_UINT32: {
      const auto value = static_cast<std::uint32_t>(random() >> random() % 32);
      repeated ? to.AddUInt32(&message, field, value) : to.SetUInt32(&message, field, value);
      break;
    }
    case Field::CPPTYPE_BOOL:
      return to.SetBool(&message, field, random() % 2 == 0);
    case Field::CPPTYPE_ENUM:
      return to.SetEnumValue(&message, field, static_cast<int>(random() % 9) - 1);
    case Field::CPPTYPE_STRING:
      return to.SetString(&message, field, randomText(random));
    default:
      if (depth == 0) return;
      fill(repeated ? *to.AddMessage(&message, field) : *to.MutableMessage(&message, field), random,
           depth - 1);
  }
}

void fill(google::protobuf::Message& message, Random& random, int depth) {
  auto const& fields = *message.GetDescriptor();
  for (int i = 0; i < fields.field_count(); ++i) {
    const auto times = fields.field(i)->is_repeated() ? random() % 4 : random() % 2;
    for (unsigned n = 0; n < times; ++n)
      set(message, fields.field(i), random, depth);
  }
}

struct Grouped : std::numpunct<char> {
  char do_thousands_sep() const override { return '\''; }
  std::string do_grouping() const override { return "\2"; }
  std::string do_falsename() const override { return "no"; }
};

void format(std::ostream& stream, Random random) {
  using std::ios_base;
  constexpr ios_base::fmtflags bases[] = {ios_base::dec, ios_base::hex, ios_base::oct, {}};
  constexpr ios_base::fmtflags sides[] = {ios_base::left, ios_base::right, ios_base::internal, {}};
  if (random() % 4 == 0) return;
  stream.flags(bases[random() % 4] | sides[random() % 4]);
  for (const auto flag : {ios_base::showbase, ios_base::showpos, ios_base::uppercase,
                          ios_base::boolalpha, ios_base::unitbuf, ios_base::showpoint}) {
    if (random() % 3 == 0) stream.setf(flag);
  }
  if (random() % 2 == 0) stream.width(static_cast<int>(random() % 100) - 10);
  if (random() % 2 == 0) stream.fill('*');
  if (random() % 3 == 0) stream.imbue({std::locale::classic(), new Grouped});
}

// Takes as many bytes as there is room for.
class Buffer : public std::streambuf {
 public:
  explicit Buffer(std::size_t room) : room_(room) {}
  std::string text;

 private:
  std::streamsize xsputn(char const* from, std::streamsize size) override {
    const auto taken = std::min(room_ - text.size(), static_cast<std::size_t>(size));
    text.append(from, taken);
    return static_cast<std::streamsize>(taken);
  }
  int_type overflow(int_type c) override {
    const char byte = traits_type::to_char_type(c);
    return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
  }
  std::size_t room_;
};

template <typename Message>
void compare(Message const& message, Random const& random, std::size_t room, bool armed) {
  Buffer expected(room);
  std::ostream reference(&expected);
  format(reference, random);
  reference << p(message);

  Buffer got(room);
  std::ostream stream(&got);
  format(stream, random);
  if (armed) stream.exceptions(std::ios_base::badbit);
  stream << message;
  ASSERT_EQ(stream.exceptions(), armed ? std::ios_base::badbit : std::ios_base::goodbit);
  ASSERT_EQ(stream.rdstate(), reference.rdstate());
  ASSERT_EQ(got.text, expected.text);
  ASSERT_EQ(stream.flags(), reference.flags());
  ASSERT_EQ(stream.width(), reference.width());
  ASSERT_EQ(stream.fill(), reference.fill());
  ASSERT_EQ(stream.precision(), reference.precision());
}

template <typename Message>
class PrintersDifferential : public testing::Test {};

using Messages =
    testing::Types<ip_address_msg, ip_prefix_msg, ip_route_msg, nexthop_group_tunnel_msg,
                   nexthop_msg, sbfd_echo_session_key_msg, nexthop_group_msg, mpls_route_msg,
                   mpls_route_msg_forward_nexthop_group_msg, cbf_nexthop_group_redirect_msg,
                   sbfd_echo_session_msg, sbfd_echo_session_rtt_msg,
                   sbfd_echo_session_oper_status_msg, watch_sbfd_echo_session_config_msg,
                   watch_sbfd_echo_session_status_msg, rpc_status_msg, rpc_server_state_config_msg,
                   rpc_server_state_status_msg>;
TYPED_TEST_SUITE(PrintersDifferential, Messages);

TYPED_TEST(PrintersDifferential, IsTheObviousRendering) {
  Random random(1);
  for (int i = 0; i < 1000; ++i) {
    TypeParam message;
    fill(message, random, 4);
    const std::string text = toString(message);
    std::ostringstream expected;
    expected << p(message);
    ASSERT_EQ(text, expected.str());
    const std::size_t room = random() % 2 == 0 ? 1'000'000 : random() % (text.size() + 4);
    ASSERT_NO_FATAL_FAILURE(compare(message, random, room, random() % 2 == 0));
  }
}

}  // namespace

}  // namespace VornSdkRpc::pb
