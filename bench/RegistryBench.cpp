// The tag registry with few and with very many live tags, beside what a user would write instead: a
// map of numbered calls under a standard mutex. The ratio of two rows is the result. A lookup that
// allocates fails the run.
#include <VornSdkRpc/TagManager.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <semaphore>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bench/Allocations.h"

namespace {

using VornSdkRpc::OpaqueId;
using VornSdkRpc::RequestHandlerPtr;

// A second thread, as every server has: without one, the reference counts would not be atomic. It
// allocates nothing, as the lookups' allocations are counted while it may only be starting.
class SecondThread {
 public:
  ~SecondThread() {
    end_.release();
    thread_.join();
  }

 private:
  std::binary_semaphore end_{0};
  std::thread thread_{[this] { end_.acquire(); }};
};

const SecondThread second;

class NoCall : public VornSdkRpc::RequestHandler {
  void proceed(OpaqueId) override {}
  RequestHandlerPtr spawn(OpaqueId) override { return nullptr; }
};

class Map {
 public:
  OpaqueId newTag(std::size_t serviceId) {
    const std::lock_guard lock(mutex_);
    const auto tag = reinterpret_cast<OpaqueId>(++last_);
    entries_.emplace(tag, Entry{serviceId, nullptr});
    return tag;
  }

  void storeHandler(std::size_t /*serviceId*/, OpaqueId tag, RequestHandlerPtr handler) {
    const std::lock_guard lock(mutex_);
    entries_.find(tag)->second.handler = std::move(handler);
  }

  bool find(OpaqueId tag, std::size_t& serviceId, RequestHandlerPtr& handler) const {
    const std::lock_guard lock(mutex_);
    const auto entry = entries_.find(tag);
    if (entry == entries_.end()) return false;
    serviceId = entry->second.serviceId;
    handler = entry->second.handler;
    return true;
  }

  void removeHandler(std::size_t /*serviceId*/, OpaqueId tag) {
    const std::lock_guard lock(mutex_);
    entries_.erase(tag);
  }

 private:
  struct Entry {
    std::size_t serviceId;
    RequestHandlerPtr handler;
  };

  mutable std::mutex mutex_;
  std::uintptr_t last_ = 0;
  std::unordered_map<OpaqueId, Entry> entries_;
};

// `count` live tags, of which next() answers one after another in no order.
template <typename Subject>
class Live {
 public:
  explicit Live(std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i)
      tags_.push_back(make());
    std::shuffle(tags_.begin(), tags_.end(), std::mt19937_64(1));
  }

  OpaqueId& next() {
    if (++next_ == tags_.size()) next_ = 0;
    return tags_[next_];
  }

  OpaqueId make() {
    const OpaqueId tag = subject.newTag(0);
    subject.storeHandler(0, tag, handler_);
    return tag;
  }

  Subject subject;

 private:
  const RequestHandlerPtr handler_ = std::make_shared<NoCall>();
  std::vector<OpaqueId> tags_;
  std::size_t next_ = 0;
};

template <typename Subject>
void BM_Find(benchmark::State& state) {
  Live<Subject> live(state.range(0));
  std::size_t serviceId = 0;
  const auto before = allocations();
  for (auto _ : state) {
    RequestHandlerPtr handler;
    benchmark::DoNotOptimize(live.subject.find(live.next(), serviceId, handler));
  }
  if (allocations() != before) state.SkipWithError("a lookup has allocated");
}

// The life of a tag: made, stored, found twice, removed.
template <typename Subject>
void BM_Life(benchmark::State& state) {
  Live<Subject> live(state.range(0));
  std::size_t serviceId = 0;
  const auto before = allocations();
  for (auto _ : state) {
    OpaqueId& tag = live.next();
    for (int i = 0; i < 2; ++i) {
      RequestHandlerPtr handler;
      benchmark::DoNotOptimize(live.subject.find(tag, serviceId, handler));
    }
    live.subject.removeHandler(0, tag);
    tag = live.make();
  }
  state.counters["allocs"] = benchmark::Counter(static_cast<double>(allocations() - before),
                                                benchmark::Counter::kAvgIterations);
}

using Registry = VornSdkRpc::TagManager;

BENCHMARK(BM_Find<Registry>)->Arg(100)->Arg(10'000)->Arg(1'000'000);
BENCHMARK(BM_Find<Map>)->Arg(100)->Arg(10'000)->Arg(1'000'000);
BENCHMARK(BM_Life<Registry>)->Arg(100)->Arg(10'000)->Arg(1'000'000);
BENCHMARK(BM_Life<Map>)->Arg(100)->Arg(10'000)->Arg(1'000'000);

}  // namespace
