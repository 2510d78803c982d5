#include <VornSdkRpc/MessagePrinters.h>

#include <Kiv/Demangle.h>
#include <Velm/String.h>
#include <VornSdkRpc/Conversions.h>
#include <vorn/ip_addr.h>
#include <vorn/ip_prefix.h>

#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ios>
#include <limits>
#include <locale>
#include <ostream>
#include <sstream>
#include <string_view>
#include <typeinfo>

namespace VornSdkRpc::pb {

namespace {

// ---------------------------------------------------------------------------------------------------
// The layout: what every rendering has in common, and one table for each message. A `Sink` takes
// the pieces of a rendering in order; its `Level` lives as long as one composite message is being
// written.

template <typename Message>
std::string_view typeName() {
  // Never destroyed, so that static destructors can still print.
  static const auto& name = *new Velm::String(Kiv::demangle(typeid(Message)));
  return name;
}

template <typename Sink>
class Layout {
 public:
  explicit Layout(Sink& sink) : sink_(sink) {}

  void put(std::uint32_t value) { sink_.number(value); }
  void put(int value) { sink_.number(value); }
  void put(bool value) { sink_.truth(value); }
  void put(std::string_view value) { sink_.text(value); }

  template <typename Element>
  void put(const google::protobuf::RepeatedField<Element>& elements) {
    joined(elements);
  }

  template <typename Element>
  void put(const google::protobuf::RepeatedPtrField<Element>& elements) {
    joined(elements);
  }

  // Bare messages.
  void put(const ip_address_msg& m) { sink_.value(ipAddressToIpAddr(m)); }
  void put(const ip_prefix_msg& m) { sink_.value(ipPrefixToPrefix(m)); }
  void put(const rpc_status_msg& m) {
    put(rpc_status_msg::rpc_status_value_enum_Name(m.rpc_status_value()));
  }
  void put(const sbfd_echo_session_oper_status_msg& m) {
    put(sbfd_echo_session_oper_status_msg::status_enum_Name(m.status()));
  }

  // Elements of the server state, which have no printers of their own.
  void put(const rpc_server_state_entry_msg& m) {
    put(m.key());
    row("=", m.value());
  }
  void put(const rpc_server_state_key_msg& m) { put(m.key()); }
  void put(const rpc_server_state_value_msg& m) { put(m.value()); }

  // Composite messages.
  template <std::derived_from<google::protobuf::Message> Message>
  void put(const Message& message) {
    const typename Sink::Level level(sink_);
    sink_.text(typeName<Message>());
    table(message);
  }

 private:
  // Inlined by force, like what they call: where a label's length is known, writing it is a few
  // moves.
  [[gnu::always_inline]] void row(std::string_view label) { sink_.text(label); }

  template <typename Value>
  [[gnu::always_inline]] void row(std::string_view label, const Value& value) {
    row(label);
    put(value);
  }

  template <typename List>
  void joined(const List& elements) {
    bool first = true;
    for (const auto& element : elements) {
      if (!first) sink_.text(", ");
      first = false;
      put(element);
    }
  }

  void table(const ip_route_msg& m) {
    row("{prefix=", m.prefix());
    if (m.has_nexthop_group()) row(" nexthopGroup=", m.nexthop_group());
    row(" tag=", m.tag());
    row("}");
  }

  void table(const nexthop_group_tunnel_msg& m) {
    row("{prefix=", m.prefix());
    row(" nexthopGroup=", m.nexthop_group());
    row(" igpMetric=", m.igp_metric());
    row("}");
  }

  void table(const nexthop_msg& m) {
    row("{nexthopIp=", m.nexthop_ip());
    row(" nexthopInterface=", m.nexthop_interface());
    row(" mplsOp=", nexthop_msg::mpls_operation_enum_Name(m.mpls_op()));
    row(" labels=[", m.labels());
    row("] replicateCount=", m.replicate_count());
    row(" sbfdSessionKey= ", m.sbfd_session_key());
    row("}");
  }

  void table(const sbfd_echo_session_key_msg& m) {
    row("{outgoingInterface=", m.outgoing_interface());
    row(" nexthop=", m.nexthop());
    row(" labels=[", m.labels());
    row("] dscp=", m.dscp());
    row(" mplsExp=", m.mpls_exp());
    row("}");
  }

  void table(const nexthop_group_msg& m) {
    row("{name=", m.name());
    row(" requestDelete=", m.request_delete());
    row(" nexthop=[", m.nexthop());
    row("] backupNexthop=[", m.backup_nexthop());
    row("] nexthopGroupType=",
        nexthop_group_msg::nexthop_group_type_enum_Name(m.nexthop_group_type()));
    row("}");
  }

  void table(const mpls_route_msg& m) {
    row("{label=", m.label());
    row(" requestDelete=", m.request_delete());
    if (m.has_nexthop()) row(" nexthop=", m.nexthop());
    if (m.has_nexthop_group()) row(" nexthopGroup=", m.nexthop_group());
    if (m.has_pop_and_forward_vrf_name())
      row(" popAndForwardVrfName=", m.pop_and_forward_vrf_name());
    row("}");
  }

  void table(const mpls_route_msg_forward_nexthop_group_msg& m) {
    using Operation = mpls_route_msg_forward_nexthop_group_msg;
    row("{nexthopGroup=", m.nexthop_group());
    row(" mplsOp=", Operation::mpls_operation_enum_Name(m.mpls_op()));
    row("}");
  }

  void table(const cbf_nexthop_group_redirect_msg& m) {
    row("{matchNexthopGroup=", m.match_nexthop_group());
    row(" matchIpv4Dscp=[", m.match_ipv4_dscp());
    row("] matchIpv6Dscp=[", m.match_ipv6_dscp());
    row("] redirectNexthopGroup=", m.redirect_nexthop_group());
    row(" requestDelete=", m.request_delete());
    row("}");
  }

  void table(const sbfd_echo_session_msg& m) {
    row("{sessionKey=", m.session_key());
    row(" requestDelete=", m.request_delete());
    row(" rttEnabled=", m.rtt_enabled());
    row(" minTx=", m.min_tx());
    row(" detectionMultiplier=", m.detection_multiplier());
    row(" trackInterfaceState=", m.track_interface_state());
    row("}");
  }

  void table(const sbfd_echo_session_rtt_msg& m) {
    row("{lastRtt=", m.last_rtt());
    row(" minRtt=", m.min_rtt());
    row(" avgRtt=", m.avg_rtt());
    row(" maxRtt=", m.max_rtt());
    row(" snapshotMinRtt=", m.snapshot_min_rtt());
    row(" snapshotAvgRtt=", m.snapshot_avg_rtt());
    row(" snapshotMaxRtt=", m.snapshot_max_rtt());
    row("}");
  }

  void table(const watch_sbfd_echo_session_config_msg& m) {
    row("{requestRttUpdates=", m.request_rtt_updates());
    row("}");
  }

  // The one message that leaves out what is absent.
  void table(const watch_sbfd_echo_session_status_msg& m) {
    bool first = true;
    const auto item = [&](std::string_view label, const auto& value) {
      if (!first) row(" ");
      first = false;
      row(label, value);
    };
    row("{");
    if (m.has_session_key()) item("sessionKey=", m.session_key());
    if (m.has_status()) item("status=", m.status());
    if (m.has_rtt()) item("rtt=", m.rtt());
    if (m.has_end_of_status_batch()) item("endOfStatusBatch=", m.end_of_status_batch());
    if (m.bulk_size() > 0) {
      item("bulk=#", m.bulk_size());
      row("[", m.bulk());
      row("]");
    }
    row("}");
  }

  void table(const rpc_server_state_config_msg& m) {
    row("{set=[", m.set());
    row("]");
    row(" delete=[", m.delete_());
    row("]}");
  }

  void table(const rpc_server_state_status_msg& m) {
    row("{value=[", m.value());
    row("]}");
  }

  Sink& sink_;
};

// ---------------------------------------------------------------------------------------------------
// The sink that holds in every case: each piece is a formatted insertion into the caller's stream,
// and each level saves and restores the stream's format.

class StreamSink {
 public:
  explicit StreamSink(std::ostream& stream) : stream_(stream) {}

  void text(std::string_view text) { stream_ << text; }
  void number(std::integral auto number) { stream_ << number; }
  void truth(bool value) { stream_ << value; }
  template <typename Value>
  void value(const Value& value) {
    stream_ << value;
  }

  class Level {
   public:
    explicit Level(StreamSink& sink) : stream_(sink.stream_) {
      before_.copyfmt(stream_);
      stream_.setf(std::ios_base::boolalpha);
    }

    ~Level() {
      try {
        stream_.copyfmt(before_);
      } catch (...) {
        // No memory for the arrays of iword and pword, so they stay as they are. What the pieces
        // change needs none.
        stream_.flags(before_.flags());
        stream_.width(before_.width());
      }
    }

    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;

   private:
    std::ostream& stream_;
    std::ios before_{nullptr};
  };

 private:
  std::ostream& stream_;
};

// ---------------------------------------------------------------------------------------------------
// The sink for a stream in its default format: the same characters without the price of some dozens
// of insertions and saved formats. Pieces are gathered here and handed on when there is no room for
// the next.

void hand(std::string& to, std::string_view pieces, std::size_t /*lastPiece*/) {
  to.append(pieces);
}

// A stream that breaks before the last of several insertions has failbit from then on, one that
// breaks within the last has not: so the last one goes by itself.
void hand(std::ostream& to, std::string_view pieces, std::size_t lastPiece) {
  if (lastPiece > 0) to << pieces.substr(0, lastPiece);
  to << pieces.substr(lastPiece);
}

template <typename Target>
class TextSink {
 public:
  explicit TextSink(Target& target) : target_(target) {}

  [[gnu::always_inline]] void text(std::string_view text) {
    if (text.size() > sizeof buffer_) {
      flush();
      hand(target_, text, 0);
      return;
    }
    std::memcpy(room(text.size()), text.data(), text.size());
    used_ += text.size();
  }

  template <std::integral Number>
  void number(Number number) {
    constexpr std::size_t size = std::numeric_limits<Number>::digits10 + 2;
    char* to = room(size);
    end(std::to_chars(to, to + size, number).ptr);
  }

  void truth(bool value) { text(value ? "true" : "false"); }

  template <typename Value>
  void value(const Value& value) {
    end(to_chars(room(Value::text_size), value));
  }

  [[gnu::noinline]] void flush() {
    if (used_ > 0) hand(target_, {buffer_, used_}, lastPiece_);
    used_ = lastPiece_ = 0;
  }

  struct Level {
    explicit Level(TextSink&) {}
  };

 private:
  // Where a piece of up to `size` bytes goes.
  [[gnu::always_inline]] char* room(std::size_t size) {
    if (size > sizeof buffer_ - used_) flush();
    lastPiece_ = used_;
    return buffer_ + used_;
  }

  void end(const char* end) { used_ = static_cast<std::size_t>(end - buffer_); }

  Target& target_;
  std::size_t used_ = 0;
  std::size_t lastPiece_ = 0;  // where the newest piece begins
  char buffer_[4096];          // a realistic message of the larger kind is 3 KB
};

// Whether a stream would write every piece as TextSink does.
bool isPlain(const std::ostream& stream) {
  constexpr auto matters = std::ios_base::basefield | std::ios_base::showpos;
  return (stream.flags() & matters) == std::ios_base::dec && stream.width() == 0 &&
         stream.getloc() == std::locale::classic();
}

template <typename Target, typename Message>
void render(Target& target, const Message& message) {
  TextSink sink(target);
  Layout(sink).put(message);
  sink.flush();
}

// ---------------------------------------------------------------------------------------------------
// What the operators and toString are made of.

// Keeps a stream from throwing for a while: takes exceptions() off, and unitbuf, since a flush that
// fails at the end of an insertion can only end the process (std::ostream::sentry's destructor does
// it). Both come back at the end, with one flush for all.
class Disarmed {
 public:
  explicit Disarmed(std::ostream& stream)
      : stream_(stream),
        exceptions_(stream.exceptions()),
        unitbuf_(stream.flags() & std::ios_base::unitbuf) {
    stream.exceptions(std::ios_base::goodbit);
    stream.unsetf(std::ios_base::unitbuf);
  }

  ~Disarmed() {
    try {
      if (unitbuf_ != 0 && stream_.good()) stream_.flush();
    } catch (...) {  // from a tied stream
      stream_.setstate(std::ios_base::badbit);
    }
    stream_.setf(unitbuf_);
    try {
      stream_.exceptions(exceptions_);
    } catch (...) {
      // The stream has failed and says so, with std::ios_base::failure or, where there is no memory
      // for one, std::bad_alloc. The mask is in place by now.
    }
  }

  Disarmed(const Disarmed&) = delete;
  Disarmed& operator=(const Disarmed&) = delete;

 private:
  std::ostream& stream_;
  const std::ios_base::iostate exceptions_;
  const std::ios_base::fmtflags unitbuf_;
};

template <typename Message>
std::ostream& print(std::ostream& stream, const Message& message) noexcept {
  const Disarmed disarmed(stream);
  try {
    if (isPlain(stream)) {
      render(stream, message);
    } else {
      StreamSink sink(stream);
      Layout(sink).put(message);
    }
  } catch (...) {
    stream.setstate(std::ios_base::badbit);
  }
  return stream;
}

template <typename Message>
std::string rendered(const Message& message) noexcept {
  try {
    std::string text;
    if (std::locale() == std::locale::classic()) {
      render(text, message);
    } else {
      std::ostringstream stream;
      if (print(stream, message)) text = stream.str();
    }
    return text;
  } catch (...) {
    return {};
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const ip_address_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const ip_prefix_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const ip_route_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const nexthop_group_tunnel_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const nexthop_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const sbfd_echo_session_key_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const nexthop_group_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const mpls_route_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream,
                         const mpls_route_msg_forward_nexthop_group_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const cbf_nexthop_group_redirect_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const sbfd_echo_session_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const sbfd_echo_session_rtt_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream,
                         const sbfd_echo_session_oper_status_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream,
                         const watch_sbfd_echo_session_config_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream,
                         const watch_sbfd_echo_session_status_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const rpc_status_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const rpc_server_state_config_msg& m) noexcept {
  return print(stream, m);
}
std::ostream& operator<<(std::ostream& stream, const rpc_server_state_status_msg& m) noexcept {
  return print(stream, m);
}

std::string toString(const ip_address_msg& m) noexcept { return rendered(m); }
std::string toString(const ip_prefix_msg& m) noexcept { return rendered(m); }
std::string toString(const ip_route_msg& m) noexcept { return rendered(m); }
std::string toString(const nexthop_group_tunnel_msg& m) noexcept { return rendered(m); }
std::string toString(const nexthop_msg& m) noexcept { return rendered(m); }
std::string toString(const sbfd_echo_session_key_msg& m) noexcept { return rendered(m); }
std::string toString(const nexthop_group_msg& m) noexcept { return rendered(m); }
std::string toString(const mpls_route_msg& m) noexcept { return rendered(m); }
std::string toString(const mpls_route_msg_forward_nexthop_group_msg& m) noexcept {
  return rendered(m);
}
std::string toString(const cbf_nexthop_group_redirect_msg& m) noexcept { return rendered(m); }
std::string toString(const sbfd_echo_session_msg& m) noexcept { return rendered(m); }
std::string toString(const sbfd_echo_session_rtt_msg& m) noexcept { return rendered(m); }
std::string toString(const sbfd_echo_session_oper_status_msg& m) noexcept { return rendered(m); }
std::string toString(const watch_sbfd_echo_session_config_msg& m) noexcept { return rendered(m); }
std::string toString(const watch_sbfd_echo_session_status_msg& m) noexcept { return rendered(m); }
std::string toString(const rpc_status_msg& m) noexcept { return rendered(m); }
std::string toString(const rpc_server_state_config_msg& m) noexcept { return rendered(m); }
std::string toString(const rpc_server_state_status_msg& m) noexcept { return rendered(m); }

}  // namespace VornSdkRpc::pb
