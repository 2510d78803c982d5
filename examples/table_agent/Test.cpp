// The table agent in both writings, called by the same clients.
#include <VornSdkRpc/Testing.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "examples/table_agent/TableService.h"
#include "examples/table_agent/callback/CallbackTable.h"

namespace table_agent {
namespace {

using VornSdkRpc::testing::call;

// With the kit: no port, and time that is turned by hand.
// [kit]
class Kit {
 public:
  std::unique_ptr<Table::Stub> stub() { return server_.stub<Table>(); }
  void pass(std::chrono::seconds time) { server_.advance(time); }
  void drain() { server_.drain(2s); }
  std::string left() { return server_.finish(); }

 private:
  VornSdkRpc::testing::TestServer server_{{std::make_shared<TableService>()}, {.socket = true}};
};
// [kit]

// With the callback API: a server by hand, and time that passes by itself.
// [callback]
class Callback {
 public:
  Callback() {
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
    builder.RegisterService(&table_);
    server_ = builder.BuildAndStart();
  }
  std::unique_ptr<Table::Stub> stub() {
    return Table::NewStub(grpc::CreateChannel("127.0.0.1:" + std::to_string(port_),
                                              grpc::InsecureChannelCredentials()));
  }
  void pass(std::chrono::seconds) {}
  void drain() {
    table_.drain();
    server_->Shutdown(std::chrono::system_clock::now() + 2s);
    server_->Wait();
  }
  std::string left() {
    drain();
    return "";
  }

 private:
  CallbackTable table_;
  int port_ = 0;
  std::unique_ptr<grpc::Server> server_;
};
// [callback]

entry_msg entryOf(const std::string& key, const std::string& value) {
  entry_msg entry;
  entry.set_key(key);
  entry.set_value(value);
  return entry;
}

key_msg keyOf(const std::string& key) {
  key_msg message;
  message.set_key(key);
  return message;
}

template <typename Agent>
class TableAgent : public testing::Test {
 protected:
  grpc::StatusCode create(const std::string& key, const std::string& value) {
    return call(*stub, &Table::Stub::Create, entryOf(key, value)).status.error_code();
  }
  grpc::StatusCode remove(const std::string& key) {
    return call(*stub, &Table::Stub::Delete, keyOf(key)).status.error_code();
  }

  Agent agent;
  const std::unique_ptr<Table::Stub> stub = agent.stub();
};

using Agents = testing::Types<Kit, Callback>;
TYPED_TEST_SUITE(TableAgent, Agents);

TYPED_TEST(TableAgent, CreatesDeletesAndUploads) {
  EXPECT_EQ(this->create("a", "1"), grpc::StatusCode::OK);
  EXPECT_EQ(this->create("a", "2"), grpc::StatusCode::ALREADY_EXISTS);
  EXPECT_EQ(this->remove("a"), grpc::StatusCode::OK);
  EXPECT_EQ(this->remove("a"), grpc::StatusCode::NOT_FOUND);
  grpc::ClientContext context;
  count_msg count;
  const auto upload = this->stub->Upload(&context, &count);
  for (int i = 0; i < 100; ++i)
    upload->Write(entryOf(std::to_string(i), "x"));
  upload->WritesDone();
  EXPECT_TRUE(upload->Finish().ok());
  EXPECT_EQ(count.count(), 100U);
  EXPECT_EQ(this->agent.left(), "");
}

TYPED_TEST(TableAgent, TellsAWatcherWhatIsThereAndWhatChanges) {
  this->create("a", "1");
  grpc::ClientContext context;
  const auto watch = this->stub->Watch(&context, nothing_msg());
  change_msg change;
  ASSERT_TRUE(watch->Read(&change));
  EXPECT_EQ(change.set().value(), "1");
  ASSERT_TRUE(watch->Read(&change));
  EXPECT_TRUE(change.synced());
  this->create("b", "2");
  ASSERT_TRUE(watch->Read(&change));
  EXPECT_EQ(change.set().key(), "b");
  this->remove("a");
  ASSERT_TRUE(watch->Read(&change));
  EXPECT_EQ(change.removed(), "a");
  context.TryCancel();
  EXPECT_EQ(watch->Finish().error_code(), grpc::StatusCode::CANCELLED);
  EXPECT_EQ(this->agent.left(), "");
}

TYPED_TEST(TableAgent, EndsASessionWithoutHeartbeats) {
  grpc::ClientContext context;
  const auto session = this->stub->Session(&context);
  count_msg count;
  std::atomic<bool> told = false;
  std::jthread changing([&] {  // until the session has begun
    for (int i = 0; !told; ++i)
      EXPECT_EQ(this->create(std::to_string(i), "x"), grpc::StatusCode::OK);
  });
  ASSERT_TRUE(session->Read(&count));
  told = true;
  changing.join();
  this->agent.pass(10s);
  while (session->Read(&count)) {
  }
  EXPECT_EQ(session->Finish().error_code(), grpc::StatusCode::DEADLINE_EXCEEDED);
  EXPECT_EQ(this->agent.left(), "");
}

TYPED_TEST(TableAgent, ComputesBesideOtherCalls) {
  const auto answer = call(*this->stub, &Table::Stub::Checksum, entryOf("", "a long text"));
  EXPECT_TRUE(answer.status.ok());
  EXPECT_EQ(answer.reply.count(), checksumOf("a long text"));
  EXPECT_EQ(this->agent.left(), "");
}

TYPED_TEST(TableAgent, SendsStreamsElsewhereWhenItIsDrained) {
  grpc::ClientContext watching, talking;
  const auto watch = this->stub->Watch(&watching, nothing_msg());
  const auto session = this->stub->Session(&talking);
  change_msg change;
  ASSERT_TRUE(watch->Read(&change));
  EXPECT_TRUE(change.synced());
  this->create("a", "1");
  this->agent.drain();
  while (watch->Read(&change)) {
  }
  count_msg count;
  while (session->Read(&count)) {
  }
  EXPECT_EQ(watch->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(session->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
}

}  // namespace
}  // namespace table_agent
