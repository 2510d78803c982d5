#include <Kiv/Trace.h>
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/Listener.h>
#include <gmock/gmock.h>
#include <grpcpp/create_channel_posix.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <regex>
#include <stdexcept>

#include "tests/Capture.h"
#include "tests/Certificates.h"
#include "tests/ProbeService.h"
#include "tests/RawClient.h"
#include "tests/RawFrames.h"
#include "tests/Thrown.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

using testing::Contains;
using testing::HasSubstr;
using VornSdkRpc::Listener;

// A directory for sockets, short enough for their names.
class Directory {
 public:
  Directory() {
    if (!mkdtemp(path_)) throw std::system_error(errno, std::generic_category(), path_);
  }
  ~Directory() { std::filesystem::remove_all(path_); }
  std::string path(const std::string& name) const { return std::string(path_) + "/" + name; }
  std::string socket(const std::string& name) const { return "unix:" + path(name); }

 private:
  char path_[32] = "/tmp/listener-XXXXXX";
};

// What a call's connection says of its caller, as "name=value ..." in the order of the names.
std::string identityOf(const grpc::ServerContext& context) {
  std::multimap<std::string, std::string> properties;
  for (const auto& [name, value] : *context.auth_context())
    properties.emplace(std::string(name.data(), name.size()),
                       std::string(value.data(), value.size()));
  std::string text;
  for (const auto& [name, value] : properties) {
    if (name.starts_with("peer-") || name.starts_with("local-"))
      text.append(text.empty() ? "" : " ").append(name).append("=").append(value);
  }
  return text;
}

// An agent behind a Listener, which answers an Echo with the caller's peer text, or with what the
// connection says of the caller to who asks "who?".
class Agent {
 public:
  explicit Agent(const std::function<void(Listener&, grpc::ServerBuilder&)>& prepare) {
    prepare(*listener_, builder_);
    builder_.RegisterService(&service_);
    server_ = std::make_unique<VornSdkRpc::GrpcServer>(
        builder_, std::vector<std::shared_ptr<VornSdkRpc::GrpcService>>{}, properties_);
    server_->listenerIs(listener_);
    server_->setup();
    thread_ = std::thread([this] {
      while (!server_->stopRequested()) {
        server_->dequeue();
        heldUp_.wait(true);
      }
      server_->teardown();
    });
  }
  ~Agent() { stop(); }

  void stop() {
    server_->stop();
    join();
  }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  VornSdkRpc::GrpcServer& server() { return *server_; }

  // Whether the loop, which sees a stop after each turn, is to turn no more.
  void heldUpIs(bool heldUp) {
    heldUp_ = heldUp;
    heldUp_.notify_one();
  }

  Listener::Figures figures() const { return listener_->figures(); }

 private:
  struct Service : Probe::Service {
    grpc::Status Echo(grpc::ServerContext* context, const Text* request, Text* reply) override {
      reply->set_text(request->text() == "who?" ? identityOf(*context) : context->peer());
      return grpc::Status::OK;
    }
    grpc::Status Chat(grpc::ServerContext*, grpc::ServerReaderWriter<Text, Text>* stream) override {
      for (Text text; stream->Read(&text);)
        stream->Write(text);
      return grpc::Status::OK;
    }
  };

  grpc::ServerBuilder builder_;
  VornSdkRpc::ServerProperties properties_;
  std::shared_ptr<Listener> listener_ = std::make_shared<Listener>(builder_, properties_);
  Service service_;
  std::unique_ptr<VornSdkRpc::GrpcServer> server_;
  std::atomic<bool> heldUp_ = false;
  std::thread thread_;
};

std::string peerSeenBy(const std::string& address,
                       const std::shared_ptr<grpc::ChannelCredentials>& credentials =
                           grpc::InsecureChannelCredentials()) {
  grpc::ClientContext context;
  Text request, reply;
  const auto status =
      Probe::NewStub(connected(address, credentials))->Echo(&context, request, &reply);
  return status.ok() ? reply.text() : status.error_message();
}

std::shared_ptr<grpc::ServerCredentials> serverWith(const Certificates& certificates) {
  grpc::SslServerCredentialsOptions options(
      GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  options.pem_root_certs = certificates.read("ca.pem");
  options.pem_key_cert_pairs.push_back(
      {certificates.read("server.key"), certificates.read("server.pem")});
  return grpc::SslServerCredentials(options);
}

std::string withPort(std::string address, int port) {
  return address.ends_with(":0") ? address.replace(address.size() - 1, 1, std::to_string(port))
                                 : address;
}

// ------------------------------------------------------------------------------------------------
// Addresses and credentials

TEST(Listener, ServesEveryKindOfAddressAndTellsThePeerAsGrpcDoes) {
  const Directory directory;
  const Certificates certificates;
  certificates.issue("alice", "/CN=alice");
  const auto tls = serverWith(certificates);
  const auto localTcp = grpc::experimental::LocalServerCredentials(LOCAL_TCP);
  const auto localUnix = grpc::experimental::LocalServerCredentials(UDS);
  const auto none = grpc::InsecureServerCredentials();
  const std::string anyPort = "127.0.0.1:0", abstract = "unix-abstract:" + directory.path("a");
  const auto file = [&](const std::string& name) { return directory.socket(name); };
  const struct {
    std::string listen, asGrpcIsTold;
    std::shared_ptr<grpc::ServerCredentials> credentials;
    std::string connect;  // with port 0 in place of the one that was given
    std::shared_ptr<grpc::ChannelCredentials> client = grpc::InsecureChannelCredentials();
  } cases[] = {
      {anyPort, anyPort, none, anyPort},
      {"0.0.0.0:0", "0.0.0.0:0", none, anyPort},
      {"[::1]:0", "[::1]:0", none, "[::1]:0"},
      {"[::]:0", "[::]:0", none, "[::1]:0"},
      {"[::]:0", "[::]:0", none, anyPort},
      {":0", "[::]:0", none, anyPort},
      {"localhost:0", "localhost:0", none, anyPort},
      {"ipv4:127.0.0.1:0", anyPort, none, anyPort},
      {"ipv6:[::1]:0", "[::1]:0", none, "[::1]:0"},
      {"dns:///localhost:0", "dns:///localhost:0", none, anyPort},
      {file("plain"), file("plain"), none, file("plain")},
      {"unix://" + directory.path("slashes"), file("slashes"), none, file("slashes")},
      {abstract, abstract, none, abstract},
      {anyPort, anyPort, localTcp, anyPort, grpc::experimental::LocalCredentials(LOCAL_TCP)},
      {file("local"), file("local"), localUnix, file("local"),
       grpc::experimental::LocalCredentials(UDS)},
      {anyPort, anyPort, tls, anyPort, certificates.client("alice")},
  };
  constexpr auto kCases = std::size(cases);
  std::array<int, kCases> ports[2];
  std::vector<std::string> peers[2];
  for (const bool ours : {false, true}) {
    Agent agent([&](Listener& listener, grpc::ServerBuilder& builder) {
      for (std::size_t i = 0; i < kCases; ++i) {
        if (ours) {
          ports[ours][i] = listener.add(cases[i].listen, cases[i].credentials);
        } else {
          builder.AddListeningPort(cases[i].asGrpcIsTold, cases[i].credentials, &ports[ours][i]);
        }
      }
    });
    for (std::size_t i = 0; i < kCases; ++i) {
      const auto address = withPort(cases[i].connect, ports[ours][i]);
      peers[ours].push_back(
          std::regex_replace(peerSeenBy(address, cases[i].client), std::regex(":\\d+$"), ":PORT"));
    }
    EXPECT_EQ(agent.figures(), (Listener::Figures{.accepted = ours ? kCases : 0}));
  }
  EXPECT_EQ(peers[true], peers[false]);
  EXPECT_THAT(peers[true], Contains("ipv4:127.0.0.1:PORT"));
}

TEST(Listener, SaysWhyItCannotListen) {
  const Directory directory;
  std::ofstream(directory.path("file")) << "not a socket";
  grpc::ServerBuilder builder;
  VornSdkRpc::ServerProperties properties;
  Listener listener(builder, properties);
  const auto none = grpc::InsecureServerCredentials();
  const auto refusal = [&](const std::string& address) {
    return thrown<std::exception>([&] { listener.add(address, none); });
  };
  const std::string taken = "127.0.0.1:" + std::to_string(listener.add("127.0.0.1:0", none));
  listener.add(directory.socket("taken"), none);
  for (const auto& [address, reason] : std::map<std::string, std::string>{
           {taken, "Address already in use"},
           {directory.socket("taken"), "Address already in use"},
           {directory.socket("file"), "Address already in use"},
           {directory.socket("no/such/folder"), "No such file or directory"},
           {directory.socket(std::string(200, 'x')), "the path is too long"},
           {"unix:", "it has no path"},
           {"192.0.2.1:0", "Cannot assign requested address"},
           {"127.0.0.1", "it has no port"},
           {"127.0.0.1:", "it has no port"},
           {"::1:50051", "an IPv6 address stands in brackets"},
           {"127.0.0.1:70000", "there is no such port"},
           {"no.such.host.invalid:1", ""},
       })
    EXPECT_THAT(refusal(address),
                testing::StartsWith("cannot listen on " + address + ": " + reason));
  EXPECT_EQ(thrown<std::invalid_argument>([&] { listener.addInherited(0, none); }),
            "cannot listen on descriptor 0: it is no stream socket that listens");
  const int tcp = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  listen(tcp, 1);
  EXPECT_THAT(thrown<std::invalid_argument>([&] { listener.addInheritedLocal(tcp); }),
              HasSubstr("it is no Unix socket"));
  close(tcp);
  listener.stop();
  EXPECT_THAT(refusal("127.0.0.1:0"), HasSubstr("has started or stopped already"));
}

TEST(Listener, ReplacesAStaleSocketFileAndRemovesItsOwnAlone) {
  const Directory directory;
  const auto none = grpc::InsecureServerCredentials();
  const std::string address = directory.socket("agent"), path = directory.path("agent");
  const auto isThere = [&] {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
  };
  {
    RawClient dead;
    dead.open(AF_UNIX);
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strcpy(name.sun_path, path.c_str());
    ASSERT_EQ(bind(dead.fd(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
  }
  ASSERT_TRUE(isThere());
  {
    Agent agent([&](Listener& listener, auto&) { listener.add(address, none); });
    EXPECT_THAT(peerSeenBy(address), testing::StartsWith("unix"));
  }
  EXPECT_FALSE(isThere());
  {
    Agent agent([&](Listener& listener, auto&) { listener.add(address, none); });
    std::filesystem::remove(path);
    std::ofstream(path) << "somebody else's";
  }
  EXPECT_TRUE(isThere());
}

// A socket that the agent's supervisor has opened.
TEST(Listener, TakesOverASocketThatListensAndLeavesItsFileThere) {
  const Directory directory;
  const std::string address = directory.socket("inherited");
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  std::strcpy(name.sun_path, directory.path("inherited").c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
  ASSERT_EQ(listen(fd, 10), 0);
  RawClient early;
  ASSERT_TRUE(early.connectTo(address));
  {
    Agent agent([&](Listener& listener, auto&) {
      EXPECT_EQ(listener.addInherited(fd, grpc::InsecureServerCredentials()), 0);
    });
    EXPECT_TRUE(early.isServed());
    EXPECT_THAT(peerSeenBy(address), testing::StartsWith("unix"));
  }
  EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "closed with the listener";
  EXPECT_TRUE(std::filesystem::exists(directory.path("inherited")));
}

// ------------------------------------------------------------------------------------------------
// Limits

TEST(Listener, HoldsAPeerToItsLimitAndTakesItAgainAfterwards) {
  const Directory directory;
  const Capture trace(Kiv::traceLogger());
  int port = 0;
  Agent agent([&](Listener& listener, auto&) {
    listener.connectionsPerPeerIs(3);
    port = listener.add("[::]:0", grpc::InsecureServerCredentials());
    listener.add(directory.socket("agent"), grpc::InsecureServerCredentials());
  });
  std::uint64_t refused = 0;
  for (const auto& address : {"127.0.0.1:" + std::to_string(port), directory.socket("agent")}) {
    std::vector<RawClient> clients(5);
    for (std::size_t i = 0; i < clients.size(); ++i) {
      ASSERT_TRUE(clients[i].connectTo(address));
      EXPECT_EQ(clients[i].isServed(), i < 3);
    }
    clients.erase(clients.begin());
    for (bool served = false; !served; ++refused) {
      RawClient next;
      ASSERT_TRUE(next.connectTo(address));
      served = next.isServed();
    }
    refused += 2 - 1;  // the last of those was served
  }
  EXPECT_NE(peerSeenBy("[::1]:" + std::to_string(port)), "") << "another peer";
  agent.stop();
  EXPECT_EQ(agent.figures(), (Listener::Figures{.accepted = 9, .refusedForPeer = refused}));
  EXPECT_GE(trace.count("their peer has as many as it may have"), 1U);
}

std::string settings(std::uint32_t) {
  std::string frames;
  for (int i = 0; i < 1000; ++i)
    frames += frame(SETTINGS, 0);
  return frames;
}

// Calls that are reset with the next packet.
std::string resetCalls(std::uint32_t first) {
  std::string calls, resets;
  for (std::uint32_t stream = first; stream < first + 200; stream += 2) {
    calls += call(stream, "Chat");
    resets += frame(RST_STREAM, stream, number(8, 4));
  }
  return calls + resets;
}

// A header whose text goes on for as long as somebody listens.
std::string endless(std::uint32_t part) {
  constexpr char kContinuation = 9;
  if (part != 1) return frame(kContinuation, 1, std::string(16'384, 'x'));
  const std::string unfinished = std::string("\0\1x\x7f", 4) + "\xff\xff\xff\x7f";
  return frame(HEADERS, 1, unfinished);
}

TEST(Listener, ClosesWhoFloodsAndServesTheOthers) {
  const Certificates certificates;
  certificates.issue("alice", "/CN=alice");
  const Capture trace(Kiv::traceLogger());
  int port = 0, tlsPort = 0;
  Agent agent([&](Listener& listener, grpc::ServerBuilder& builder) {
    builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, 100);
    listener.floodLimitsAre({.abandonedCalls = 400, .bytesWithoutMessage = 256 << 10});
    port = listener.add("[::]:0", grpc::InsecureServerCredentials());
    tlsPort = listener.add("127.0.0.1:0", serverWith(certificates));
  });
  const auto ipv4 = "127.0.0.1:" + std::to_string(port), ipv6 = "[::1]:" + std::to_string(port);
  const auto honest = Probe::NewStub(connected(ipv4, grpc::InsecureChannelCredentials()));
  const auto callsAreAnswered = [&](int count) {
    Text request, reply;
    request.set_text(std::string(1000, 'x'));
    int answered = 0;
    for (int i = 0; i < count; ++i) {
      grpc::ClientContext context;
      answered += honest->Echo(&context, request, &reply).ok();
    }
    EXPECT_EQ(answered, count);
  };
  callsAreAnswered(1000);

  const struct {
    std::string to;
    std::function<std::string(std::uint32_t)> more;
  } floods[] = {
      {ipv4, resetCalls},
      {ipv6, resetCalls},
      {ipv4, endless},
      {ipv6, settings},
  };
  for (const auto& flood : floods) {
    RawClient client;
    ASSERT_TRUE(client.connectTo(flood.to));
    std::uint32_t sent = 1;
    for (std::string more = kHello; sent < 10'000'000 && client.send(more); sent += 200)
      more = flood.more(sent);
    EXPECT_LT(sent, 10'000'000U) << "it has not been closed";
    callsAreAnswered(1);
  }
  std::uint64_t closed = std::size(floods);
  EXPECT_EQ(agent.figures().closedForFlood, closed);

  const auto cancels = Probe::NewStub(
      connected("127.0.0.1:" + std::to_string(tlsPort), certificates.client("alice")));
  for (int i = 0; i < 100'000 && agent.figures().closedForFlood == closed; ++i) {
    grpc::ClientContext context;
    const auto stream = cancels->Chat(&context);
    context.TryCancel();
    stream->Finish();
  }
  EXPECT_EQ(agent.figures().closedForFlood, ++closed) << "behind TLS";
  callsAreAnswered(1000);
  agent.stop();
  EXPECT_EQ(agent.figures().closedForFlood, closed);
  EXPECT_GE(trace.count("their clients flood"), 1U);
}

TEST(Listener, ShutsOutWhoHasFlooded) {
  int port = 0;
  Agent agent([&](Listener& listener, grpc::ServerBuilder& builder) {
    builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, 100);
    listener.floodLimitsAre({.abandonedCalls = 400, .shutOut = std::chrono::hours(1)});
    port = listener.add("[::]:0", grpc::InsecureServerCredentials());
  });
  const auto ipv4 = "127.0.0.1:" + std::to_string(port), ipv6 = "[::1]:" + std::to_string(port);
  const auto before = connected(ipv4, grpc::InsecureChannelCredentials());
  RawClient floods;
  ASSERT_TRUE(floods.connectTo(ipv4));
  std::uint32_t sent = 1;
  for (std::string more = kHello; sent < 10'000'000 && floods.send(more); sent += 200)
    more = resetCalls(sent);
  RawClient again;
  ASSERT_TRUE(again.connectTo(ipv4));
  EXPECT_FALSE(again.isServed());
  EXPECT_EQ(agent.figures().refusedForFlood, 1U);
  for (const auto& other : {before, connected(ipv6, grpc::InsecureChannelCredentials())}) {
    grpc::ClientContext context;
    Text reply;
    EXPECT_TRUE(Probe::NewStub(other)->Echo(&context, Text(), &reply).ok());
  }
}

// ------------------------------------------------------------------------------------------------
// Local callers

struct User {
  uid_t uid;
  gid_t gid;
  std::vector<gid_t> groups;
};

// A connection that `user` makes, or this process's own without one, from a socket that is bound to
// `name` unless that is empty. A thread of its own becomes the user, which libc hides: it would
// change all threads.
int connectedAs(const std::optional<User>& user, const std::string& path, const std::string& name) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::thread([&] {
    if (user) {
      if (syscall(SYS_setgroups, user->groups.size(), user->groups.data()) != 0 ||
          syscall(SYS_setresgid, user->gid, user->gid, user->gid) != 0 ||
          syscall(SYS_setresuid, user->uid, user->uid, user->uid) != 0)
        std::abort();
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!name.empty()) {
      std::copy(name.begin(), name.end(), address.sun_path);
      bind(fd, reinterpret_cast<const sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size()));
    }
    std::memset(address.sun_path, 0, sizeof address.sun_path);
    std::strcpy(address.sun_path, path.c_str());
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) std::abort();
  }).join();
  fcntl(fd, F_SETFL, O_NONBLOCK);
  return fd;
}

// Who the agent takes for the caller of a connection, which ends with this.
std::string whoIs(int connection) {
  const auto stub = Probe::NewStub(grpc::CreateInsecureChannelFromFd("agent", connection));
  grpc::ClientContext context;
  context.AddMetadata("username", "root");
  context.AddMetadata("local-uid", "0");
  Text request, reply;
  request.set_text("who?");
  const auto status = stub->Echo(&context, request, &reply);
  return status.ok() ? reply.text() : status.error_message();
}

TEST(Listener, HasTheKernelProveLocalCallersWhateverTheyClaim) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
  const Directory directory;
  std::filesystem::permissions(directory.path(""), std::filesystem::perms::all);
  Agent agent([&](Listener& listener, auto&) {
    const auto mask = umask(0);
    listener.addLocal(directory.socket("agent"), nullptr, 1);
    umask(mask);
  });
  const std::string pid = " local-pid=" + std::to_string(getpid());
  const struct {
    std::optional<User> user;
    std::string boundTo, who;
  } cases[] = {
      {{}, "", ""},
      {User{65534, 65534, {}}, "",
       "local-gid=65534 local-group=nogroup" + pid +
           " local-uid=65534 local-user=nobody peer-authenticated=nobody peer-proof=kernel"},
      {User{54321, 65534, {54322, 0, 65534}}, "",
       "local-gid=65534 local-gid=0 local-gid=54322 local-group=nogroup local-group=root" + pid +
           " local-uid=54321 peer-authenticated=uid:54321 peer-proof=kernel"},
      {User{65534, 65534, {}}, directory.path("user root, local-uid 0"),
       "local-gid=65534 local-group=nogroup" + pid +
           " local-uid=65534 local-user=nobody peer-authenticated=nobody peer-proof=kernel"},
      {User{65534, 65534, {}}, std::string("\0peer-authenticated=root", 24),
       "local-gid=65534 local-group=nogroup" + pid +
           " local-uid=65534 local-user=nobody peer-authenticated=nobody peer-proof=kernel"},
  };
  for (int round = 0; round < 3; ++round) {  // of one place for a connection, used by all in turn
    for (const auto& c : cases) {
      SCOPED_TRACE(c.boundTo);
      std::string who;
      while (who.find("peer-proof") == who.npos) {  // the one before may not have gone
        std::filesystem::remove(c.boundTo);
        who = whoIs(connectedAs(c.user, directory.path("agent"), c.boundTo));
      }
      if (c.user) {
        EXPECT_EQ(who, c.who);
      } else {
        EXPECT_THAT(who, HasSubstr(" local-uid=0 local-user=root peer-authenticated=root "));
      }
    }
  }
}

TEST(Listener, TakesNoMoreLocalCallersThanItWasTold) {
  const Directory directory;
  Agent agent([&](Listener& listener, auto&) {
    EXPECT_THROW(listener.addLocal("127.0.0.1:0"), std::invalid_argument);
    listener.addLocal(directory.socket("agent"), nullptr, 3);
  });
  std::vector<RawClient> clients(5);
  for (std::size_t i = 0; i < clients.size(); ++i) {
    ASSERT_TRUE(clients[i].connectTo(directory.socket("agent")));
    EXPECT_EQ(clients[i].isServed(), i < 3);
  }
  EXPECT_EQ(agent.figures(), (Listener::Figures{.accepted = 3, .refusedForCallers = 2}));
  clients.clear();
  while (whoIs(connectedAs({}, directory.path("agent"), "")).find("kernel") == std::string::npos) {
  }
}

// ------------------------------------------------------------------------------------------------
// Descriptors

// From here to its end, the process has only so many descriptors more.
class FewDescriptors {
 public:
  explicit FewDescriptors(int more) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const int lowestFree = dup(0);
    close(lowestFree);
    limit_ = lowestFree + more;
    const rlimit few{static_cast<rlim_t>(limit_), before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
  }
  int limit() const { return limit_; }
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_;
  int limit_ = 0;
};

// Takes every descriptor that is left.
class AllDescriptors {
 public:
  AllDescriptors() {
    for (int fd = dup(0); fd >= 0; fd = dup(0))
      taken_.push_back(fd);
  }
  ~AllDescriptors() {
    for (const int fd : taken_)
      close(fd);
  }

 private:
  std::vector<int> taken_;
};

// Sockets that count for nobody's limit.
std::vector<RawClient> clientsUpThere(int count) {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  std::vector<RawClient> clients;
  for (int i = 0; i < count; ++i) {
    clients.emplace_back(static_cast<int>(limit.rlim_cur) / 2);
    clients.back().open();
  }
  return clients;
}

std::size_t servedOf(std::vector<RawClient>& clients) {
  return static_cast<std::size_t>(std::count_if(clients.begin(), clients.end(),
                                                [](auto& client) { return client.isServed(); }));
}

bool isServed(const std::string& address) {
  RawClient client;
  return client.connectTo(address) && client.isServed();
}

constexpr char kAgentsFile[] = "/memfd:the agent's (deleted)";

// Opens that file in place of what has the number now.
void openAs(int fd) {
  const int file = memfd_create("the agent's", 0);
  dup2(file, fd);
  close(file);
}

std::string pathOf(int fd) {
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
}

TEST(Listener, LeavesTheLastDescriptorsToTheAgentAndServesAgainAfterwards) {
  const Capture trace(Kiv::traceLogger());
  auto clients = clientsUpThere(200);
  int port = 0;
  Agent agent([&](Listener& listener, auto&) {
    port = listener.add("127.0.0.1:0", grpc::InsecureServerCredentials());
  });
  const std::string address = "127.0.0.1:" + std::to_string(port);
  const auto stub = Probe::NewStub(connected(address));
  const FewDescriptors few(64);
  for (auto& client : clients)
    ASSERT_TRUE(client.connectTo(address));
  const auto served = servedOf(clients);
  EXPECT_GT(served, 20U);
  EXPECT_LT(served, 64U - 15U);
  EXPECT_EQ(callEcho(*stub, ""), grpc::OK);
  clients.clear();
  while (!isServed(address)) {  // gRPC closes them in its own time
  }
  EXPECT_EQ(agent.figures().accepted, 1 + served + 1);
  EXPECT_GE(agent.figures().refusedForDescriptors, 200 - served);
  EXPECT_GE(trace.count("Listener/0: Refused connections: 1; the process is short of file"), 1U);
}

TEST(Listener, RefusesWithItsReserveWhenTheAgentHasTakenEveryDescriptor) {
  auto clients = clientsUpThere(200);
  const FewDescriptors few(64);
  int port = 0;
  Agent agent([&](Listener& listener, auto&) {
    port = listener.add("127.0.0.1:0", grpc::InsecureServerCredentials());
  });
  const std::string address = "127.0.0.1:" + std::to_string(port);
  {
    const AllDescriptors all;
    for (auto& client : clients)
      ASSERT_TRUE(client.connectTo(address));
    EXPECT_EQ(servedOf(clients), 0U);
  }
  EXPECT_EQ(agent.figures().refusedForDescriptors, 200U);
  while (!isServed(address)) {  // it may still be refusing
  }
}

// A daemon that closes what it believes to have inherited, and then opens files of its own.
TEST(Listener, LeavesAFileAloneThatHasGotTheNumberOfItsReserve) {
  const Capture trace(Kiv::traceLogger());
  auto clients = clientsUpThere(1);
  const FewDescriptors few(64);
  int port = 0;
  Agent agent([&](Listener& listener, auto&) {
    port = listener.add("127.0.0.1:0", grpc::InsecureServerCredentials());
  });
  const int reserve = few.limit() - 1;
  ASSERT_THAT(pathOf(reserve), testing::StartsWith("socket:"));
  openAs(reserve);
  {
    const AllDescriptors all;
    ASSERT_TRUE(clients[0].connectTo("127.0.0.1:" + std::to_string(port)));
    waitUntil(
        [&] {
          return trace.count("Listener/0: No file descriptor is left, not even to refuse with") !=
                 0;
        },
        "the shortage is traced");
  }
  EXPECT_TRUE(clients[0].isServed());
  agent.stop();
  EXPECT_EQ(pathOf(reserve), kAgentsFile);
  close(reserve);
}

TEST(Listener, GivesASocketUpThatSomebodyElseHasClosed) {
  const Capture trace(Kiv::traceLogger());
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(listen(fd, 10), 0);
  int port = 0;
  {
    Agent agent([&](Listener& listener, auto&) {
      listener.addInherited(fd, grpc::InsecureServerCredentials());
      port = listener.add("127.0.0.1:0", grpc::InsecureServerCredentials());
      openAs(fd);
    });
    EXPECT_TRUE(isServed("127.0.0.1:" + std::to_string(port)));
  }
  EXPECT_EQ(pathOf(fd), kAgentsFile);
  close(fd);
  EXPECT_EQ(trace.count("Listener/0: A listening socket is gone: Bad file descriptor"), 1U);
}

// ------------------------------------------------------------------------------------------------
// The end

TEST(Listener, TakesNobodyOnceTheServerIsDrainedOrStopped) {
  const Directory directory;
  enum class End { stop, stopWhileBusy, drain };
  for (const auto end : {End::stop, End::stopWhileBusy, End::drain}) {
    int port = 0;
    Agent agent([&](Listener& listener, auto&) {
      port = listener.add("127.0.0.1:0", grpc::InsecureServerCredentials());
      listener.add(directory.socket("agent"), grpc::InsecureServerCredentials());
    });
    const std::string address = "127.0.0.1:" + std::to_string(port);
    const auto stub = Probe::NewStub(connected(address));
    grpc::ClientContext context;
    const auto chat = stub->Chat(&context);
    Text text;
    ASSERT_TRUE(chat->Write(text) && chat->Read(&text));
    agent.heldUpIs(end == End::stopWhileBusy);
    if (end == End::drain) {
      agent.server().stop(std::chrono::hours(1));
    } else {
      agent.server().stop();
    }
    for (const auto& gone : {address, directory.socket("agent")}) {
      for (bool refused = false; !refused;) {
        RawClient next;
        refused = !next.connectTo(gone);
      }
    }
    agent.heldUpIs(false);
    EXPECT_FALSE(std::filesystem::exists(directory.path("agent")));
    const bool goesOn = chat->Write(text) && chat->Read(&text);
    chat->WritesDone();
    EXPECT_TRUE((goesOn && chat->Finish().ok()) || end != End::drain);
    agent.join();
  }
}

// A client learns of a drain between two calls: its next one goes elsewhere.
TEST(Listener, FailsNoCallThatIsOnItsWayWhenTheServerIsDrained) {
  for (int round = 0; round < 3; ++round) {
    int port = 0;
    Agent agent([&](Listener& listener, auto&) {
      port = listener.add("127.0.0.1:0", grpc::InsecureServerCredentials());
    });
    std::atomic<int> answered = 0;
    std::vector<std::future<grpc::StatusCode>> ends;
    for (int client = 0; client < 4; ++client) {
      ends.push_back(std::async(std::launch::async, [&] {
        const auto stub = Probe::NewStub(connected("127.0.0.1:" + std::to_string(port)));
        auto status = grpc::StatusCode::OK;
        for (; status == grpc::StatusCode::OK; ++answered) {
          grpc::ClientContext context;
          Text reply;
          status = stub->Echo(&context, Text(), &reply).error_code();
        }
        return status;
      }));
    }
    waitUntil([&] { return answered > 100; }, "the clients are at it");
    agent.server().stop(std::chrono::hours(1));
    for (auto& end : ends)
      EXPECT_EQ(end.get(), grpc::StatusCode::UNAVAILABLE) << "nobody listens";
    agent.join();
  }
}

// On a Unix socket no timeout of TCP's comes to help.
TEST(Listener, LetsNoPeerThatDoesNotReadHoldUpAStop) {
  using namespace std::string_literals;
  const Directory directory;
  Agent agent([&](Listener& listener, auto&) {
    listener.add(directory.socket("agent"), grpc::InsecureServerCredentials());
  });
  const std::string settings = "\0\0\0\4\0\0\0\0\0"s;  // each of which is acknowledged
  std::string many = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
  for (int i = 0; i < 500'000; ++i)
    many += settings;
  RawClient client;
  ASSERT_TRUE(client.connectTo(directory.socket("agent")));
  const timeval patience{0, 300'000};
  setsockopt(client.fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  EXPECT_FALSE(client.send(many)) << "the server reads on, though it can't answer";
  agent.server().stopTimeoutIs(std::chrono::seconds(20));  // aborts the process
  agent.stop();
}

TEST(Listener, MayBeStoppedBeforeItStarts) {
  grpc::ServerBuilder builder;
  VornSdkRpc::ServerProperties properties;
  const auto listener = std::make_shared<Listener>(builder, properties);
  const int port = listener->add("127.0.0.1:0", grpc::InsecureServerCredentials());
  VornSdkRpc::GrpcServer server(builder, {}, properties);
  server.listenerIs(listener);
  listener->stop();
  server.stop();
  server.run();
  RawClient late;
  EXPECT_FALSE(late.connectTo("127.0.0.1:" + std::to_string(port)));
  EXPECT_EQ(listener->figures(), Listener::Figures());
}

}  // namespace
}  // namespace test
