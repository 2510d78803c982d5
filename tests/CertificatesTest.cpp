#include <Kiv/Trace.h>
#include <VornSdkRpc/Certificates.h>
#include <gmock/gmock.h>
#include <vorn/error.h>

#include <chrono>
#include <system_error>
#include <thread>

#include "tests/Accounted.h"
#include "tests/Capture.h"
#include "tests/Certificates.h"
#include "tests/WaitUntil.h"

using testing::HasSubstr;
using VornSdkRpc::CertificateOptions;
using VornSdkRpc::Certificates;
using namespace std::chrono_literals;

namespace {

constexpr CertificateOptions kByHand{.interval = 0ms};
constexpr long kDay = 24 * 3600;

class CertificatesTest : public testing::Test {
 protected:
  CertificatesTest() {
    use("server");
    files.write("roots", files.read("ca.pem"));
    files.issue("client", "/CN=client");
    files.issue("rogue", "/CN=rogue");
    files.revoke("list", "rogue");
  }

  // Copies a certificate and its key to where the server reads them.
  void use(const std::string& name) const {
    files.write("cert", files.read(name + ".pem"));
    files.write("key", files.read(name + ".key"));
  }

  VornSdkRpc::CertificateFiles paths() const {
    return {files.path("cert"), files.path("key"), files.path("roots"), files.path("list")};
  }

  // What is said of the present files; empty when they are taken.
  std::string refusal() const try {
    const Certificates certificates(paths(), kByHand);
    return "";
  } catch (const std::exception& error) {
    return error.what();
  }

  const test::Certificates files;
};

// Whether a client of the server `ca` gets a call through.
bool serves(const test::EchoServer& server, const test::Certificates& files,
            const std::string& client, const std::string& authority = "ca") {
  grpc::SslCredentialsOptions tls;
  tls.pem_root_certs = files.read(authority + ".pem");
  if (!client.empty()) {
    tls.pem_cert_chain = files.read(client + ".pem");
    tls.pem_private_key = files.read(client + ".key");
  }
  return test::callEcho(*server.stub(grpc::SslCredentials(tls)), "0") == grpc::OK;
}

TEST_F(CertificatesTest, ASetIsRefusedWithItsFileAndTheReason) {
  const struct {
    std::string refusal;
    std::function<void()> change;
  } cases[] = {
      {"", [] {}},
      {"cert: No such file", [this] { std::remove(files.path("cert").c_str()); }},
      {"key: No such file", [this] { std::remove(files.path("key").c_str()); }},
      {"roots: No such file", [this] { std::remove(files.path("roots").c_str()); }},
      {"list: No such file", [this] { std::remove(files.path("list").c_str()); }},
      {"cert: holds no certificate", [this] { files.write("cert", ""); }},
      {"key: holds no private key", [this] { files.write("key", "x"); }},
      {"key: is not the key of the certificate in",
       [this] { files.write("key", files.read("client.key")); }},
      {"cert: CN=server has expired",
       [this] {
         files.redate("server", -kDay, -60);
         use("server");
       }},
      {"cert: CN=server is not valid yet",
       [this] {
         files.redate("server", 60, kDay);
         use("server");
       }},
      {"cert: cannot be used: ee key too small",
       [this] {
         files.make("server", "/CN=server", "", "rsa:1024");
         use("server");
       }},
      {"cert: CN=server is not meant for a server",
       [this] {
         files.make("server", "/CN=server", " -addext extendedKeyUsage=clientAuth");
         use("server");
       }},
      {"cert: CN=server is not signed by the next certificate",
       [this] { files.write("cert", files.read("server.pem") + files.read("client.pem")); }},
      {"", [this] { files.write("cert", files.read("server.pem") + files.read("ca.pem")); }},
      {"cert: CN=ca has expired",
       [this] {
         files.redate("ca", -kDay, -60);
         files.write("cert", files.read("server.pem") + files.read("ca.pem"));
       }},
      {"roots: holds no authority that is valid now",
       [this] {
         files.redate("ca", -kDay, -60);
         files.write("roots", files.read("ca.pem"));
       }},
      {"",
       [this] {
         files.redate("client", -kDay, -60);
         files.write("roots", files.read("client.pem") + files.read("ca.pem"));
       }},
      {"roots: holds no certificate", [this] { files.write("roots", files.read("ca.key")); }},
      {"list: holds no list of revocations", [this] { files.write("list", "x"); }},
      {"list: a list of revocations has expired", [this] { files.revoke("list", "rogue", -60); }},
      {"list: a list of revocations is not signed by CN=ca",
       [this] { files.revoke("list", "rogue", 3600, "client"); }},
  };
  const auto good = [this] {
    files.make("ca", "/CN=ca", "");
    files.issue("server", "/CN=server", "IP:127.0.0.1");
    files.issue("client", "/CN=client");
    files.write("roots", files.read("ca.pem"));
    files.revoke("list", "rogue");
    use("server");
  };
  for (const auto& [expected, change] : cases) {
    good();
    change();
    if (expected.empty())
      EXPECT_EQ(refusal(), "");
    else
      EXPECT_THAT(refusal(), HasSubstr(expected));
  }
}

TEST_F(CertificatesTest, AFileThatIsCutAnywhereIsNotTaken) {
  Certificates certificates(paths(), kByHand);
  const auto before = certificates.state();
  files.issue("next", "/CN=next", "IP:127.0.0.1");
  const auto cert = files.read("next.pem"), key = files.read("next.key");
  constexpr std::size_t kStep = 7;  // all places of a line, in time
  const auto end = [](const std::string& text) { return text.rfind("-----") + 5; };
  files.write("key", key);
  for (std::size_t size = 0; size < end(cert); size += kStep) {
    files.write("cert", cert.substr(0, size));
    ASSERT_FALSE(certificates.reload()) << size;
  }
  files.write("cert", cert);
  for (std::size_t size = 0; size < end(key); size += kStep) {
    files.write("key", key.substr(0, size));
    ASSERT_FALSE(certificates.reload()) << size;
  }
  EXPECT_EQ(certificates.state().serial, before.serial);
  files.write("key", key);
  EXPECT_TRUE(certificates.reload());
  EXPECT_EQ(certificates.state().subject, "CN=next");
  EXPECT_EQ(certificates.state().generation, 2U);
}

// The next server certificate is another authority's, so that a client can tell which it got.
TEST_F(CertificatesTest, TheServerGoesOnWithTheLastGoodSetAndTakesTheNextOne) {
  const test::Capture trace(Kiv::traceLogger());
  const Certificates certificates(paths(), {.interval = 1ms});
  test::EchoServer server(certificates.credentials());
  EXPECT_TRUE(serves(server, files, "client"));
  EXPECT_FALSE(serves(server, files, "rogue"));  // revoked
  EXPECT_FALSE(serves(server, files, ""));

  files.write("key", files.read("client.key"));
  test::waitUntil([&] { return !certificates.error().empty(); }, "the broken file is seen");
  EXPECT_TRUE(serves(server, files, "client"));

  files.make("ca2", "/CN=ca2", "");
  files.make("next", "/CN=next",
             " -CA " + files.path("ca2.pem") + " -CAkey " + files.path("ca2.key") +
                 " -addext subjectAltName=IP:127.0.0.1");
  use("next");
  test::waitUntil([&] { return serves(server, files, "client", "ca2"); },
                  "the new authority is in use");
  EXPECT_EQ(certificates.error(), "");
  EXPECT_GE(trace.count("the certificates stay as they were: " + files.path("key")), 1U);
  EXPECT_EQ(trace.count("cert is in use: CN=next"), 1U);

  // Another authority for the clients.
  files.write("roots", files.read("ca2.pem"));
  test::waitUntil([&] { return !serves(server, files, "client", "ca2"); }, "the authority is gone");
  files.make("client2", "/CN=client2",
             " -CA " + files.path("ca2.pem") + " -CAkey " + files.path("ca2.key"));
  EXPECT_TRUE(serves(server, files, "client2", "ca2"));
}

TEST_F(CertificatesTest, WhatExpiresIsReadableAndWarnedOf) {
  const test::Capture trace(Kiv::traceLogger());
  const auto now = std::chrono::system_clock::now();
  files.redate("server", -kDay, 10 * kDay);
  use("server");
  const Certificates certificates(paths(), kByHand);
  const auto state = certificates.state();
  EXPECT_NEAR(std::chrono::duration<double>(state.expires - now).count(), 10.0 * kDay, 60);
  EXPECT_NEAR(std::chrono::duration<double>(state.authoritiesExpire - now).count(), 30.0 * kDay,
              60);
  EXPECT_NEAR(std::chrono::duration<double>(state.revocationsExpire - now).count(), 3600, 60);
  EXPECT_EQ(state.subject, "CN=server");
  EXPECT_EQ(trace.count("/cert expires in 239 hours"), 1U);
  EXPECT_EQ(trace.count("/list expires in 0 hours"), 1U);
  EXPECT_EQ(trace.count("/roots expires"), 0U);
}

// A server whose Tick sends a text and lasts until it is cancelled.
class TickingServer {
 public:
  explicit TickingServer(const Certificates& certificates) {
    std::vector<std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface>> creators;
    creators.push_back(certificates.interceptors());
    builder_.experimental().SetInterceptorCreators(std::move(creators));
    builder_.AddListeningPort("127.0.0.1:0", certificates.credentials(), &port_);
    builder_.RegisterService(&service_);
    server_ = builder_.BuildAndStart();
  }

  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  struct Service : test::Probe::Service {
    grpc::Status Tick(grpc::ServerContext* context, const test::Count*,
                      grpc::ServerWriter<test::Text>* writer) override {
      writer->Write({});
      while (!context->IsCancelled())
        std::this_thread::sleep_for(1ms);
      return grpc::Status::CANCELLED;
    }
  };

  Service service_;
  grpc::ServerBuilder builder_;
  int port_ = 0;
  std::unique_ptr<grpc::Server> server_;
};

// A client with a stream in progress.
class WatchingClient {
 public:
  WatchingClient(const TickingServer& server, std::shared_ptr<grpc::ChannelCredentials> credentials)
      : stub_(test::Probe::NewStub(grpc::CreateChannel(server.address(), credentials))),
        stream_(stub_->Tick(&context_, {})) {
    test::Text text;
    EXPECT_TRUE(stream_->Read(&text));
  }
  ~WatchingClient() { context_.TryCancel(); }

  // The status that the server has ended the stream with.
  grpc::Status end() {
    test::Text text;
    EXPECT_FALSE(stream_->Read(&text));
    return stream_->Finish();
  }

  // Whether the server serves another call over the connection, and does not know the method.
  bool isServed() { return test::callEcho(*stub_, "0") == grpc::UNIMPLEMENTED; }

 private:
  grpc::ClientContext context_;
  std::unique_ptr<test::Probe::Stub> stub_;
  std::unique_ptr<grpc::ClientReader<test::Text>> stream_;
};

TEST_F(CertificatesTest, WhatIsNotAcceptedAnyMoreIsEndedWhenThatIsAskedFor) {
  files.make("ca2", "/CN=ca2", "");
  files.make("other", "/CN=other",
             " -CA " + files.path("ca2.pem") + " -CAkey " + files.path("ca2.key"));
  files.write("roots", files.read("ca.pem") + files.read("ca2.pem"));
  Certificates certificates(paths(), kByHand);
  const TickingServer server(certificates);
  WatchingClient client(server, files.client("client"));
  WatchingClient other(server, files.client("other"));

  EXPECT_EQ(certificates.withdraw(), 0U);
  files.write("roots", files.read("ca.pem"));
  EXPECT_TRUE(certificates.reload());
  EXPECT_TRUE(other.isServed());           // nobody has asked for more
  EXPECT_GE(certificates.withdraw(), 1U);  // a call that has just been answered counts
  EXPECT_EQ(other.end().error_code(), grpc::UNAUTHENTICATED);
  EXPECT_FALSE(other.isServed());
  EXPECT_TRUE(client.isServed());

  files.revoke("list", "client");
  EXPECT_TRUE(certificates.reload());
  EXPECT_GE(certificates.withdraw(), 1U);  // a call that has just been answered counts
  EXPECT_EQ(client.end().error_message(), "the client certificate is no longer accepted");
  EXPECT_FALSE(client.isServed());
}

TEST_F(CertificatesTest, WithoutAuthoritiesNoClientCertificateIsAskedFor) {
  const Certificates certificates({files.path("cert"), files.path("key"), "", ""}, kByHand);
  test::EchoServer server(certificates.credentials());
  EXPECT_TRUE(serves(server, files, ""));
}

}  // namespace
