#include <Kiv/Log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <regex>
#include <set>
#include <thread>
#include <tuple>

#include "Accounted.h"
#include "Capture.h"
#include "Certificates.h"
#include "agents/routing/Identity.h"

using routing_agent::Access;
using routing_agent::IdentityOptions;
using test::Certificates;
using test::EchoServer;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

IdentityOptions optionsOf(const Certificates& certificates) {
  IdentityOptions options;
  options.tlsCert = certificates.path("server.pem");
  options.tlsKey = certificates.path("server.key");
  options.clientCa = certificates.path("ca.pem");
  return options;
}

// The code of a call whose metadata claims to come from `usernames`, and which asks for `status`.
int callAs(test::Probe::Stub& stub, const std::vector<std::string>& usernames = {},
           int status = 0) {
  std::multimap<std::string, std::string> metadata;
  for (const auto& name : usernames)
    metadata.emplace("username", name);
  return test::callEcho(stub, std::to_string(status), metadata);
}

// The records of the log, taken apart into user, session, peer and status.
std::vector<std::array<std::string, 4>> recordsOf(const test::Capture& log) {
  static const std::regex parts("VORN.*?user: (.*), session: (.*), peer: (.*), rpc: .*: (.*)");
  std::vector<std::array<std::string, 4>> records;
  for (const auto& line : log.lines()) {
    std::smatch part;
    EXPECT_TRUE(std::regex_match(line, part, parts)) << line;
    records.push_back({part.str(1), part.str(2), part.str(3), part.str(4)});
  }
  return records;
}

std::vector<std::string> usersOf(const test::Capture& log) {
  std::vector<std::string> users;
  for (const auto& record : recordsOf(log))
    users.push_back(record[0]);
  return users;
}

// Users who call at the same time, one of them over two connections: each status is one user's.
TEST(Identity, EveryRecordOfAUserIsHisAndOfHisConnection) {
  constexpr int kCalls = 50;
  const test::Capture log(Kiv::platformLogger());
  const Certificates certificates;
  certificates.issue("alice", "/CN=alice");
  certificates.issue("bob", "/CN=bob");
  const Access access(optionsOf(certificates));
  EchoServer server(access.credentials("127.0.0.1:0"));
  const auto client = [&](const std::string& name, int status) {
    return std::jthread([&, name, status] {
      const auto stub = server.stub(certificates.client(name));
      for (int i = 0; i < kCalls; ++i)
        EXPECT_EQ(callAs(*stub, {}, status), status);
    });
  };
  {
    const std::jthread clients[] = {client("alice", 1), client("bob", 2), client("alice", 3)};
  }
  server.stop();
  const auto records = recordsOf(log);
  EXPECT_EQ(records.size(), 3U * kCalls);
  std::set<std::string> sessions, peers;
  std::set<std::array<std::string, 4>> connections;
  for (const auto& record : records) {
    const auto& [user, session, peer, status] = record;
    EXPECT_EQ(user, status == "2" ? "bob" : "alice");
    sessions.insert(session);
    peers.insert(peer);
    connections.insert(record);
  }
  EXPECT_EQ(sessions.size(), 3U);
  EXPECT_EQ(peers.size(), 3U);
  EXPECT_EQ(connections.size(), 3U);
  EXPECT_EQ(server.sessionsPerConnection(), 1U);
}

TEST(Identity, ACertificateDecidesWhoCallsAndAClaimMustAgree) {
  const test::Capture log(Kiv::platformLogger());
  const Certificates certificates;
  certificates.issue("alice", "/CN=alice");
  certificates.issue("mail", "/O=nobody", "email:carol@example.com");
  certificates.issue("nobody", "/O=nobody");
  certificates.issue("forger", "/CN=eve\nVORNSDKRPC_ACCOUNTING_RPC: user: root");
  certificates.issue("two_names", "/CN=alice");
  certificates.rename("two_names", {"alice\0.evil", 11});
  certificates.make("stranger", "/CN=alice", "");
  const Access access(optionsOf(certificates));
  EchoServer server(access.credentials("127.0.0.1:0"));
  const std::tuple<std::string, std::vector<std::string>, int> cases[] = {
      {"alice", {}, grpc::OK},
      {"alice", {"alice"}, grpc::OK},
      {"alice", {"bob"}, grpc::UNAUTHENTICATED},
      {"alice", {"alice", "bob"}, grpc::UNAUTHENTICATED},
      {"alice", {""}, grpc::UNAUTHENTICATED},
      {"mail", {}, grpc::OK},
      {"nobody", {}, grpc::UNAUTHENTICATED},
      {"two_names", {}, grpc::UNAUTHENTICATED},
      {"forger", {}, grpc::OK},
      {"stranger", {}, grpc::UNAVAILABLE},
      {"", {"alice"}, grpc::UNAVAILABLE},
  };
  for (const auto& [certificate, usernames, code] : cases) {
    EXPECT_EQ(callAs(*server.stub(certificates.client(certificate)), usernames), code)
        << certificate;
  }
  server.stop();
  EXPECT_THAT(usersOf(log), ElementsAre("alice", "alice", "carol@example.com",
                                        "eve\\x0aVORNSDKRPC_ACCOUNTING_RPC: user: root"));
}

TEST(Identity, LocalCallersAreWhoTheirConnectionsFirstCallClaims) {
  const Certificates certificates;
  auto options = optionsOf(certificates);
  options.loopback = true;
  const test::Capture log(Kiv::platformLogger());
  const Access access(options);
  EchoServer server(access.credentials("127.0.0.1:0"));
  const auto alice = server.stub(grpc::experimental::LocalCredentials(LOCAL_TCP));
  EXPECT_EQ(callAs(*alice, {"alice"}), grpc::OK);
  EXPECT_EQ(callAs(*alice, {"bob"}), grpc::UNAUTHENTICATED);
  EXPECT_EQ(callAs(*alice), grpc::OK);
  const auto somebody = server.stub(grpc::experimental::LocalCredentials(LOCAL_TCP));
  EXPECT_EQ(callAs(*somebody), grpc::OK);
  EXPECT_EQ(callAs(*somebody, {"alice"}), grpc::UNAUTHENTICATED);
  EXPECT_EQ(callAs(*somebody), grpc::OK);
  server.stop();
  EXPECT_THAT(usersOf(log), ElementsAre("local:alice", "local:alice", "local", "local"));
  EXPECT_EQ(server.sessionsPerConnection(), 1U);
}

TEST(Identity, AConnectionWithoutCredentialsIsUnknown) {
  const test::Capture log(Kiv::platformLogger());
  const Access access{IdentityOptions()};
  EchoServer server(access.credentials("127.0.0.1:0"));
  const auto stub = server.stub();
  EXPECT_EQ(callAs(*stub, {"alice"}), grpc::OK);
  server.stop();
  EXPECT_THAT(usersOf(log), ElementsAre("unknown"));
}

TEST(Identity, AFileThatCannotBeUsedIsNamedWithTheReason) {
  const Certificates certificates;
  const auto missing = certificates.path("missing.pem"), folder = certificates.path("");
  const std::tuple<std::string IdentityOptions::*, std::string, std::string> cases[] = {
      {&IdentityOptions::tlsCert, certificates.path("server.pem"), "accepted"},
      {&IdentityOptions::tlsCert, missing,
       "cannot read " + missing + ": No such file or directory"},
      {&IdentityOptions::clientCa, folder, "cannot read " + folder + ": Is a directory"},
      {&IdentityOptions::tlsKey, certificates.path("openssl.log"), "holds no private key"},
      {&IdentityOptions::policy, missing, "cannot read " + missing},
      {&IdentityOptions::policy, certificates.path("server.pem"), "is no JSON object"},
      {&IdentityOptions::revoked, folder, "Is a directory"},
      {&IdentityOptions::clientCa, "", "all three"},
  };
  for (const auto& [option, value, refusal] : cases) {
    auto options = optionsOf(certificates);
    options.*option = value;
    std::string said = "accepted";
    try {
      const Access access(options);
    } catch (const std::exception& error) {
      said = error.what();
    }
    EXPECT_THAT(said, HasSubstr(refusal));
  }
}

}  // namespace
