#include <gmock/gmock.h>
#include <vorn/error.h>

#include <functional>
#include <latch>

#include "examples/routing_agent/Options.h"
#include "examples/routing_agent/RoutingService.h"
#include "examples/routing_agent/SbfdService.h"
#include "examples/routing_agent/StateService.h"
#include "tests/ProbeService.h"

namespace routing_agent {
namespace {

ip_prefix_msg prefixOf(const std::string& addr, std::uint32_t length) {
  ip_prefix_msg prefix;
  prefix.set_addr(addr);
  prefix.set_mask_length(length);
  return prefix;
}

ip_route_msg routeOf(std::uint8_t number) {
  ip_route_msg route;
  *route.mutable_prefix() = prefixOf({10, 0, static_cast<char>(number), 0}, 24);
  route.set_nexthop_group("core");
  route.set_tag(number);
  return route;
}

sbfd_echo_session_msg sessionOf(const std::string& interface) {
  sbfd_echo_session_msg session;
  session.mutable_session_key()->set_outgoing_interface(interface);
  session.mutable_session_key()->mutable_nexthop()->set_addr(std::string(4, '\1'));
  return session;
}

// ------------------------------------------------------------------------------------------------
// What is refused, and which field is named

template <class Message>
std::string refusal(const std::function<void(Message&)>& spoil, Message message) {
  spoil(message);
  try {
    check(message);
    return "taken";
  } catch (const vorn::invalid_argument_error& error) {
    EXPECT_TRUE(std::string_view(error.what()).starts_with(error.argument()));
    return error.argument();
  }
}

TEST(Check, NamesTheFieldThatCantBeUsed) {
  using Route = ip_route_msg;
  for (const auto& [field, spoil] :
       std::initializer_list<std::pair<const char*, std::function<void(Route&)>>>{
           {"taken", [](Route&) {}},
           {"prefix.addr", [](Route& route) { route.clear_prefix(); }},
           {"prefix.addr", [](Route& route) { route.mutable_prefix()->set_addr("12345"); }},
           {"prefix.addr", [](Route& route) { route.mutable_prefix()->set_mask_length(15); }},
           {"prefix.mask_length",
            [](Route& route) { route.mutable_prefix()->set_mask_length(33); }},
           {"taken",
            [](Route& route) { *route.mutable_prefix() = prefixOf(std::string(16, 0), 128); }},
           {"prefix.mask_length",
            [](Route& route) { *route.mutable_prefix() = prefixOf(std::string(16, 0), 129); }},
           {"nexthop_group", [](Route& route) { route.clear_nexthop_group(); }},
       }) {
    EXPECT_EQ(refusal<Route>(spoil, routeOf(1)), field);
  }

  using Group = nexthop_group_msg;
  Group group;
  group.set_name("core");
  group.add_nexthop()->set_nexthop_interface("eth0");
  for (const auto& [field, spoil] :
       std::initializer_list<std::pair<const char*, std::function<void(Group&)>>>{
           {"taken", [](Group&) {}},
           {"name", [](Group& g) { g.clear_name(); }},
           {"nexthop[0]", [](Group& g) { g.mutable_nexthop(0)->clear_nexthop_interface(); }},
           {"nexthop[0].nexthop_ip.addr",
            [](Group& g) { g.mutable_nexthop(0)->mutable_nexthop_ip()->set_addr("123"); }},
           {"nexthop[0].mpls_op",
            [](Group& g) {
              g.mutable_nexthop(0)->set_mpls_op(static_cast<nexthop_msg::mpls_operation_enum>(6));
            }},
           {"nexthop[0].labels[1]",
            [](Group& g) {
              g.mutable_nexthop(0)->add_labels((1 << 20) - 1);
              g.mutable_nexthop(0)->add_labels(1 << 20);
            }},
           {"backup_nexthop[0]", [](Group& g) { g.add_backup_nexthop(); }},
           {"nexthop[0].sbfd_session_key.outgoing_interface",
            [](Group& g) { g.mutable_nexthop(0)->mutable_sbfd_session_key(); }},
       }) {
    EXPECT_EQ(refusal<Group>(spoil, group), field);
  }

  using Mpls = mpls_route_msg;
  for (const auto& [field, spoil] :
       std::initializer_list<std::pair<const char*, std::function<void(Mpls&)>>>{
           {"forwarding", [](Mpls&) {}},
           {"taken", [](Mpls& route) { route.set_request_delete(true); }},
           {"label", [](Mpls& route) { route.set_label(1 << 20); }},
           {"nexthop", [](Mpls& route) { route.mutable_nexthop(); }},
           {"nexthop_group.nexthop_group", [](Mpls& route) { route.mutable_nexthop_group(); }},
           {"pop_and_forward_vrf_name",
            [](Mpls& route) { route.set_pop_and_forward_vrf_name(""); }},
       }) {
    EXPECT_EQ(refusal<Mpls>(spoil, Mpls()), field);
  }
}

// ------------------------------------------------------------------------------------------------
// The services, over gRPC

// The agent's services on a loopback address. On [::1] a peer counts as a remote one.
struct Agent {
  explicit Agent(std::chrono::milliseconds stepTime = {}, const std::string& host = "127.0.0.1",
                 std::size_t backlogLimit = 64 << 20)
      : host_(host), backlog(stepTime, backlogLimit) {}

  template <class Service>
  std::unique_ptr<typename Service::Stub> stub() const {
    return Service::NewStub(running.connection());
  }
  void programAll() const {
    while (backlog.waiting() != 0)
      std::this_thread::yield();
  }

  const std::string host_;
  Tables tables;
  SbfdMonitor monitor;
  Backlog backlog;
  const std::vector<std::string> listen{host_};
  test::RunningServer running{{std::make_shared<RoutingService>(tables, backlog, listen, nullptr),
                               std::make_shared<SbfdService>(monitor, backlog, listen),
                               std::make_shared<StateService>(tables, backlog, listen)},
                              false,
                              host_};
  const StopBacklog stopBacklog{backlog};
};

template <class Stub, class Request>
grpc::StatusCode call(Stub& stub,
                      grpc::Status (Stub::*method)(grpc::ClientContext*, const Request&,
                                                   rpc_status_msg*),
                      const Request& request) {
  grpc::ClientContext context;
  rpc_status_msg reply;
  return (stub.*method)(&context, request, &reply).error_code();
}

std::vector<std::uint32_t> tagsOf(Routing::Stub& stub) {
  grpc::ClientContext context;
  const auto parts = stub.GetRoutes(&context, get_msg());
  std::vector<std::uint32_t> tags;
  routes_msg part;
  while (parts->Read(&part)) {
    for (const auto& route : part.route())
      tags.push_back(route.tag());
  }
  EXPECT_TRUE(parts->Finish().ok());
  return tags;
}

TEST(RoutingAgent, ProgramsWhatIsSetAndForgetsWhatIsDeleted) {
  const Agent agent;
  const auto stub = agent.stub<Routing>();
  {
    grpc::ClientContext context;
    set_routes_reply_msg reply;
    const auto writer = stub->SetRoutes(&context, &reply);
    for (int i = 0; i < 1000; ++i)
      ASSERT_TRUE(writer->Write(routeOf(static_cast<std::uint8_t>(i % 200))));
    auto bad = routeOf(201);
    bad.mutable_prefix()->set_mask_length(99);
    writer->Write(bad);
    const grpc::Status status = writer->Finish();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
    EXPECT_THAT(status.error_message(),
                testing::StartsWith("route 1000: prefix.mask_length is 99"));
  }
  for (const auto code : {grpc::StatusCode::OK, grpc::StatusCode::NOT_FOUND}) {
    EXPECT_EQ(call(*stub, &Routing::Stub::DeleteRoute, routeOf(7).prefix()), code);
  }
  agent.programAll();
  std::vector<std::uint32_t> expected;
  for (std::uint32_t tag = 0; tag < 200; ++tag) {
    if (tag != 7) expected.push_back(tag);
  }
  EXPECT_EQ(tagsOf(*stub), expected);
}

// Under the address sanitizer: what is still on the backlog must not be programmed into services
// that are gone.
TEST(RoutingAgent, EndsWithWorkOnItsBacklog) {
  const Agent agent(std::chrono::milliseconds(1));
  const auto stub = agent.stub<Routing>();
  grpc::ClientContext context;
  set_routes_reply_msg reply;
  const auto writer = stub->SetRoutes(&context, &reply);
  for (int i = 0; i < 20000; ++i)
    ASSERT_TRUE(writer->Write(routeOf(static_cast<std::uint8_t>(i % 200))));
  writer->WritesDone();
  EXPECT_TRUE(writer->Finish().ok());
  EXPECT_GT(agent.backlog.waiting(), 0U);
}

TEST(RoutingAgent, AFullBacklogRefusesSingleChangesAndHoldsUpStreams) {
  std::latch gate(1);
  Agent agent({}, "127.0.0.1", 1);  // one change fills it
  const auto stub = agent.stub<Routing>();
  agent.backlog.add([&gate] { gate.wait(); }, 0);
  rpc_server_state_config_msg config;
  config.add_set()->set_key("x");
  EXPECT_EQ(call(*stub, &Routing::Stub::SetRoute, routeOf(1)),
            grpc::StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_EQ(call(*agent.stub<State>(), &State::Stub::Configure, config),
            grpc::StatusCode::RESOURCE_EXHAUSTED);
  grpc::ClientContext context;
  set_routes_reply_msg reply;
  const auto writer = stub->SetRoutes(&context, &reply);
  for (std::uint8_t i = 2; i < 5; ++i)
    EXPECT_TRUE(writer->Write(routeOf(i)));
  writer->WritesDone();
  EXPECT_TRUE(tagsOf(*stub).empty());
  EXPECT_EQ(agent.backlog.waiting(), 1U);
  gate.count_down();
  EXPECT_TRUE(writer->Finish().ok());
  EXPECT_EQ(reply.accepted(), 3U);
  agent.programAll();
  EXPECT_THAT(tagsOf(*stub), testing::ElementsAre(2, 3, 4));
}

TEST(RoutingAgent, ARemotePeerWithoutIdentityMaySetButNotRemove) {
  const Agent agent({}, "[::1]");
  const auto routing = agent.stub<Routing>();
  EXPECT_EQ(call(*routing, &Routing::Stub::SetRoute, routeOf(1)), grpc::StatusCode::OK);
  EXPECT_EQ(call(*routing, &Routing::Stub::DeleteRoute, routeOf(1).prefix()),
            grpc::StatusCode::PERMISSION_DENIED);
  mpls_route_msg mpls;
  mpls.set_request_delete(true);
  EXPECT_EQ(call(*routing, &Routing::Stub::SetMplsRoute, mpls),
            grpc::StatusCode::PERMISSION_DENIED);
  rpc_server_state_config_msg config;
  config.add_delete_()->set_key("x");
  EXPECT_EQ(call(*agent.stub<State>(), &State::Stub::Configure, config),
            grpc::StatusCode::PERMISSION_DENIED);
  agent.programAll();
  EXPECT_THAT(tagsOf(*routing), testing::ElementsAre(1));
}

TEST(RoutingAgent, KeepsItsState) {
  const Agent agent;
  const auto stub = agent.stub<State>();
  rpc_server_state_config_msg config;
  for (const char* key : {"b", "a", "c"}) {
    auto* entry = config.add_set();
    entry->set_key(key);
    entry->set_value(std::string("is ") + key);
  }
  config.add_delete_()->set_key("c");
  EXPECT_EQ(call(*stub, &State::Stub::Configure, config), grpc::StatusCode::OK);
  agent.programAll();
  for (const auto& [keys, values] : {
           std::pair<std::vector<std::string>, std::vector<std::string>>{{}, {"a=is a", "b=is b"}},
           {{"b", "c", "a"}, {"is b", "", "is a"}},
       }) {
    grpc::ClientContext context;
    state_keys_msg request;
    for (const auto& key : keys)
      request.add_key(key);
    rpc_server_state_status_msg reply;
    EXPECT_TRUE(stub->Read(&context, request, &reply).ok());
    std::vector<std::string> read;
    for (const auto& value : reply.value())
      read.push_back(value.value());
    EXPECT_EQ(read, values);
  }
}

// A watcher is sent the present state first, then an end, then what changes: sessions that come up,
// one that is deleted, and round-trip times only when it asked for them.
TEST(RoutingAgent, TellsWatchersWhatChanges) {
  using Item = watch_sbfd_echo_session_status_msg;
  using Status = sbfd_echo_session_oper_status_msg;
  const Agent agent;
  const auto stub = agent.stub<Sbfd>();
  for (const char* interface : {"eth0", "eth1"}) {
    auto session = sessionOf(interface);
    session.set_rtt_enabled(true);
    EXPECT_EQ(call(*stub, &Sbfd::Stub::SetSession, session), grpc::StatusCode::OK);
  }
  agent.programAll();
  for (const bool rtt : {false, true}) {
    grpc::ClientContext context;
    watch_sbfd_echo_session_config_msg config;
    config.set_request_rtt_updates(rtt);
    const auto watch = stub->WatchSessions(&context, config);
    Item item;
    for (const char* interface : {"eth0", "eth1"}) {
      ASSERT_TRUE(watch->Read(&item));
      EXPECT_EQ(item.session_key().outgoing_interface(), interface);
      EXPECT_EQ(item.update_case(), Item::kStatus);
    }
    ASSERT_TRUE(watch->Read(&item));
    EXPECT_TRUE(item.end_of_status_batch());

    const std::string added = rtt ? "eth3" : "eth2";
    EXPECT_EQ(call(*stub, &Sbfd::Stub::SetSession, sessionOf(added)), grpc::StatusCode::OK);
    auto gone = sessionOf(added);
    gone.set_request_delete(true);
    bool deleted = false;
    int rtts = 0;
    for (bool ended = false; !ended || (rtt && rtts == 0);) {
      ASSERT_TRUE(watch->Read(&item));
      std::vector<Item> news(item.bulk().begin(), item.bulk().end());
      if (news.empty()) news.push_back(item);
      for (const auto& one : news) {
        rtts += one.update_case() == Item::kRtt;
        if (one.session_key().outgoing_interface() != added) continue;
        if (one.status().status() == Status::UP && !deleted) {
          EXPECT_EQ(call(*stub, &Sbfd::Stub::SetSession, gone), grpc::StatusCode::OK);
          deleted = true;
        }
        ended = ended || one.status().status() == Status::ADMIN_DOWN;
      }
    }
    EXPECT_TRUE(deleted);
    EXPECT_EQ(rtts != 0, rtt);
    context.TryCancel();
  }
}

// ------------------------------------------------------------------------------------------------
// The command line

TEST(Options, AreReadOrRefusedInOneLine) {
  const auto parsed = [](std::vector<std::string> words) {
    words.insert(words.begin(), "routing_agent");
    std::vector<char*> argv;
    for (auto& word : words)
      argv.push_back(word.data());
    return parseOptions(static_cast<int>(argv.size()), argv.data());
  };
  EXPECT_THAT(parsed({}).listen, testing::ElementsAre("127.0.0.1:50051"));
  const Options options =
      parsed({"--listen", "a:1", "--no-accounting", "--listen", "unix:/b", "--step-ms", "7"});
  EXPECT_THAT(options.listen, testing::ElementsAre("a:1", "unix:/b"));
  EXPECT_FALSE(options.accounting);
  EXPECT_EQ(options.stepTime.count(), 7);
  for (const auto& [words, message] :
       std::initializer_list<std::pair<std::vector<std::string>, const char*>>{
           {{"--bogus"}, "unknown option --bogus"},
           {{"--trace"}, "--trace needs a value"},
           {{"--listen", "--netns", "a"}, "--listen needs a value"},
           {{"--keepalive-ms", "99"}, "--keepalive-ms takes a number from 100 to 3600000"},
           {{"--step-ms", "fast"}, "--step-ms takes a number from 0 to 1000"},
           {{"--netns", "a", "--netns", "b"}, "unknown option --netns"},
       }) {
    try {
      parsed(words);
      ADD_FAILURE() << "taken instead of: " << message;
    } catch (const UsageError& error) {
      EXPECT_STREQ(error.what(), message);
    }
  }
}

}  // namespace
}  // namespace routing_agent
