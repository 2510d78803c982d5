// Completion records: what they tell of calls that end in every way, and where they go.
#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <VornSdkRpc/CallAccounting.h>
#include <VornSdkRpc/CallJson.h>
#include <VornSdkRpc/CallNote.h>
#include <VornSdkRpc/InsecureCredentials.h>
#include <VornSdkRpc/Rpc.h>
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/Calls.h"
#include "tests/Capture.h"
#include "tests/FullAt.h"
#include "tests/FullRecord.h"
#include "tests/ProbeService.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

namespace rpc = VornSdkRpc::rpc;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;
using VornSdkRpc::CallAccounting;
using VornSdkRpc::CallGap;
using VornSdkRpc::CallLog;
using VornSdkRpc::CallRecord;

// Keeps what is written to it as texts, and sees that no number is missing.
class Kept {
 public:
  std::unique_ptr<VornSdkRpc::CallSink> sink() { return std::make_unique<Sink>(*this); }

  std::vector<std::string> lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  struct Sink : VornSdkRpc::CallSink {
    explicit Sink(Kept& all) : kept(all) {}
    std::size_t write(std::span<const CallRecord* const> records) override {
      const std::lock_guard lock(kept.mutex_);
      for (const auto* record : records) {
        EXPECT_EQ(record->number, ++kept.number_);
        kept.lines_.push_back(lineOf(*record));
      }
      return records.size();
    }
    bool writeGap(const CallGap& gap) override {
      const std::lock_guard lock(kept.mutex_);
      EXPECT_EQ(gap.first, kept.number_ + 1);
      kept.number_ += gap.count;
      kept.lines_.push_back("gap " + std::to_string(gap.first) + "+" + std::to_string(gap.count));
      return true;
    }
    Kept& kept;
  };

  static std::string lineOf(const CallRecord& record) {
    std::ostringstream line;
    line << record.method << " " << textOf(record.end) << " " << record.status << " messages "
         << record.messagesIn << "/" << record.messagesOut << " bytes "
         << static_cast<std::int64_t>(record.bytesIn) << "/" << record.bytesOut;
    for (const auto text : {record.user, record.session, record.proof, record.traceparent,
                            record.reason, record.operation, record.object})
      line << " [" << text << "]";
    if (!record.operation.empty()) line << " " << record.count;
    return line.str();
  }

  std::mutex mutex_;
  std::uint64_t number_ = 0;  // of the last record
  std::vector<std::string> lines_;
};

// The text of the request says what Echo does.
class NotingService : public rpc::Service<Probe> {
 public:
  NotingService() : Service("Noting") {
    method(&Async::RequestEcho,
           [this](rpc::Call& call, const Text& text, Text& reply) -> rpc::Task<> {
             ++begun;
             if (text.text() == "wait") {
               while (co_await call.wait(1h)) {
               }
             }
             VornSdkRpc::noteOperation(call.context(), "set", "early");
             VornSdkRpc::noteOperation(call.context(), "delete", "10.1.0.0/16", 3);
             reply.set_text(text.text());
             if (text.text() == "fail") co_return grpc::Status(grpc::NOT_FOUND, "");
             co_return grpc::Status::OK;
           },
           {.limit = 1});
    method(&Async::RequestCollect, [](rpc::Reader<Text>& texts, Count& count) -> rpc::Task<> {
      Text text;
      while (co_await texts.read(text))
        count.set_count(count.count() + 1);
      co_return grpc::Status::OK;
    });
    method(&Async::RequestTick, [](rpc::Writer<Text>& texts, const Count& count) -> rpc::Task<> {
      Text text;
      for (std::uint32_t i = 0; i < count.count(); ++i)
        co_await texts.write(text);
      co_return grpc::Status::OK;
    });
  }

  std::atomic<int> begun = 0;
};

// A call of Echo that waits in its handler, until it has been told otherwise.
class Waiting {
 public:
  Waiting(Probe::Stub& stub, NotingService& service, std::chrono::milliseconds deadline = 1h) {
    const int before = service.begun;
    context_.set_deadline(std::chrono::system_clock::now() + deadline);
    reader_ = stub.AsyncEcho(&context_, textOf("wait"), &queue_);
    reader_->Finish(&reply_, &status_, nullptr);
    waitUntil([&] { return service.begun != before; }, "the call has begun");
  }
  ~Waiting() { end(); }
  void cancel() { context_.TryCancel(); }
  grpc::StatusCode end() {
    void* tag = nullptr;
    bool ok = false;
    if (!std::exchange(ended_, true)) queue_.Next(&tag, &ok);
    return status_.error_code();
  }

 private:
  grpc::ClientContext context_;
  grpc::CompletionQueue queue_;
  std::unique_ptr<grpc::ClientAsyncResponseReader<Text>> reader_;
  Text reply_;
  grpc::Status status_;
  bool ended_ = false;
};

grpc::StatusCode collect(Probe::Stub& stub, const std::vector<std::size_t>& sizes) {
  const Collecting texts(stub);
  for (const auto size : sizes)
    texts->Write(textOf(std::string(size, 'x')));
  texts->WritesDone();
  return texts->Finish().error_code();
}

TEST(CallAccounting, TellsOfEveryCallHowItEnded) {
  Kept kept;
  const auto service = std::make_shared<NotingService>();
  CallAccounting accounting({.streamStarts = true});
  accounting.add(kept.sink());
  {
    RunningServer server({service}, [&](auto& builder) { accounting.install(builder); });
    const auto stub = server.stub();
    EXPECT_EQ(callEcho(*stub, "hello", {{"traceparent", "00-4bf9-00f0-01"}}), grpc::OK);
    EXPECT_EQ(callEcho(*stub, "fail"), grpc::NOT_FOUND);
    EXPECT_EQ(callUnknownMethod(server.connection(), "/no.Such/Method"), grpc::UNIMPLEMENTED);
    EXPECT_EQ(collect(*stub, {1, 2}), grpc::OK);
    EXPECT_EQ(collect(*stub, {1, 5 << 20}), grpc::RESOURCE_EXHAUSTED);
    Text text;
    const Ticking ticks(*stub, 2);
    EXPECT_EQ(ticks.readAll(text), 2);
    EXPECT_TRUE(ticks->Finish().ok());
    {
      Waiting waiting(*stub, *service);
      EXPECT_EQ(callEcho(*stub, "hello"), grpc::RESOURCE_EXHAUSTED);
      waiting.cancel();
    }
    waitUntil([&] { return kept.lines().size() >= 12; }, "twelve records are written");
    EXPECT_EQ(Waiting(*stub, *service, 1s).end(), grpc::DEADLINE_EXCEEDED);
    waitUntil([&] { return kept.lines().size() >= 13; }, "one more record is written");
    Waiting waiting(*stub, *service);
    server.stop();
  }
  const std::string who = " [unknown] [unknown] [none]";
  const std::string noted = " [delete] [10.1.0.0/16] 3";
  const std::string none = " [] [] [] []";
  waitUntil([&] { return kept.lines().size() >= 14; }, "the last record is written");
  EXPECT_THAT(kept.lines(),
              UnorderedElementsAre(
                  "/test.Probe/Echo answered 0 messages 1/1 bytes 7/7" + who +
                      " [00-4bf9-00f0-01] []" + noted,
                  "/test.Probe/Echo answered 5 messages 1/0 bytes 6/0" + who + " [] []" + noted,
                  "/no.Such/Method begun 0 messages 0/0 bytes -1/0" + who + none,
                  "/no.Such/Method answered 12 messages 0/0 bytes -1/0" + who + none,
                  "/test.Probe/Collect begun 0 messages 0/0 bytes -1/0" + who + none,
                  "/test.Probe/Collect answered 0 messages 2/1 bytes 7/2" + who + none,
                  "/test.Probe/Collect begun 0 messages 0/0 bytes -1/0" + who + none,
                  "/test.Probe/Collect refused 8 messages 1/1 bytes 3/2" + who + none,
                  "/test.Probe/Tick begun 0 messages 0/0 bytes -1/0" + who + none,
                  "/test.Probe/Tick answered 0 messages 1/2 bytes 2/0" + who + none,
                  "/test.Probe/Echo refused 8 messages 1/0 bytes 7/0" + who + none,
                  "/test.Probe/Echo abandoned 1 messages 1/0 bytes 6/0" + who + " [] []" + noted,
                  "/test.Probe/Echo abandoned 4 messages 1/0 bytes 6/0" + who + " [] []" + noted,
                  "/test.Probe/Echo stopped 14 messages 1/0 bytes 6/0" + who + none));
}

// Refuses who does not say "let me in", with a reason.
class Doorkeeper : public grpc::AuthMetadataProcessor {
 public:
  bool IsBlocking() const override { return false; }
  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                       OutputMetadata*, OutputMetadata*) override {
    const auto say = metadata.find("say");
    if (say == metadata.end() || say->second != "let me in")
      return {grpc::PERMISSION_DENIED, "nobody \"asked\"\n", "rule 1"};
    connection->AddProperty("peer-authenticated", "alice");
    connection->AddProperty("peer-proof", "a word");
    return grpc::Status::OK;
  }
};

TEST(CallAccounting, TellsOfACallThatIsDeniedAndWhy) {
  Kept kept;
  const Capture log(Kiv::platformLogger());
  {
    CallAccounting accounting;
    accounting.add(kept.sink());
    accounting.add(VornSdkRpc::accountingLines());
    int port = 0;
    const RunningServer server({std::make_shared<NotingService>()}, [&](auto& builder) {
      accounting.install(builder);
      builder.AddListeningPort("127.0.0.1:0",
                               VornSdkRpc::insecureServerCredentials(
                                   accounting.recorded(std::make_shared<Doorkeeper>())),
                               &port);
    });
    const auto stub = Probe::NewStub(connected("127.0.0.1:" + std::to_string(port)));
    EXPECT_EQ(callEcho(*stub, "x", {{"traceparent", "00-1"}}), grpc::PERMISSION_DENIED);
    EXPECT_EQ(callEcho(*stub, "x", {{"say", "let me in"}}), grpc::OK);
    EXPECT_EQ(callEcho(*stub, "x"), grpc::PERMISSION_DENIED);
  }
  const std::string denied = "/test.Probe/Echo denied 7 messages 0/0 bytes -1/0 ";
  const std::string reason = " [nobody \"asked\"\n: rule 1] [] []";
  EXPECT_THAT(kept.lines(),
              ElementsAre(denied + "[unknown] [unknown] [none] [00-1]" + reason,
                          "/test.Probe/Echo answered 0 messages 1/1 bytes 3/3 [alice] [unknown] "
                          "[a word] [] [] [delete] [10.1.0.0/16] 3",
                          denied + "[alice] [unknown] [a word] []" + reason));
  EXPECT_THAT(log.lines(),
              ElementsAre(MatchesRegex("VORNSDKRPC_ACCOUNTING_RPC: user: alice, session: unknown, "
                                       "peer: ipv4:.*, rpc: /test.Probe/Echo, status: 0")));
}

// A sink that takes nothing, until it is opened.
class Shut : public VornSdkRpc::CallSink {
 public:
  Shut(std::unique_ptr<CallSink> behind, const std::atomic<bool>& open)
      : behind_(std::move(behind)), open_(open) {}
  std::size_t write(std::span<const CallRecord* const> records) override {
    return open_ ? behind_->write(records) : 0;
  }
  bool writeGap(const CallGap& gap) override { return open_ && behind_->writeGap(gap); }

 private:
  const std::unique_ptr<CallSink> behind_;
  const std::atomic<bool>& open_;
};

std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

TEST(CallJson, IsOneLineForEveryReader) {
  std::string text;
  VornSdkRpc::appendJson(text, fullRecord());
  EXPECT_EQ(text, R"({"run":"r1","number":7,"end":"refused","start":"2025-11-25T10:39:50.123456Z",)"
                  R"("duration_us":1500,"deadline":"2025-11-25T10:39:51.000000Z","status":8,)"
                  R"("code":"RESOURCE_EXHAUSTED","sent":0,"method":"/x/\\xe2\\x80\\xa8",)"
                  R"("user":"CORP\\al\"ice","session":"\\x0a\\x00","proof":"tls","peer":"unix:",)"
                  R"("traceparent":"00-1","reason":"caf\\xe9\\x5cx0a","operation":"set",)"
                  R"("object":"é","count":5,"messages_in":1,"messages_out":2,"bytes_in":3,)"
                  R"("bytes_out":4})");
  text.clear();
  VornSdkRpc::appendJson(text, CallGap{"r1", 8, 2});
  EXPECT_EQ(text, R"({"run":"r1","gap_first":8,"gap_count":2})");
}

// While the disk is full, records wait; what was begun is not mended, but the line comes again.
TEST(CallJsonFile, WaitsForAFullDiskAndSurvivesRotation) {
  std::signal(SIGXFSZ, SIG_IGN);
  const std::string path = testing::TempDir() + "calls" + std::to_string(getpid());
  std::string lines[4];
  std::vector<CallRecord> records(4, {.run = "r"});
  std::vector<const CallRecord*> all;
  for (std::size_t i = 0; i < records.size(); ++i) {
    records[i].number = i + 1;
    VornSdkRpc::appendJson(lines[i], records[i]);
    all.push_back(&records[i]);
  }
  VornSdkRpc::CallJsonFile file(path);
  {
    const FullAt limit(lines[0].size() + 5);
    EXPECT_EQ(file.write(all), 1U);
    EXPECT_EQ(file.write(std::span(all).subspan(1)), 0U);
    EXPECT_FALSE(file.writeGap({"r", 2, 1}));
  }
  EXPECT_TRUE(file.writeGap({"r", 2, 1}));
  EXPECT_EQ(file.write(std::span(all).subspan(2)), 2U);
  EXPECT_EQ(contentOf(path), lines[0] + "\n" + lines[1].substr(0, 4) + "\n" +
                                 R"({"run":"r","gap_first":2,"gap_count":1})" + "\n" + lines[2] +
                                 "\n" + lines[3] + "\n");
  std::filesystem::rename(path, path + ".1");
  file.reopen();
  EXPECT_EQ(file.write(all), 4U);
  EXPECT_EQ(contentOf(path), lines[0] + "\n" + lines[1] + "\n" + lines[2] + "\n" + lines[3] + "\n");
  std::filesystem::remove(path);
  std::filesystem::remove(path + ".1");
}

// Numbers that a reader has seen or was told to be missing.
struct Seen {
  std::uint64_t records = 0;
  std::uint64_t missing = 0;
};

Seen seen(const std::vector<std::string>& lines) {
  Seen seen;
  for (const auto& line : lines) {
    if (line.starts_with("gap ")) {
      seen.missing += std::stoull(line.substr(line.find('+')));
    } else {
      ++seen.records;
    }
  }
  return seen;
}

// The bound costs the sink that stands still its oldest records, which it is told; the other one
// gets them all.
TEST(CallAccounting, ASinkThatStandsStillHoldsUpNobodyAndIsToldWhatItMisses) {
  constexpr std::uint64_t kRecords = 5000;
  constexpr std::size_t kBound = 256 << 10;
  Kept quick, slow, lost;
  std::atomic<bool> open = false;
  const std::atomic<bool> never = false;
  auto accounting = std::make_unique<CallAccounting>(
      VornSdkRpc::CallAccountingOptions{.log = {.memory = kBound}});
  accounting->add(std::make_unique<Shut>(slow.sink(), open));
  accounting->add(std::make_unique<Shut>(lost.sink(), never));
  accounting->add(quick.sink());
  CallLog& records = *accounting->log();
  for (std::uint64_t i = 1; i <= kRecords; ++i) {
    records.append({.method = "/x/y"});
    EXPECT_LE(records.memory(), kBound);
    if (i % 100 == 0) waitUntil([&] { return quick.lines().size() >= i; }, "it is written");
  }
  open = true;
  waitUntil([&] { return seen(slow.lines()).records + seen(slow.lines()).missing >= kRecords; },
            "the slow sink has come to the end");
  EXPECT_EQ(slow.lines()[0].substr(0, 6), "gap 1+");
  EXPECT_EQ(seen(slow.lines()).records + seen(slow.lines()).missing, kRecords);
  EXPECT_GT(seen(slow.lines()).records, 100U);
  EXPECT_EQ(seen(quick.lines()).missing, 0U);
  const Capture trace(Kiv::traceLogger());
  accounting.reset();
  EXPECT_EQ(trace.count("RPCAccounting/0: 5000 records could not be written and are lost"), 1U);
}

TEST(CallLog, KeepsEveryRecordOfEveryThreadWithItsTexts) {
  const auto log = std::make_shared<CallLog>();
  CallLog::Reader reader(log);
  constexpr std::uint64_t kEach = 20000;
  {
    std::vector<std::jthread> threads;
    for (const char* const name : {"a", "b", "c", "d"}) {
      threads.emplace_back([&log, name] {
        for (std::uint64_t i = 0; i < kEach; ++i) {
          const std::string object(i % 2000, name[0]);
          log->append({.method = name, .object = object, .count = i});
        }
      });
    }
    threads.emplace_back([&] {
      std::map<std::string, std::uint64_t> next;
      CallLog::Batch batch;
      for (std::uint64_t number = 1; number <= 4 * kEach && reader.read(100, batch);) {
        ASSERT_EQ(batch.gap.count, 0U);
        for (const auto* record : batch.records) {
          const auto i = next[std::string(record->method)]++;
          const std::string object(i % 2000, record->method[0]);
          ASSERT_EQ(record->number, number++);
          ASSERT_EQ(record->count, i);
          ASSERT_EQ(record->object.substr(0, 1024), object.substr(0, 1024));
          ASSERT_EQ(record->object.substr(std::min<std::size_t>(record->object.size(), 1024)),
                    object.size() > 1024 ? "...[cut]" : "");
        }
        reader.advance(batch, batch.records.size());
      }
    });
  }
  EXPECT_EQ(reader.left(), 0U);
  EXPECT_LE(log->memory(), std::size_t{64 << 10});
}

// History is what those who come later find; a place that is gone or is not there yet is told.
TEST(CallLog, ReadsFromAnyPlace) {
  CallLog log({.history = 1 << 20});
  CallLog::Batch batch;
  EXPECT_EQ(log.read(1, 10, batch), 1U);
  EXPECT_EQ(log.read(77, 10, batch), 1U);
  int woken = 0;
  log.wakeAt(1, [&] { ++woken; });
  log.unwake(log.wakeAt(1, [&] { woken += 100; }));
  log.wakeAt(5, [&] { woken += 10; });
  for (int i = 0; i < 20000; ++i)
    log.append({.method = "/x/y"});
  EXPECT_EQ(woken, 11);
  log.wakeAt(5, [&] { ++woken; });
  EXPECT_EQ(woken, 12);
  const auto next = log.read(1, 10, batch);
  EXPECT_EQ(batch.gap.first, 1U);
  EXPECT_EQ(batch.records.size(), 10U);
  EXPECT_EQ(batch.records.front()->number, 1 + batch.gap.count);
  EXPECT_EQ(next, 11 + batch.gap.count);
  EXPECT_GT(batch.gap.count, 10000U);
  EXPECT_LT(batch.gap.count, 18000U);
  EXPECT_EQ(log.read(19996, 10, batch), 20001U);
  EXPECT_EQ(batch.records.size(), 5U);
}

}  // namespace
}  // namespace test
