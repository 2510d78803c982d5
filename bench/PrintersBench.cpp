// What turning a message into text costs, beside protobuf's own ShortDebugString and beside the
// same text written by hand with fmt; and what a conversion costs beside copying the bytes. Times
// are per message; `allocs` counts its allocations.

#include <VornSdkRpc/Conversions.h>
#include <VornSdkRpc/MessagePrinters.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include "Allocations.h"

namespace {

using namespace VornSdkRpc;
using namespace VornSdkRpc::pb;

// ---------------------------------------------------------------------------------------------------
// The messages

constexpr int v4 = 4;
constexpr int v6 = 16;

std::string address(int size, int last) {
  std::string bytes = size == v4 ? std::string("\x0a\x01\x02\x00", 4)
                                 : std::string("\x20\x01\x0d\xb8\0\x07\0\0\0\0\0\0\0\0\0\0", 16);
  bytes.back() = static_cast<char>(last);
  return bytes;
}

void fill(sbfd_echo_session_key_msg& key, int size, int i) {
  key.set_outgoing_interface("Ethernet" + std::to_string(i) + "/1");
  key.mutable_nexthop()->set_addr(address(size, i));
  for (const auto label : {100'000, 100'001, 100'002})
    key.add_labels(static_cast<unsigned>(label + i));
  key.set_dscp(46);
  key.set_mpls_exp(5);
}

// 8 next hops, with 3 labels and a session key each.
nexthop_group_msg realisticGroup(int size) {
  nexthop_group_msg group;
  group.set_name("core-group-17");
  for (int i = 0; i < 8; ++i) {
    auto& nexthop = i < 6 ? *group.add_nexthop() : *group.add_backup_nexthop();
    nexthop.mutable_nexthop_ip()->set_addr(address(size, i + 1));
    nexthop.set_nexthop_interface("Ethernet" + std::to_string(i) + "/1");
    nexthop.set_mpls_op(nexthop_msg::MPLS_PUSH);
    for (const auto label : {16'000, 16'001, 16'002})
      nexthop.add_labels(static_cast<unsigned>(label + i));
    nexthop.set_replicate_count(1);
    fill(*nexthop.mutable_sbfd_session_key(), size, i + 1);
  }
  return group;
}

// 100 sessions' states in one item of a watch.
watch_sbfd_echo_session_status_msg realisticItem() {
  watch_sbfd_echo_session_status_msg item;
  for (int i = 0; i < 100; ++i) {
    auto& one = *item.add_bulk();
    fill(*one.mutable_session_key(), v4, i);
    one.mutable_status()->set_status(sbfd_echo_session_oper_status_msg::UP);
  }
  return item;
}

// ---------------------------------------------------------------------------------------------------
// The same texts by hand

using Out = fmt::appender;

Out byHand(Out out, const ip_address_msg& m) {
  const auto& bytes = m.addr();
  if (bytes.size() == 4) {
    const auto byte = [&](int i) { return static_cast<unsigned char>(bytes[i]); };
    return fmt::format_to(out, "{}.{}.{}.{}", byte(0), byte(1), byte(2), byte(3));
  }
  if (bytes.size() != 16) return fmt::format_to(out, "none");
  char text[INET6_ADDRSTRLEN];
  return fmt::format_to(out, "{}", inet_ntop(AF_INET6, bytes.data(), text, sizeof text));
}

Out byHand(Out out, const sbfd_echo_session_key_msg& m) {
  out = fmt::format_to(out,
                       "VornSdkRpc::pb::sbfd_echo_session_key_msg{{outgoingInterface={} nexthop=",
                       m.outgoing_interface());
  out = byHand(out, m.nexthop());
  return fmt::format_to(out, " labels=[{}] dscp={} mplsExp={}}}", fmt::join(m.labels(), ", "),
                        m.dscp(), m.mpls_exp());
}

Out byHand(Out out, const nexthop_msg& m) {
  out = byHand(fmt::format_to(out, "VornSdkRpc::pb::nexthop_msg{{nexthopIp="), m.nexthop_ip());
  out = fmt::format_to(
      out, " nexthopInterface={} mplsOp={} labels=[{}] replicateCount={} sbfdSessionKey= ",
      m.nexthop_interface(), nexthop_msg::mpls_operation_enum_Name(m.mpls_op()),
      fmt::join(m.labels(), ", "), m.replicate_count());
  return fmt::format_to(byHand(out, m.sbfd_session_key()), "}}");
}

Out byHand(Out out, const watch_sbfd_echo_session_status_msg& m);

template <typename List>
Out byHandList(Out out, const List& list) {
  for (auto element = list.begin(); element != list.end(); ++element) {
    if (element != list.begin()) out = fmt::format_to(out, ", ");
    out = byHand(out, *element);
  }
  return out;
}

Out byHand(Out out, const nexthop_group_msg& m) {
  out = fmt::format_to(out, "VornSdkRpc::pb::nexthop_group_msg{{name={} requestDelete={} nexthop=[",
                       m.name(), m.request_delete());
  out = fmt::format_to(byHandList(out, m.nexthop()), "] backupNexthop=[");
  return fmt::format_to(byHandList(out, m.backup_nexthop()), "] nexthopGroupType={}}}",
                        nexthop_group_msg::nexthop_group_type_enum_Name(m.nexthop_group_type()));
}

// An item with a key and a status, or with items.
Out byHand(Out out, const watch_sbfd_echo_session_status_msg& m) {
  out = fmt::format_to(out, "VornSdkRpc::pb::watch_sbfd_echo_session_status_msg{{");
  if (m.has_session_key()) {
    out = byHand(fmt::format_to(out, "sessionKey="), m.session_key());
    out = fmt::format_to(out, " status={}",
                         sbfd_echo_session_oper_status_msg::status_enum_Name(m.status().status()));
  }
  if (m.bulk_size() > 0) {
    out = fmt::format_to(out, "bulk=#{}[", m.bulk_size());
    out = fmt::format_to(byHandList(out, m.bulk()), "]");
  }
  return fmt::format_to(out, "}}");
}

template <typename Message>
std::string byHand(const Message& message) {
  fmt::memory_buffer buffer;
  byHand(Out(buffer), message);
  return fmt::to_string(buffer);
}

// ---------------------------------------------------------------------------------------------------
// Measuring

template <typename Operation>
void measure(benchmark::State& state, const Operation& operation) {
  operation();  // what is done once is not what is measured
  const std::size_t before = allocations();
  for ([[maybe_unused]] auto _ : state)
    benchmark::DoNotOptimize(operation());
  state.counters["allocs"] = benchmark::Counter(static_cast<double>(allocations() - before),
                                                benchmark::Counter::kAvgIterations);
}

template <typename Message>
void registerPrinters(const std::string& name, const Message& message) {
  if (byHand(message) != toString(message)) {
    std::fprintf(stderr, "%s: the texts differ:\n%s\n%s\n", name.c_str(), byHand(message).c_str(),
                 toString(message).c_str());
    std::abort();
  }
  const auto add = [&](const char* how, auto operation) {
    benchmark::RegisterBenchmark((name + '/' + how).c_str(), [message, operation](auto& state) {
      measure(state, [&] { return operation(message); });
    });
  };
  add("toString", [](const Message& m) { return toString(m); });
  add("ShortDebugString", [](const Message& m) { return m.ShortDebugString(); });
  add("byHand", [](const Message& m) { return byHand(m); });
  add("stream", [stream = std::make_shared<std::ostringstream>()](const Message& m) {
    stream->seekp(0);
    *stream << m;
    return stream->good();
  });
  add("hexStream", [stream = std::make_shared<std::ostringstream>()](const Message& m) {
    stream->seekp(0);
    *stream << std::hex << m;
    return stream->good();
  });
}

template <typename Operation>
void registerOne(const char* name, Operation operation) {
  benchmark::RegisterBenchmark(name, [operation](auto& state) { measure(state, operation); });
}

void registerConversions() {
  ip_address_msg v6Message;
  v6Message.set_addr(address(v6, 1));
  sbfd_echo_session_key_msg keyMessage;
  fill(keyMessage, v6, 1);
  registerOne("conversions/memcpy", [v6Message] {
    std::array<char, sizeof(vorn::ip_addr_t)> bytes;
    std::memcpy(bytes.data(), v6Message.addr().data(), v6Message.addr().size());
    benchmark::DoNotOptimize(bytes.data());
    return bytes;
  });
  registerOne("conversions/ipAddressToIpAddr",
              [v6Message] { return ipAddressToIpAddr(v6Message); });
  registerOne("conversions/ipAddrToIpAddress",
              [to = std::make_shared<ip_address_msg>(), addr = ipAddressToIpAddr(v6Message)] {
                ipAddrToIpAddress(addr, to.get());
                return to.get();
              });
  registerOne("conversions/convertMsg", [keyMessage] { return convertMsg(keyMessage); });
  registerOne("conversions/convertKey",
              [to = std::make_shared<sbfd_echo_session_key_msg>(), key = convertMsg(keyMessage)] {
                to->Clear();
                convertKey(key, to.get());
                return to.get();
              });
}

const bool registered = [] {
  registerPrinters("defaultGroup", nexthop_group_msg());
  registerPrinters("groupIpv4", realisticGroup(v4));
  registerPrinters("groupIpv6", realisticGroup(v6));
  registerPrinters("bulkItem", realisticItem());
  registerConversions();
  return true;
}();

}  // namespace
