#include <VornSdkRpc/CallWatch.h>

#include <Kiv/Line.h>
#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpcProtos/Accounting.grpc.pb.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace VornSdkRpc {

namespace {

using namespace accounting;
using namespace std::chrono_literals;

// So many records go in one message, so that it stays below what clients take: 4 MiB.
constexpr std::size_t kBatchMax = 256;

// How long a collector waits behind the first of new records, so that a busy agent's gather.
constexpr auto kRest = 2ms;

std::int64_t microsOf(CallRecord::Clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

call_record_msg::end_enum endOf(CallEnd end) {
  return static_cast<call_record_msg::end_enum>(static_cast<int>(end) + 1);
}
static_assert(call_record_msg::BEGUN == static_cast<int>(CallEnd::begun) + 1 &&
              call_record_msg::STOPPED == static_cast<int>(CallEnd::stopped) + 1);

void fill(call_record_msg& message, const CallRecord& record) {
  message.set_number(record.number);
  message.set_end(endOf(record.end));
  message.set_status(record.status);
  if (record.sent != CallRecord::kNothing) message.set_sent(record.sent);
  message.set_start_us(microsOf(record.start));
  message.set_duration_us(static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(record.duration).count()));
  if (record.deadline != CallRecord::kNoDeadline)
    message.set_deadline_us(microsOf(record.deadline));
  message.set_messages_in(record.messagesIn);
  message.set_messages_out(record.messagesOut);
  if (record.bytesIn != CallRecord::kUnknown) message.set_bytes_in(record.bytesIn);
  message.set_bytes_out(record.bytesOut);
  message.set_method(Kiv::oneLine(record.method));
  message.set_user(Kiv::oneLine(record.user));
  message.set_session(Kiv::oneLine(record.session));
  message.set_proof(Kiv::oneLine(record.proof));
  message.set_peer(Kiv::oneLine(record.peer));
  message.set_traceparent(Kiv::oneLine(record.traceparent));
  message.set_reason(Kiv::oneLine(record.reason));
  message.set_operation(Kiv::oneLine(record.operation));
  message.set_object(Kiv::oneLine(record.object));
  message.set_count(record.count);
}

void fill(gap_msg& message, std::string_view run, std::uint64_t first, std::uint64_t count) {
  message.set_run(run.data(), run.size());
  message.set_first(first);
  message.set_count(count);
}

// Has an event set when there is a record of a number, for its own lifetime.
class Wish {
 public:
  Wish(CallLog& log, std::uint64_t number, rpc::Event& event)
      : log_(log), name_(log.wakeAt(number, [&event] { event.set(); })) {}
  ~Wish() { log_.unwake(name_); }
  Wish(const Wish&) = delete;
  Wish& operator=(const Wish&) = delete;

 private:
  CallLog& log_;
  const std::uint64_t name_;
};

class CallWatchService : public rpc::Service<Accounting> {
 public:
  CallWatchService(std::shared_ptr<CallLog> log, MayWatch mayWatch)
      : Service("Accounting"), log_(std::move(log)), mayWatch_(std::move(mayWatch)) {
    method(&Async::RequestWatch,
           [this](rpc::Writer<watched_msg>& watcher, const watch_msg& wanted) {
             return watch(watcher, wanted);
           });
  }

 private:
  std::optional<grpc::Status> admit(grpc::ServerContext& context, const std::string&) override {
    auto status = mayWatch_(context);
    if (status.ok()) return std::nullopt;
    return status;
  }

  rpc::Task<> watch(rpc::Writer<watched_msg>& watcher, const watch_msg& wanted) {
    rpc::Event news;
    watched_msg message;
    std::uint64_t place = log_->oldest();
    if (wanted.has_from() && wanted.from().run() == log_->run()) {
      place = std::min(wanted.from().number(), log_->next());
    } else if (wanted.has_from()) {
      fill(*message.mutable_gap(), wanted.from().run(), wanted.from().number(), 0);
      place = 1;
      if (!co_await send(watcher, message, place)) co_return grpc::Status::CANCELLED;
    }
    for (;;) {
      if (const auto next = take(place, message); next != place) {
        place = next;
        if (!co_await send(watcher, message, place)) co_return grpc::Status::CANCELLED;
        continue;
      }
      const Wish wish(*log_, place, news);
      auto woken = co_await watcher.wait(news);
      if (woken) woken = co_await watcher.wait(kRest);
      if (!woken) co_return watcher.endStatus();
    }
  }

  // Fills the message with what stands behind the place, and returns the place behind that.
  std::uint64_t take(std::uint64_t place, watched_msg& message) const {
    CallLog::Batch batch;
    message.Clear();
    const auto next = log_->read(place, kBatchMax, batch);
    if (batch.gap.count > 0)
      fill(*message.mutable_gap(), batch.gap.run, batch.gap.first, batch.gap.count);
    for (const auto* record : batch.records)
      fill(*message.add_records(), *record);
    return batch.gap.count == 0 && batch.records.empty() ? place : next;
  }

  // To be awaited.
  rpc::detail::WriteWait send(rpc::Writer<watched_msg>& watcher, watched_msg& message,
                              std::uint64_t next) const {
    message.mutable_next()->set_run(log_->run());
    message.mutable_next()->set_number(next);
    return watcher.write(message);
  }

  const std::shared_ptr<CallLog> log_;
  const MayWatch mayWatch_;
};

}  // namespace

std::shared_ptr<GrpcService> callWatchService(std::shared_ptr<CallLog> log, MayWatch mayWatch) {
  if (!mayWatch) throw std::invalid_argument("somebody has to decide who may watch the accounting");
  return std::make_shared<CallWatchService>(std::move(log), std::move(mayWatch));
}

}  // namespace VornSdkRpc
