// What accounting costs: a push by one or more producers and the drain of the queue, beside
// spdlog's own asynchronous logger; and the server's processor time for a call with accounting, as
// a ratio to that without, of two server processes that take turns.
//
//   AccountingBench [Google Benchmark's options]
#include <Kiv/Log.h>
#include <VornSdkRpc/VornSdkRpcAgentRpcLogger.h>
#include <benchmark/benchmark.h>
#include <grpcpp/grpcpp.h>
#include <spdlog/async.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/ProbeService.h"

namespace {

using VornSdkRpc::LogMessageData;

const LogMessageData kRecord{"alice", "5f3a9c0177aa01d2-17", "ipv4:127.0.0.1:40022",
                             "/test.Probe/Echo", 0};
constexpr char kFormat[] = "user: {}, session: {}, peer: {}, rpc: {}, status: {}";

Kiv::LogDescriptor descriptor = {"BENCH", "user: %s, session: %s, peer: %s, rpc: %s, status: %s",
                                 "Written by a benchmark", "\x01", 6};
Kiv::LogHandle logHandle(&descriptor, Velm::Duration(0), 1.0, 0, 0);

void platformLogIsNull() {
  Kiv::platformLogger().sinks() = {std::make_shared<spdlog::sinks::null_sink_mt>()};
}

void writeRecord(LogMessageData const& record) {
  Kiv::log(logHandle, record.user, record.session, record.peer, record.rpc, record.status);
}

// The accounting queue and a consumer that writes what it takes, as the factory's does but for its
// rest.
class Accounting {
 public:
  ~Accounting() { queue_.close(); }
  void push() { queue_.push(kRecord); }

 private:
  void consume() {
    for (std::deque<LogMessageData> batch; queue_.swap(batch); batch.clear()) {
      for (auto const& record : batch)
        writeRecord(record);
    }
  }

  SynchronizedQueue<LogMessageData> queue_;
  std::jthread thread_{[this] { consume(); }};  // ends before the queue does
};

// The peer: the same line through spdlog's thread pool. Its queue has a bound; so that no producer
// waits for the consumer here either, it drops the oldest lines when it is full.
class SpdlogAsync {
 public:
  void push() {
    logger_->info(kFormat, kRecord.user, kRecord.session, kRecord.peer, kRecord.rpc,
                  kRecord.status);
  }

 private:
  std::shared_ptr<spdlog::details::thread_pool> pool_ =
      std::make_shared<spdlog::details::thread_pool>(8192, 1);
  std::shared_ptr<spdlog::async_logger> logger_ = std::make_shared<spdlog::async_logger>(
      "bench", std::make_shared<spdlog::sinks::null_sink_mt>(), pool_,
      spdlog::async_overflow_policy::overrun_oldest);
};

// One push by each of the producers, while the consumer writes.
template <typename Log>
void BM_Push(benchmark::State& state) {
  static std::unique_ptr<Log> log;
  if (state.thread_index() == 0) log = std::make_unique<Log>();
  for (auto _ : state)
    log->push();
  if (state.thread_index() == 0) log.reset();
}

// Draining what is queued, with no producer beside it: the time from the first line's end to the
// last one's.
constexpr int kDrained = 8000;  // below the bound of spdlog's queue

// Holds the consumer at its first line until the queue has been filled.
class GatedSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  void open() { open_.count_down(); }

 private:
  void sink_it_(spdlog::details::log_msg const&) override { open_.wait(); }
  void flush_() override {}

  std::latch open_{1};
};

void BM_DrainAccounting(benchmark::State& state) {
  const auto before = Kiv::platformLogger().sinks();
  for (auto _ : state) {
    state.PauseTiming();
    const auto sink = std::make_shared<GatedSink>();
    Kiv::platformLogger().sinks() = {sink};
    auto accounting = std::make_unique<Accounting>();
    for (int i = 0; i < kDrained; ++i)
      accounting->push();
    state.ResumeTiming();
    sink->open();
    accounting.reset();
  }
  state.SetItemsProcessed(state.iterations() * kDrained);
  Kiv::platformLogger().sinks() = before;
}

void BM_DrainSpdlogAsync(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    const auto sink = std::make_shared<GatedSink>();
    auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
    auto logger = std::make_shared<spdlog::async_logger>("bench", sink, pool);
    for (int i = 0; i < kDrained; ++i)
      logger->info(kFormat, kRecord.user, kRecord.session, kRecord.peer, kRecord.rpc,
                   kRecord.status);
    state.ResumeTiming();
    sink->open();
    pool.reset();
  }
  state.SetItemsProcessed(state.iterations() * kDrained);
}

// A server in a process of its own, whose processor time can be asked for.
class ServerProcess {
 public:
  explicit ServerProcess(bool accounting) {
    std::array<int, 2> ends;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) std::abort();
    socket_ = ends[0];
    child_ = fork();
    if (child_ == 0) {
      close(ends[0]);
      serve(accounting, ends[1]);
      _exit(0);
    }
    close(ends[1]);
    port_ = static_cast<int>(receive());
  }
  ~ServerProcess() {
    close(socket_);
    waitpid(child_, nullptr, 0);
  }
  ServerProcess(ServerProcess const&) = delete;
  ServerProcess& operator=(ServerProcess const&) = delete;

  int port() const { return port_; }

  // The processor time that the process has used so far, in microseconds.
  std::int64_t cpuTime() {
    if (::write(socket_, "?", 1) != 1) std::abort();
    return receive();
  }

 private:
  // Answers every byte with the processor time, until there is no one to ask.
  static void serve(bool accounting, int socket) {
    platformLogIsNull();
    test::RunningServer server({std::make_shared<test::ProbeService>()}, accounting);
    const auto address = server.address();
    std::int64_t answer = std::stoi(address.substr(address.find(':') + 1));
    for (char question = 0; ::write(socket, &answer, sizeof answer) == sizeof answer &&
                            ::read(socket, &question, 1) == 1;) {
      answer = ownCpuTime();
    }
  }

  static std::int64_t ownCpuTime() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * std::int64_t{1000000} +
           usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
  }

  std::int64_t receive() const {
    std::int64_t value = 0;
    if (::read(socket_, &value, sizeof value) != sizeof value) std::abort();
    return value;
  }

  int socket_ = -1;
  pid_t child_ = -1;
  int port_ = 0;
};

// Makes unary calls on one connection, a number of them at a time.
class Client {
 public:
  explicit Client(int port)
      : stub_(grpc::CreateChannel("127.0.0.1:" + std::to_string(port),
                                  grpc::InsecureChannelCredentials())) {}

  // Returns when so many calls have been answered.
  void call(int calls, int atATime) {
    int left = calls;
    for (; left > calls - atATime; --left)
      start(*new InFlight);
    void* tag = nullptr;
    bool ok = false;
    for (int answered = 0; answered < calls; ++answered) {
      queue_.Next(&tag, &ok);
      const std::unique_ptr<InFlight> done(static_cast<InFlight*>(tag));
      if (!done->status.ok()) std::abort();
      if (left-- > 0) start(*new InFlight);
    }
  }

 private:
  struct InFlight {
    grpc::ClientContext context;
    test::Text reply;
    grpc::Status status;
    std::unique_ptr<grpc::ClientAsyncResponseReader<test::Text>> reader;
  };

  void start(InFlight& call) {
    call.reader = stub_.AsyncEcho(&call.context, test::Text(), &queue_);
    call.reader->Finish(&call.reply, &call.status, &call);
  }

  test::Probe::Stub stub_;
  grpc::CompletionQueue queue_;
};

// The server's processor time for a call with accounting and without, on two servers that take
// turns. Registered first: the processes are forked while this one has no threads yet.
void BM_ServerCpuPerCall(benchmark::State& state) {
  constexpr int kCalls = 4000;
  static ServerProcess servers[] = {ServerProcess(false), ServerProcess(true)};
  static Client clients[] = {Client(servers[0].port()), Client(servers[1].port())};
  const auto used = [&](int which) {
    const auto before = servers[which].cpuTime();
    clients[which].call(kCalls, static_cast<int>(state.range(0)));
    return static_cast<double>(servers[which].cpuTime() - before) / kCalls;
  };
  for (int which : {0, 1})
    used(which);  // connects and warms up
  std::vector<double> off, on, ratio;
  for (auto _ : state) {
    off.push_back(used(0));
    on.push_back(used(1));
    ratio.push_back(on.back() / off.back());
  }
  const auto median = [](std::vector<double>& values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
  };
  state.counters["us_off"] = median(off);
  state.counters["us_on"] = median(on);
  state.counters["ratio"] = median(ratio);
}

BENCHMARK(BM_ServerCpuPerCall)->ArgName("at_a_time")->Arg(1)->Arg(32)->Iterations(15);
BENCHMARK(BM_Push<Accounting>)->Threads(1)->Threads(2)->Threads(4)->Iterations(100000);
BENCHMARK(BM_Push<SpdlogAsync>)->Threads(1)->Threads(2)->Threads(4)->Iterations(100000);
BENCHMARK(BM_DrainAccounting)->UseRealTime();
BENCHMARK(BM_DrainSpdlogAsync)->UseRealTime();

}  // namespace
