#include <VornSdkRpc/MessagePrinters.h>
#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <unistd.h>
#include <vorn/error.h>

#include <algorithm>
#include <filesystem>
#include <latch>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "agents/routing/Options.h"
#include "agents/routing/RoutingService.h"
#include "agents/routing/SbfdService.h"
#include "agents/routing/StateService.h"
#include "tests/Calls.h"
#include "tests/ProbeService.h"
#include "tests/Thrown.h"
#include "tests/WaitUntil.h"

namespace routing_agent {
namespace {

using google::protobuf::TextFormat;

ip_route_msg routeOf(std::uint8_t number) {
  ip_route_msg route;
  route.mutable_prefix()->set_addr({10, 0, static_cast<char>(number), 0});
  route.mutable_prefix()->set_mask_length(24);
  route.set_nexthop_group("core");
  route.set_tag(number);
  return route;
}

// So many, of 200 prefixes.
std::vector<ip_route_msg> routesOf(int count) {
  std::vector<ip_route_msg> routes;
  for (int i = 0; i < count; ++i)
    routes.push_back(routeOf(static_cast<std::uint8_t>(i % 200)));
  return routes;
}

sbfd_echo_session_msg sessionOf(const std::string& interface) {
  sbfd_echo_session_msg session;
  session.mutable_session_key()->set_outgoing_interface(interface);
  session.mutable_session_key()->mutable_nexthop()->set_addr(std::string(4, '\1'));
  return session;
}

// ------------------------------------------------------------------------------------------------
// What is refused, and which field is named

template <typename Message>
void expectRefusals(const std::map<std::string, std::string>& fieldsByMessage) {
  for (const auto& [text, field] : fieldsByMessage) {
    Message message;
    ASSERT_TRUE(TextFormat::ParseFromString(text, &message)) << text;
    std::string refused = "taken";
    try {
      check(message);
    } catch (const vorn::invalid_argument_error& error) {
      refused = error.argument();
      EXPECT_TRUE(std::string_view(error.what()).starts_with(refused));
    }
    EXPECT_EQ(refused, field) << text;
  }
}

TEST(Check, NamesTheFieldThatCantBeUsed) {
  const std::string core = "nexthop_group: 'core' ";
  expectRefusals<ip_route_msg>({
      {core + "prefix { addr: 'abc\\000' mask_length: 24 }", "taken"},
      {core, "prefix.addr"},
      {core + "prefix { addr: '12345' mask_length: 24 }", "prefix.addr"},
      {core + "prefix { addr: 'abc\\000' mask_length: 22 }", "prefix.addr"},
      {core + "prefix { addr: 'abcd' mask_length: 33 }", "prefix.mask_length"},
      {core + "prefix { addr: '0123456789abcdef' mask_length: 128 }", "taken"},
      {core + "prefix { addr: '0123456789abcdef' mask_length: 129 }", "prefix.mask_length"},
      {"prefix { addr: 'abcd' mask_length: 32 }", "nexthop_group"},
  });
  const std::string hop = "name: 'core' nexthop { nexthop_interface: 'eth0' ";
  expectRefusals<nexthop_group_msg>({
      {hop + "}", "taken"},
      {"nexthop { nexthop_interface: 'eth0' }", "name"},
      {"name: 'core' nexthop {}", "nexthop[0]"},
      {hop + "nexthop_ip { addr: '123' } }", "nexthop[0].nexthop_ip.addr"},
      {hop + "mpls_op: 6 }", "nexthop[0].mpls_op"},
      {hop + "replicate_count: 257 }", "nexthop[0].replicate_count"},
      {"name: 'core' nexthop { nexthop_interface: 'sixteen-letters-' }",
       "nexthop[0].nexthop_interface"},
      {"name: '" + std::string(255, 'n') + "'", "taken"},
      {"name: '" + std::string(256, 'n') + "'", "name"},
      {hop + "labels: [1048575, 1048576] }", "nexthop[0].labels[1]"},
      {hop + "} backup_nexthop {}", "backup_nexthop[0]"},
      {hop + "sbfd_session_key {} }", "nexthop[0].sbfd_session_key.outgoing_interface"},
  });
  const std::string labels = "session_key { outgoing_interface: 'eth0' nexthop { addr: 'abcd' } ";
  std::string many;
  for (int i = 0; i < 30; ++i)
    many += "labels: 16 ";
  expectRefusals<sbfd_echo_session_msg>({
      {labels + many + "}", "taken"},
      {labels + many + "labels: 16 }", "session_key.labels"},
      {labels + "mpls_exp: 7 }", "taken"},
      {labels + "mpls_exp: 8 }", "session_key.mpls_exp"},
  });
  expectRefusals<cbf_nexthop_group_redirect_msg>({
      {"match_nexthop_group: 'a' redirect_nexthop_group: 'b' match_ipv6_dscp: 63", "taken"},
      {"match_nexthop_group: 'a' redirect_nexthop_group: 'b' match_ipv6_dscp: [63, 64]",
       "match_ipv6_dscp[1]"},
  });
  expectRefusals<rpc_server_state_config_msg>({
      {"set { key: 'k' value: '" + std::string(4096, 'v') + "' }", "taken"},
      {"set { key: 'k' value: '" + std::string(4097, 'v') + "' }", "set.value"},
      {"delete { key: '" + std::string(256, 'k') + "' }", "delete.key"},
  });
  std::string keys;
  for (int i = 0; i < 256; ++i)
    keys += "key: 'k' ";
  expectRefusals<state_keys_msg>({{keys, "taken"}, {keys + "key: 'k'", "key"}});
  expectRefusals<mpls_route_msg>({
      {"", "forwarding"},
      {"request_delete: true", "taken"},
      {"label: 1048576", "label"},
      {"nexthop {}", "nexthop"},
      {"nexthop_group {}", "nexthop_group.nexthop_group"},
      {"pop_and_forward_vrf_name: ''", "pop_and_forward_vrf_name"},
  });
}

// ------------------------------------------------------------------------------------------------
// The services, over gRPC

// The agent's services on a loopback address. On [::1] a peer counts as a remote one.
struct Agent {
  explicit Agent(std::chrono::milliseconds stepTime = {}, const std::string& host = "127.0.0.1",
                 std::size_t backlogLimit = 64 << 20, std::size_t tableLimit = 0,
                 const std::string& stateFile = {})
      : host_(host),
        file(stateFile.empty() ? nullptr : std::make_unique<StateFile>(stateFile, tables)),
        election(file.get()),
        backlog(stepTime, backlogLimit),
        workings{tables, backlog, election, {host_}, file.get(), tableLimit} {}

  template <typename Service>
  std::unique_ptr<typename Service::Stub> stub() const {
    return Service::NewStub(running.connection());
  }
  void programAll() const {
    test::waitUntil([&] { return backlog.figures().items == 0; }, "everything is programmed");
  }

  const std::string host_;
  mutable Tables tables;
  const std::unique_ptr<StateFile> file;
  SbfdMonitor monitor;
  Election election;
  Backlog backlog;
  const Workings workings;
  test::RunningServer running{
      {std::make_shared<RoutingService>(workings, nullptr),
       std::make_shared<SbfdService>(workings, monitor), std::make_shared<StateService>(workings)},
      false,
      host_};
  const StopBacklog stopBacklog{backlog};
};

template <typename Stub, typename Request, typename Reply>
grpc::StatusCode call(Stub& stub,
                      grpc::Status (Stub::*method)(grpc::ClientContext*, const Request&, Reply*),
                      const Request& request) {
  return VornSdkRpc::testing::call(stub, method, request).status.error_code();
}

// What one client stream of messages is answered.
template <typename Message, typename Reply>
VornSdkRpc::testing::Answer<Reply> send(
    Routing::Stub& stub,
    std::unique_ptr<grpc::ClientWriter<Message>> (Routing::Stub::*method)(grpc::ClientContext*,
                                                                          Reply*),
    const std::vector<std::type_identity_t<Message>>& messages) {
  grpc::ClientContext context;
  VornSdkRpc::testing::Answer<Reply> answer;
  const auto writer = (stub.*method)(&context, &answer.reply);
  for (const auto& message : messages)
    writer->Write(message);
  writer->WritesDone();
  answer.status = writer->Finish();
  return answer;
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
  auto routes = routesOf(1000);
  routes.push_back(routeOf(201));
  routes.back().mutable_prefix()->set_mask_length(99);
  const auto status = send(*stub, &Routing::Stub::SetRoutes, routes).status;
  EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_THAT(status.error_message(), testing::StartsWith("route 1000: prefix.mask_length is 99"));
  for (const auto code : {grpc::StatusCode::OK, grpc::StatusCode::NOT_FOUND}) {
    EXPECT_EQ(call(*stub, &Routing::Stub::DeleteRoute, routeOf(7).prefix()), code);
  }
  agent.programAll();
  std::vector<std::uint32_t> expected;
  for (std::uint32_t tag = 0; tag < 200; ++tag) {
    if (tag != 7) expected.push_back(tag);
  }
  EXPECT_EQ(tagsOf(*stub), expected);
  for (const bool deletes : {false, true}) {
    nexthop_group_msg group;
    mpls_route_msg mpls;
    cbf_nexthop_group_redirect_msg redirect;
    group.set_name("core");
    mpls.mutable_nexthop_group()->set_nexthop_group("core");
    redirect.set_match_nexthop_group("core");
    redirect.set_redirect_nexthop_group("gold");
    group.set_request_delete(deletes);
    mpls.set_request_delete(deletes);
    redirect.set_request_delete(deletes);
    EXPECT_EQ(call(*stub, &Routing::Stub::SetNexthopGroup, group), grpc::StatusCode::OK);
    EXPECT_EQ(call(*stub, &Routing::Stub::SetMplsRoute, mpls), grpc::StatusCode::OK);
    EXPECT_EQ(call(*stub, &Routing::Stub::SetRedirect, redirect), grpc::StatusCode::OK);
    agent.programAll();
    for (const auto size : {agent.tables.groups.size(), agent.tables.mplsRoutes.size(),
                            agent.tables.redirects.size()})
      EXPECT_EQ(size, deletes ? 0U : 1U);
  }
}

// In parts, as one by one, up to the first that can't be used, wherever it stands in its part.
TEST(RoutingAgent, TakesRoutesInParts) {
  const Agent agent;
  const auto stub = agent.stub<Routing>();
  for (const int bad : {0, 3, 5, -1}) {
    std::vector<std::uint32_t> expected;
    std::vector<routes_msg> parts(3);
    for (int i = 0; i < 6; ++i) {
      auto& route = *parts[static_cast<std::size_t>(i / 2)].add_route() =
          routeOf(static_cast<std::uint8_t>(i + 10 * (bad + 1)));
      if (i == bad) route.mutable_prefix()->set_mask_length(99);
      if (bad < 0 || i < bad) expected.push_back(route.tag());
    }
    const auto answer = send(*stub, &Routing::Stub::SetRouteParts, parts);
    EXPECT_EQ(answer.status.ok(), bad < 0);
    if (bad >= 0) {
      EXPECT_THAT(answer.status.error_message(),
                  testing::StartsWith("route " + std::to_string(bad) + ": prefix"));
    } else {
      EXPECT_EQ(answer.reply.accepted(), 6U);
    }
    agent.programAll();
    const auto tags = tagsOf(*stub);
    EXPECT_TRUE(std::ranges::includes(tags, expected));
    EXPECT_EQ(std::ranges::count(tags, static_cast<std::uint32_t>(bad + 10 * (bad + 1))), 0);
    routes_msg twice;
    for (const auto tag : expected) {
      *twice.add_route()->mutable_prefix() = routeOf(static_cast<std::uint8_t>(tag)).prefix();
      *twice.add_route() = routeOf(static_cast<std::uint8_t>(tag));
    }
    const auto deleted = send(*stub, &Routing::Stub::DeleteRouteParts, {twice});
    EXPECT_TRUE(deleted.status.ok());
    EXPECT_EQ(deleted.reply.deleted(), expected.size());
    EXPECT_EQ(deleted.reply.missing(), expected.size());
  }
  agent.programAll();
  EXPECT_TRUE(tagsOf(*stub).empty());
}

// Under the address sanitizer: what is still on the backlog must not be programmed into services
// that are gone.
TEST(RoutingAgent, EndsWithWorkOnItsBacklog) {
  std::latch gate(1);
  Agent agent(std::chrono::milliseconds(1));
  ASSERT_TRUE(agent.backlog.add([&gate] { gate.wait(); }, 0));
  const auto stub = agent.stub<Routing>();
  EXPECT_TRUE(send(*stub, &Routing::Stub::SetRoutes, routesOf(20000)).status.ok());
  EXPECT_GE(agent.backlog.figures().items, 20000U);
  gate.count_down();
}

TEST(RoutingAgent, AFullBacklogRefusesSingleChangesAndHoldsUpStreams) {
  std::latch gate(1);
  Agent agent({}, "127.0.0.1", 1);  // one change fills it
  const auto stub = agent.stub<Routing>();
  ASSERT_TRUE(agent.backlog.add([&gate] { gate.wait(); }, 0));
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
  EXPECT_EQ(agent.backlog.figures().items, 1U);
  gate.count_down();
  EXPECT_TRUE(writer->Finish().ok());
  EXPECT_EQ(reply.accepted(), 3U);
  agent.programAll();
  EXPECT_THAT(tagsOf(*stub), testing::ElementsAre(2, 3, 4));
  EXPECT_EQ(call(*stub, &Routing::Stub::DeleteRoute, routeOf(1).prefix()),
            grpc::StatusCode::NOT_FOUND);
}

// What is there may be changed and removed, and makes room.
TEST(RoutingAgent, FullTablesTakeNothingNew) {
  Agent agent({}, "127.0.0.1", 64 << 20, 2 * KeptRoutes::bytes({}));
  const auto stub = agent.stub<Routing>();
  const auto set = [&](std::uint8_t number) {
    const auto code = call(*stub, &Routing::Stub::SetRoute, routeOf(number));
    agent.programAll();
    return code;
  };
  const auto setPart = [&](std::uint8_t number) {
    routes_msg part;
    *part.add_route() = routeOf(number);
    return send(*stub, &Routing::Stub::SetRouteParts, {part}).status.error_code();
  };
  const auto full = grpc::StatusCode::RESOURCE_EXHAUSTED;
  EXPECT_EQ(set(1), grpc::StatusCode::OK);
  EXPECT_EQ(set(2), grpc::StatusCode::OK);
  EXPECT_EQ(set(3), full);
  EXPECT_EQ(setPart(3), full);
  EXPECT_EQ(set(2), grpc::StatusCode::OK);
  EXPECT_EQ(setPart(1), grpc::StatusCode::OK);
  EXPECT_EQ(call(*stub, &Routing::Stub::DeleteRoute, routeOf(1).prefix()), grpc::StatusCode::OK);
  agent.programAll();
  EXPECT_EQ(set(3), grpc::StatusCode::OK);
  EXPECT_EQ(set(1), full);
}

// What is small on the wire may be large in memory.
TEST(RoutingAgent, TheBacklogCountsWhatAChangeTakesInMemory) {
  nexthop_group_msg group;
  group.set_name("core");
  for (int i = 0; i < 10000; ++i)
    group.add_nexthop()->set_nexthop_interface("e");
  std::latch gate(1);
  Agent agent({}, "127.0.0.1", 3 * group.ByteSizeLong());
  const auto stub = agent.stub<Routing>();
  ASSERT_TRUE(agent.backlog.add([&gate] { gate.wait(); }, 0));
  EXPECT_EQ(call(*stub, &Routing::Stub::SetNexthopGroup, group), grpc::StatusCode::OK);
  EXPECT_EQ(call(*stub, &Routing::Stub::SetNexthopGroup, group),
            grpc::StatusCode::RESOURCE_EXHAUSTED);
  gate.count_down();
}

TEST(RoutingAgent, ARemotePeerWithoutIdentityMayReadButNotChange) {
  const Agent agent({}, "[::1]");
  agent.tables.routes.set(PrefixKey(routeOf(1).prefix()), routeOf(1));
  const auto routing = agent.stub<Routing>();
  mpls_route_msg mpls;
  mpls.set_request_delete(true);
  nexthop_group_msg group;
  group.set_name("core");
  cbf_nexthop_group_redirect_msg redirect;
  redirect.set_match_nexthop_group("core");
  rpc_server_state_config_msg config;
  config.add_set()->set_key("x");
  for (const auto code : {
           call(*routing, &Routing::Stub::SetRoute, routeOf(1)),
           call(*routing, &Routing::Stub::DeleteRoute, routeOf(1).prefix()),
           call(*routing, &Routing::Stub::SetNexthopGroup, group),
           call(*routing, &Routing::Stub::SetMplsRoute, mpls),
           call(*routing, &Routing::Stub::SetRedirect, redirect),
           call(*routing, &Routing::Stub::EndSync, end_sync_msg()),
           call(*agent.stub<State>(), &State::Stub::Configure, config),
           call(*agent.stub<Sbfd>(), &Sbfd::Stub::SetSession, sessionOf("eth0")),
       })
    EXPECT_EQ(code, grpc::StatusCode::PERMISSION_DENIED);
  EXPECT_EQ(send(*routing, &Routing::Stub::SetRoutes, {routeOf(2)}).status.error_code(),
            grpc::StatusCode::PERMISSION_DENIED);
  agent.programAll();
  EXPECT_THAT(tagsOf(*routing), testing::ElementsAre(1));
}

TEST(RoutingAgent, KeepsItsState) {
  const Agent agent;
  const auto stub = agent.stub<State>();
  rpc_server_state_config_msg config;
  ASSERT_TRUE(
      TextFormat::ParseFromString("set { key: 'b' value: 'is b' } set { key: 'a' value: 'is a' } "
                                  "set { key: 'c' value: 'is c' } delete { key: 'c' }",
                                  &config));
  EXPECT_EQ(call(*stub, &State::Stub::Configure, config), grpc::StatusCode::OK);
  agent.programAll();
  const std::pair<const char*, const char*> reads[] = {{"", "value=[a=is a, b=is b]"},
                                                       {"key: ['b', 'c', 'a']", "[is b, , is a]"}};
  for (const auto& [keys, values] : reads) {
    state_keys_msg request;
    ASSERT_TRUE(TextFormat::ParseFromString(keys, &request));
    EXPECT_THAT(toString(VornSdkRpc::testing::call(*stub, &State::Stub::Read, request).reply),
                testing::HasSubstr(values));
  }
}

// What is large is read in parts of about 256 KiB.
TEST(RoutingAgent, BoundsThePartsOfAStateAndRefusesItInOnePiece) {
  Agent agent;
  const std::string value(4096, 'v');
  for (int i = 0; i < 1000; ++i)
    agent.tables.state.set("key" + std::to_string(1000 + i), value);
  const auto stub = agent.stub<State>();
  EXPECT_EQ(call(*stub, &State::Stub::Read, state_keys_msg()),
            grpc::StatusCode::RESOURCE_EXHAUSTED);
  rpc_server_state_status_msg reply;
  grpc::ClientContext context;
  const auto parts = stub->ReadAll(&context, read_all_msg());
  int next = 1000;
  while (parts->Read(&reply)) {
    EXPECT_LT(reply.ByteSizeLong(), 300U << 10);
    for (const auto& entry : reply.value())
      EXPECT_EQ(entry.value(), "key" + std::to_string(next++) + "=" + value);
  }
  EXPECT_TRUE(parts->Finish().ok());
  EXPECT_EQ(next, 2000);
}

// Both answers to a change: taken, and programmed. An agent without a kernel has programmed what it
// has taken from the backlog.
TEST(RoutingAgent, TellsWhatBecameOfAChange) {
  std::latch gate(1);
  Agent agent;
  const auto stub = agent.stub<Routing>();
  ASSERT_TRUE(agent.backlog.add([&gate] { gate.wait(); }, 0));
  const auto await = [&](const await_msg& what, std::chrono::milliseconds patience) {
    const auto [status, state] =
        VornSdkRpc::testing::call(*stub, &Routing::Stub::Await, what, patience);
    EXPECT_TRUE(!status.ok() || state.state() == programming_msg::PROGRAMMED);
    return status.error_code();
  };
  await_msg what;
  *what.mutable_route() = routeOf(1).prefix();
  EXPECT_EQ(call(*stub, &Routing::Stub::SetRoute, routeOf(1)), grpc::StatusCode::OK);
  EXPECT_EQ(await(what, std::chrono::milliseconds(50)), grpc::StatusCode::DEADLINE_EXCEEDED);
  gate.count_down();
  const std::chrono::minutes long_(1);
  EXPECT_EQ(await(what, long_), grpc::StatusCode::OK);
  *what.mutable_route() = routeOf(2).prefix();
  EXPECT_EQ(await(what, long_), grpc::StatusCode::NOT_FOUND);
  what.set_group("core");
  EXPECT_EQ(await(what, long_), grpc::StatusCode::NOT_FOUND);
  EXPECT_EQ(await(await_msg(), long_), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(VornSdkRpc::testing::call(*stub, &Routing::Stub::AwaitAll, await_all_msg())
                .reply.programmed(),
            1U);
}

grpc::Status setAs(Routing::Stub& stub, const char* electionId, std::uint8_t number) {
  grpc::ClientContext context;
  if (electionId) context.AddMetadata("election-id", electionId);
  rpc_status_msg reply;
  return stub.SetRoute(&context, routeOf(number), &reply);
}

TEST(RoutingAgent, TakesThePrimarysChangesAloneOnceThereIsOne) {
  using enum grpc::StatusCode;
  const Agent agent;
  const auto stub = agent.stub<Routing>();
  const std::string max = std::to_string(~std::uint64_t{0});
  const struct {
    const char* id;
    grpc::StatusCode code;
    std::string text;
  } calls[] = {
      {nullptr, OK, ""},
      {"", INVALID_ARGUMENT, "election-id is neither"},
      {"0", INVALID_ARGUMENT, "election-id is neither"},
      {"0:0", INVALID_ARGUMENT, "election-id is neither"},
      {"-1", INVALID_ARGUMENT, "election-id is neither"},
      {"1:2:3", INVALID_ARGUMENT, "election-id is neither"},
      {"18446744073709551616", INVALID_ARGUMENT, "election-id is neither"},
      {nullptr, OK, ""},
      {"7", OK, ""},
      {"7", OK, ""},
      {"6", PERMISSION_DENIED, "election id 6 is not the primary's, which is 7"},
      {nullptr, PERMISSION_DENIED, "only the primary, whose election id is 7, may change"},
      {max.c_str(), OK, ""},
      {"1:0", OK, ""},
      {"7", PERMISSION_DENIED, "which is 1:0"},
      {max.c_str(), PERMISSION_DENIED, "which is 1:0"},
      {"0:7", PERMISSION_DENIED, "election id 7 is"},
  };
  for (const auto& [id, code, text] : calls) {
    const auto status = setAs(*stub, id, 1);
    EXPECT_EQ(status.error_code(), code) << (id ? id : "none");
    EXPECT_THAT(status.error_message(), testing::HasSubstr(text));
  }
  announce_msg announce;
  EXPECT_EQ(call(*stub, &Routing::Stub::Announce, announce), INVALID_ARGUMENT);
  announce.mutable_election_id()->set_low(9);
  EXPECT_EQ(call(*stub, &Routing::Stub::Announce, announce), PERMISSION_DENIED);
  announce.mutable_election_id()->set_high(2);
  EXPECT_EQ(call(*stub, &Routing::Stub::Announce, announce), OK);
  EXPECT_EQ(setAs(*stub, "1:0", 1).error_code(), PERMISSION_DENIED);
  EXPECT_EQ(setAs(*stub, "2:9", 1).error_code(), OK);
}

// In the tables, in the books of what is there, in the state file, and in the former one's calls.
TEST(RoutingAgent, DropsWhatWaitsOfAFormerPrimary) {
  std::string folder = (std::filesystem::temp_directory_path() / "election-XXXXXX").string();
  ASSERT_TRUE(mkdtemp(folder.data()));
  const std::string path = folder + "/state";
  {
    Agent agent({}, "127.0.0.1", 64 << 20, 0, path);
    const auto stub = agent.stub<Routing>();
    const auto asFormer = [](grpc::ClientContext& context) {
      context.AddMetadata("election-id", "5");
    };
    EXPECT_TRUE(setAs(*stub, "5", 1).ok());
    agent.programAll();
    std::latch gate(1);
    ASSERT_TRUE(agent.backlog.add([&gate] { gate.wait(); }, 0));
    EXPECT_TRUE(setAs(*stub, "5", 2).ok());
    rpc_status_msg reply;
    grpc::ClientContext deletion, upload, waits;
    asFormer(deletion);
    EXPECT_TRUE(stub->DeleteRoute(&deletion, routeOf(1).prefix(), &reply).ok());
    asFormer(upload);
    set_routes_reply_msg accepted;
    const auto writer = stub->SetRouteParts(&upload, &accepted);
    routes_msg part;
    *part.add_route() = routeOf(3);
    *part.add_route() = routeOf(4);
    writer->Write(part);
    test::waitUntil([&] { return agent.backlog.waiting() == 5; }, "so many changes wait");
    asFormer(waits);
    programming_msg state;
    grpc::Status awaited;
    await_msg what;
    *what.mutable_route() = routeOf(1).prefix();
    std::jthread waiting([&] { awaited = stub->Await(&waits, what, &state); });
    test::waitUntil([&] { return agent.backlog.waiting() == 6; }, "so many changes wait");

    EXPECT_TRUE(setAs(*stub, "6", 5).ok());
    const auto before = agent.file->size();
    EXPECT_EQ(agent.election.dropped(), 4U);
    writer->WritesDone();
    EXPECT_EQ(writer->Finish().error_code(), grpc::StatusCode::ABORTED);
    gate.count_down();
    waiting.join();
    EXPECT_EQ(awaited.error_code(), grpc::StatusCode::ABORTED);
    EXPECT_THAT(awaited.error_message(), testing::HasSubstr("with election id 6"));
    grpc::ClientContext late;
    asFormer(late);
    EXPECT_EQ(stub->Await(&late, what, &state).error_code(), grpc::StatusCode::ABORTED);
    agent.programAll();
    EXPECT_THAT(tagsOf(*stub), testing::ElementsAre(1, 5));
    for (const auto& [number, code] :
         {std::pair(2, grpc::StatusCode::NOT_FOUND), std::pair(1, grpc::StatusCode::OK)}) {
      grpc::ClientContext context;
      context.AddMetadata("election-id", "6");
      const auto prefix = routeOf(static_cast<std::uint8_t>(number)).prefix();
      EXPECT_EQ(stub->DeleteRoute(&context, prefix, &reply).error_code(), code);
    }
    test::waitUntil([&] { return agent.file->size() < before; }, "the file is written anew");
  }
  Tables tables;
  {
    const StateFile file(path, tables);
  }
  std::vector<std::uint32_t> kept;
  tables.routes.forEach([&](const PrefixKey&, const auto& route) { kept.push_back(route.tag()); });
  EXPECT_THAT(kept, testing::ElementsAre(5));
  std::filesystem::remove_all(folder);
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
  std::map<std::string, std::uint32_t> highest;
  for (const bool rtt : {false, true}) {
    grpc::ClientContext context;
    watch_sbfd_echo_session_config_msg config;
    config.set_request_rtt_updates(rtt);
    const auto watch = stub->WatchSessions(&context, config);
    Item item;
    std::set<std::string> present;
    while (watch->Read(&item) && !item.end_of_status_batch()) {
      EXPECT_EQ(item.update_case(), Item::kStatus);
      present.insert(item.session_key().outgoing_interface());
    }
    EXPECT_THAT(present, testing::ElementsAre("eth0", "eth1"));
    EXPECT_TRUE(item.end_of_status_batch());

    const std::string added = rtt ? "eth3" : "eth2";
    EXPECT_EQ(call(*stub, &Sbfd::Stub::SetSession, sessionOf(added)), grpc::StatusCode::OK);
    auto gone = sessionOf(added);
    gone.set_request_delete(true);
    bool deleted = false;
    int rtts = 0;
    for (bool ended = false; !ended || (rtt && rtts < 12);) {
      ASSERT_TRUE(watch->Read(&item));
      std::vector<Item> news(item.bulk().begin(), item.bulk().end());
      if (news.empty()) news.push_back(item);
      for (const auto& one : news) {
        if (one.update_case() == Item::kRtt) {
          ++rtts;
          auto& max = highest[one.session_key().outgoing_interface()];
          max = std::max(max, one.rtt().last_rtt());
          EXPECT_GE(one.rtt().max_rtt(), max);
        }
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

// A session that tracks its interface is down with it alone, not for want of descriptors, and says
// so to who wants to know.
TEST(SbfdMonitor, TellsAnInterfaceThatIsGoneFromOneThatIsNotKnown) {
  std::map<std::string, bool> down;  // by interface
  std::mutex mutex;
  SbfdMonitor monitor({}, [&](const sbfd_echo_session_key_msg& key, bool isDown) {
    const std::lock_guard lock(mutex);
    down[key.outgoing_interface()] = isDown;
  });
  const auto status = [&](const std::string& interface) {
    const auto item =
        monitor.statuses().find(sessionOf(interface).session_key().SerializeAsString());
    return item ? item->status().status() : sbfd_echo_session_oper_status_msg::UNKNOWN;
  };
  std::vector<int> taken;
  for (int fd = dup(0); fd >= 0; fd = dup(0))
    taken.push_back(fd);
  for (const char* interface : {"lo", "no-such-one"}) {
    auto session = sessionOf(interface);
    session.set_track_interface_state(true);
    monitor.set(session);
  }
  const auto known = [&] {
    return status("lo") == sbfd_echo_session_oper_status_msg::UP &&
           status("no-such-one") == sbfd_echo_session_oper_status_msg::DOWN;
  };
  test::waitUntil(known, "both states are known");
  for (const int fd : taken)
    close(fd);
  const std::lock_guard lock(mutex);
  EXPECT_EQ(down, (std::map<std::string, bool>{{"no-such-one", true}}));
}

// ------------------------------------------------------------------------------------------------
// The command line

TEST(Options, AreReadOrRefusedInOneLine) {
  const auto parsed = [](std::vector<std::string> words) {
    std::string name = "routing_agent";
    std::vector<char*> argv{name.data()};
    for (auto& word : words)
      argv.push_back(word.data());
    return parseOptions(static_cast<int>(argv.size()), argv.data());
  };
  EXPECT_EQ(parsed({"--socket-mode", "0660", "--socket-group", "0"}).sockets,
            (SocketOptions{.mode = 0660, .group = 0}));
  const Options options =
      parsed({"--listen", "a:1", "--no-accounting", "--listen", "unix:/b", "--step-ms", "7"});
  EXPECT_THAT(options.listen, testing::ElementsAre("a:1", "unix:/b"));
  EXPECT_THAT(options.accounting.to, testing::IsEmpty());
  EXPECT_EQ(options.stepTime.count(), 7);
  for (const auto& [words, message] :
       std::initializer_list<std::pair<std::vector<std::string>, const char*>>{
           {{"--bogus"}, "unknown option --bogus"},
           {{"--trace"}, "--trace needs a value"},
           {{"--listen", "--netns", "a"}, "--listen needs a value"},
           {{"--socket-mode", "0680"}, "--socket-mode takes permissions in octal, such as 0660"},
           {{"--socket-group", "no such"},
            "--socket-group names a group that is not there: no such"},
           {{"--keepalive-ms", "99"}, "--keepalive-ms takes a number from 100 to 3600000"},
           {{"--step-ms", "fast"}, "--step-ms takes a number from 0 to 1000"},
           {{"--step-ms", "7ms"}, "--step-ms takes a number from 0 to 1000"},
           {{"--netns", "a", "--netns", "b"}, "unknown option --netns"},
       }) {
    EXPECT_EQ(test::thrown<UsageError>([&] { parsed(words); }), message);
  }
}

TEST(Options, OfAFileNameTheirLinesWhenTheyAreWrong) {
  const auto parsed = [](std::string_view text) {
    Options options;
    parseConfig(text, "agent.conf", options);
    return options;
  };
  const Options options = parsed(
      "listen = ['a:1', \"unix:/b\"]\n# and\nstep-ms = 7\n"
      "no-accounting = true\nprogram-kernel = false\n");
  EXPECT_THAT(options.listen, testing::ElementsAre("a:1", "unix:/b"));
  EXPECT_EQ(options.stepTime.count(), 7);
  EXPECT_THAT(options.accounting.to, testing::IsEmpty());
  EXPECT_FALSE(options.programKernel);
  for (const auto& [text, message] : std::initializer_list<std::pair<const char*, const char*>>{
           {"\nbogus = 1", "agent.conf:2: unknown key bogus"},
           {"help = true", "agent.conf:1: unknown key help"},
           {"netns = ['a']", "agent.conf:1: netns takes a text in double quotes"},
           {"listen = 7", "agent.conf:1: listen takes a text in double quotes"},
           {"step-ms = '7'", "agent.conf:1: step-ms takes a number"},
           {"log = ''", "agent.conf:1: log needs a value"},
           {"listen = []", "agent.conf:1: listen needs a value"},
           {"log = \"a\\u0000b\"", "agent.conf:1: log has a NUL in it"},
           {"no-accounting = 1", "agent.conf:1: no-accounting takes true or false"},
           {"step-ms = 1001", "agent.conf:1: step-ms takes a number from 0 to 1000"},
       }) {
    EXPECT_EQ(test::thrown<UsageError>([&] { parsed(text); }), message);
  }
  EXPECT_THROW(parsed("log = 'a'\nlog = 'b'"), UsageError);
  EXPECT_THROW(parsed("log"), UsageError);
}

}  // namespace
}  // namespace routing_agent
