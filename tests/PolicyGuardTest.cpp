#include <Kiv/Trace.h>
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/InsecureCredentials.h>
#include <VornSdkRpc/PolicyGuard.h>
#include <VornSdkRpc/Rpc.h>
#include <gmock/gmock.h>
#include <grpcpp/ext/channelz_service_plugin.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>
#include <grpcpp/health_check_service_interface.h>
#include <vorn/error.h>

#include <array>
#include <chrono>
#include <fstream>
#include <mutex>
#include <set>
#include <system_error>

#include "tests/Capture.h"
#include "tests/Certificates.h"
#include "tests/ProbeService.h"
#include "tests/Thrown.h"
#include "tests/WaitUntil.h"

namespace VornSdkRpc {
namespace {

using test::Certificates;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using namespace std::chrono_literals;

constexpr char kEcho[] = "/test.Probe/Echo";
constexpr char kReflect[] = "/test.Mirror/Reflect";
constexpr char kHealth[] = "/grpc.health.v1.Health/Check";
constexpr char kReflection[] = "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo";
constexpr char kChannelz[] = "/grpc.channelz.v1.Channelz/GetServers";
constexpr char kUnknown[] = "/no.such.Service/Method";

constexpr char kPolicy[] = R"({
  "name": "test",
  "deny_rules": [
    {"name": "no secrets", "request": {"headers": [{"key": "secret", "values": ["*"]}]}}
  ],
  "allow_rules": [
    {"name": "operators", "source": {"principals": ["group:ops"]}},
    {"name": "proven", "source": {"principals": ["*"]},
     "request": {"paths": ["/test.Mirror/*", "/grpc.channelz.*", "/no.such.*"]}},
    {"name": "anonymous over TLS", "source": {"principals": [""]},
     "request": {"paths": ["/grpc.reflection.*"]}},
    {"name": "health", "request": {"paths": ["/grpc.health.v1.Health/*"]}}
  ]
})";

// A Mirror on the kit.
struct MirrorService : rpc::Service<test::Mirror> {
  MirrorService() : Service("Mirror") {
    method(&Async::RequestReflect, [](const test::Text& text, test::Text& reply) {
      reply = text;
      return grpc::Status::OK;
    });
  }
};

// Stands for one that has the kernel's word: every caller is alice, of the group ops.
struct KernelsWord : grpc::AuthMetadataProcessor {
  bool IsBlocking() const override { return false; }
  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                       OutputMetadata*, OutputMetadata*) override {
    if (metadata.count("stranger") != 0) return {grpc::StatusCode::UNAUTHENTICATED, "a stranger"};
    const std::lock_guard lock(mutex);
    if (!connection->FindPropertyValues("local-user").empty()) return grpc::Status::OK;
    for (const auto& [name, value] : {std::pair{"local-uid", "1000"},
                                      {"local-user", "alice"},
                                      {"local-group", "users"},
                                      {"local-group", "ops"}})
      connection->AddProperty(name, value);
    return grpc::Status::OK;
  }
  std::mutex mutex;
};

// A server of hand-written, kit and gRPC's own services behind one guard, at an address without
// credentials, one whose callers the kernel proves, and one with TLS.
class GuardedServer {
 public:
  explicit GuardedServer(const std::shared_ptr<PolicyGuard>& guard)
      : running_({probe, std::make_shared<MirrorService>()}, [&](grpc::ServerBuilder& builder) {
          builder.AddListeningPort("127.0.0.1:0", insecureServerCredentials(policyProcessor(guard)),
                                   &plainPort_);
          builder.AddListeningPort(
              "unix:" + certificates_.path("socket"),
              insecureServerCredentials(policyProcessor(guard, std::make_shared<KernelsWord>())));
          builder.AddListeningPort("127.0.0.1:0", tls(guard), &tlsPort_);
        }) {}

  // Clients, each with a connection of its own.
  std::shared_ptr<grpc::Channel> stranger() const {
    return test::connected("127.0.0.1:" + std::to_string(plainPort_));
  }
  std::shared_ptr<grpc::Channel> alice() const {
    return test::connected("unix:" + certificates_.path("socket"));
  }
  std::shared_ptr<grpc::Channel> overTls(const std::string& certificate) const {
    return test::connected("127.0.0.1:" + std::to_string(tlsPort_),
                           certificates_.client(certificate));
  }

  const std::shared_ptr<test::ProbeService> probe = std::make_shared<test::ProbeService>();

 private:
  std::shared_ptr<grpc::ServerCredentials> tls(const std::shared_ptr<PolicyGuard>& guard) const {
    certificates_.issue("bob", "/CN=bob");
    grpc::SslServerCredentialsOptions options(GRPC_SSL_REQUEST_CLIENT_CERTIFICATE_AND_VERIFY);
    options.pem_root_certs = certificates_.read("ca.pem");
    options.pem_key_cert_pairs.push_back(
        {certificates_.read("server.key"), certificates_.read("server.pem")});
    auto credentials = grpc::SslServerCredentials(options);
    credentials->SetAuthMetadataProcessor(policyProcessor(guard));
    return credentials;
  }

  const Certificates certificates_;
  int plainPort_ = 0, tlsPort_ = 0;
  test::RunningServer running_;
};

bool isDenied(const std::shared_ptr<grpc::Channel>& channel, const std::string& method) {
  return test::callUnknownMethod(channel, method) == grpc::StatusCode::PERMISSION_DENIED;
}

// What a guard has told of denials: "METHOD: RULE", with "(dry)" where it was not enforced.
class Denials {
 public:
  PolicyOptions options(bool dryRun = false) {
    return {.dryRun = dryRun, .denied = [this](const PolicyDenial& denial) {
              const std::lock_guard lock(mutex_);
              told_.push_back(std::string(denial.method) + ": " + std::string(denial.rule) +
                              (denial.enforced ? "" : "(dry)"));
            }};
  }
  std::vector<std::string> told() {
    const std::lock_guard lock(mutex_);
    return told_;
  }

 private:
  std::vector<std::string> told_;
  std::mutex mutex_;
};

class PolicyGuardTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    grpc::EnableDefaultHealthCheckService(true);
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();
    grpc::channelz::experimental::InitChannelzService();
  }
};

TEST_F(PolicyGuardTest, HoldsForEveryServiceAtEveryAddress) {
  const auto guard = std::make_shared<PolicyGuard>(Policy::parse(kPolicy));
  const GuardedServer server(guard);
  const std::shared_ptr<grpc::Channel> callers[] = {server.stranger(), server.alice(),
                                                    server.overTls("bob"), server.overTls("")};
  const std::pair<const char*, std::array<bool, 4>> allowed[] = {
      {kEcho, {false, true, false, false}},    {kReflect, {false, true, true, false}},
      {kHealth, {true, true, true, true}},     {kReflection, {false, true, false, true}},
      {kChannelz, {false, true, true, false}}, {kUnknown, {false, true, true, false}},
  };
  for (const auto& [method, expected] : allowed) {
    for (std::size_t caller = 0; caller < expected.size(); ++caller)
      EXPECT_EQ(!isDenied(callers[caller], method), expected[caller]) << method << " by " << caller;
  }
  const auto state = guard->state();
  std::vector<std::pair<std::string, std::uint64_t>> hits;
  for (const auto& rule : state.rules)
    hits.emplace_back(rule.name, rule.hits);
  EXPECT_THAT(hits, ElementsAre(Pair("no secrets", 0), Pair("operators", 6), Pair("proven", 3),
                                Pair("anonymous over TLS", 1), Pair("health", 3)));
  EXPECT_EQ(state.unmatched, 11U);
}

TEST_F(PolicyGuardTest, ADeniedCallReachesNoHandlerAndIsToldWithItsRule) {
  Denials denials;
  const auto guard = std::make_shared<PolicyGuard>(Policy::parse(kPolicy), denials.options());
  const GuardedServer server(guard);
  const int made = server.probe->made;
  const auto stub = test::Probe::NewStub(server.alice());
  const auto status = [&](const char* header) {
    grpc::ClientContext context;
    context.AddMetadata(header, "1");
    test::Text text;
    return stub->Echo(&context, text, &text);
  };
  const auto denied = status("secret");
  EXPECT_EQ(denied.error_code(), grpc::StatusCode::PERMISSION_DENIED);
  EXPECT_EQ(denied.error_message(), "the policy does not allow this call");
  EXPECT_TRUE(isDenied(server.stranger(), kEcho));
  EXPECT_EQ(status("stranger").error_code(), grpc::StatusCode::UNAUTHENTICATED);
  EXPECT_EQ(server.probe->made, made);
  EXPECT_TRUE(status("harmless").ok());
  EXPECT_THAT(denials.told(), ElementsAre("/test.Probe/Echo: no secrets", "/test.Probe/Echo: "));
}

TEST_F(PolicyGuardTest, ADryRunOnlyTells) {
  Denials denials;
  const auto guard = std::make_shared<PolicyGuard>(Policy::parse(kPolicy), denials.options(true));
  const GuardedServer server(guard);
  EXPECT_EQ(test::callEcho(*test::Probe::NewStub(server.stranger()), ""), grpc::StatusCode::OK);
  EXPECT_THAT(denials.told(), ElementsAre("/test.Probe/Echo: (dry)"));
  EXPECT_EQ(guard->state().unmatched, 1U);
}

TEST_F(PolicyGuardTest, WhoeverFailsToTellADenialDoesNotLetItPass) {
  const auto guard = std::make_shared<PolicyGuard>(
      Policy::parse(kPolicy),
      PolicyOptions{.denied = [](const PolicyDenial&) { throw std::runtime_error("no"); }});
  const GuardedServer server(guard);
  EXPECT_TRUE(isDenied(server.stranger(), kEcho));
}

TEST_F(PolicyGuardTest, ARuleKeepsItsCountWhenThePolicyChanges) {
  const auto guard = std::make_shared<PolicyGuard>(Policy::parse(kPolicy));
  const GuardedServer server(guard);
  const auto alice = server.alice();
  EXPECT_FALSE(isDenied(alice, kReflect));
  guard->policyIs(Policy::parse(R"({"name": "next",
    "deny_rules": [{"name": "operators", "source": {"principals": ["group:ops"]}}],
    "allow_rules": [{"name": "new"}, {"name": "operators"}]})"));
  EXPECT_TRUE(isDenied(alice, kReflect));  // on a connection that was there before
  const auto state = guard->state();
  EXPECT_EQ(state.name, "next");
  EXPECT_EQ(state.generation, 2U);
  std::vector<std::uint64_t> hits;
  for (const auto& rule : state.rules)
    hits.push_back(rule.hits);
  EXPECT_THAT(hits, ElementsAre(1, 0, 1));
}

TEST_F(PolicyGuardTest, WhoeverRecordsADenialLearnsItsRuleAndTheClientDoesNot) {
  struct Recorder : grpc::AuthMetadataProcessor {
    explicit Recorder(std::shared_ptr<PolicyGuard> guard) : inner(policyProcessor(guard)) {}
    bool IsBlocking() const override { return false; }
    grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                         OutputMetadata* consumed, OutputMetadata* response) override {
      const auto status = inner->Process(metadata, connection, consumed, response);
      const std::lock_guard lock(mutex);
      details.push_back(status.error_details());
      return status;
    }
    const std::shared_ptr<grpc::AuthMetadataProcessor> inner;
    std::mutex mutex;
    std::vector<std::string> details;
  };
  const auto recorder = std::make_shared<Recorder>(
      std::make_shared<PolicyGuard>(Policy::parse(R"({"name": "p", "allow_rules": [],
        "deny_rules": [{"name": "d", "request": {"paths": ["/test.Probe/Echo"]}}]})")));
  int port = 0;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", insecureServerCredentials(recorder), &port);
  const auto server = builder.BuildAndStart();
  const auto stub = test::Probe::NewStub(test::connected("127.0.0.1:" + std::to_string(port)));
  for (const auto& method : {"Echo", "Chat"}) {
    grpc::ClientContext context;
    test::Text text;
    const auto status = method == std::string("Echo") ? stub->Echo(&context, text, &text)
                                                      : stub->Chat(&context)->Finish();
    EXPECT_EQ(status.error_message(), "the policy does not allow this call");
    EXPECT_EQ(status.error_details(), "");
  }
  const std::lock_guard lock(recorder->mutex);
  EXPECT_THAT(recorder->details, ElementsAre("policy p, rule d", "policy p, no rule allows it"));
}

TEST_F(PolicyGuardTest, AProcessorThatBlocksIsRefused) {
  struct Blocking : KernelsWord {
    bool IsBlocking() const override { return true; }
  };
  EXPECT_THROW(insecureServerCredentials(std::make_shared<Blocking>()), std::invalid_argument);
}

// ------------------------------------------------------------------------------------------------
// Files

class PolicyFileTest : public testing::Test {
 protected:
  ~PolicyFileTest() override { std::remove(path_.c_str()); }

  void write(const std::string& text) const { std::ofstream(path_) << text; }
  static std::string named(const std::string& name) {
    return R"({"name": ")" + name + R"(", "allow_rules": []})";
  }

  const std::string path_ = testing::TempDir() + "policy" + std::to_string(getpid()) + ".json";
};

TEST_F(PolicyFileTest, TheFirstPolicyMustBeGood) {
  EXPECT_THROW(PolicyFile{path_}, std::system_error);
  EXPECT_THROW(PolicyFile{testing::TempDir()}, std::system_error);
  write(R"({"name": "p", "allow_rules": [], "else": 1})");
  EXPECT_EQ(test::thrown<vorn::configuration_error>([&] { PolicyFile{path_}; }),
            path_ + ": else: unknown field");
}

TEST_F(PolicyFileTest, ABrokenFileKeepsTheLastGoodPolicyAndSaysSoOnce) {
  const test::Capture trace(Kiv::traceLogger());
  write(named("first"));
  PolicyFile file(path_, {}, 0ms);
  const auto now = [&] { return file.guard()->policy().name(); };

  EXPECT_TRUE(file.reload());
  EXPECT_EQ(file.guard()->state().generation, 1U);  // nothing has changed

  write(named("second").substr(0, 20));
  EXPECT_FALSE(file.reload());
  EXPECT_FALSE(file.reload());
  EXPECT_EQ(now(), "first");
  EXPECT_THAT(file.error(), HasSubstr(path_ + ": the policy: is no JSON object"));
  EXPECT_EQ(trace.count("the policy stays as it was: " + path_), 1U);

  std::remove(path_.c_str());
  EXPECT_FALSE(file.reload());
  EXPECT_EQ(now(), "first");
  EXPECT_THAT(file.error(), HasSubstr("No such file"));

  write(named("second"));
  EXPECT_TRUE(file.reload());
  EXPECT_EQ(now(), "second");
  EXPECT_EQ(file.error(), "");
  EXPECT_EQ(trace.count("policy second of " + path_ + " is in force"), 1U);
}

TEST_F(PolicyFileTest, AChangeIsSeenWithoutBeingAsked) {
  write(named("first"));
  const PolicyFile file(path_, {}, 1ms);
  write(named("second"));
  test::waitUntil([&] { return file.guard()->policy().name() == "second"; },
                  "the second policy is in force");
}

}  // namespace
}  // namespace VornSdkRpc
