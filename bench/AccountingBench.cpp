// What accounting costs: a push by one or more producers and the drain of the queue, beside
// spdlog's own asynchronous logger. What it costs a server is measured by scripts/bench.
#include <Kiv/Log.h>
#include <VornSdkRpc/VornSdkRpcAgentRpcLogger.h>
#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/null_sink.h>

#include <chrono>
#include <deque>
#include <latch>
#include <memory>
#include <string>
#include <thread>

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

void writeRecord(const LogMessageData& record) {
  Kiv::log(logHandle, record.user, record.session, record.peer, record.rpc, record.status);
}

// The accounting queue and a consumer that writes what it takes and rests, as the factory's does.
class Accounting {
 public:
  ~Accounting() { queue_.close(); }
  void push() { queue_.push(kRecord); }

 private:
  void consume() {
    for (std::deque<LogMessageData> batch; queue_.swap(batch); batch.clear()) {
      for (const auto& record : batch)
        writeRecord(record);
      queue_.rest(std::chrono::milliseconds(2));
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

// One push by each of the producers, while the consumer writes. What is measured is the whole
// process, the consumer's share included: one side formats its lines there, the other in the
// producer.
template <typename Log>
void BM_Push(benchmark::State& state) {
  static std::unique_ptr<Log> log;
  if (state.thread_index() == 0) {
    platformLogIsNull();
    log = std::make_unique<Log>();
  }
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
  void sink_it_(const spdlog::details::log_msg&) override { open_.wait(); }
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

void producers(benchmark::internal::Benchmark* push) {
  for (const int threads : {1, 2, 4})
    push->Threads(threads);
  push->Iterations(100000)->MeasureProcessCPUTime();
}
BENCHMARK(BM_Push<Accounting>)->Apply(producers);
BENCHMARK(BM_Push<SpdlogAsync>)->Apply(producers);
BENCHMARK(BM_DrainAccounting)->UseRealTime();
BENCHMARK(BM_DrainSpdlogAsync)->UseRealTime();

}  // namespace
