#include <VornSdkRpc/CallAccounting.h>

#include <Kiv/Trace.h>
#include <VornSdkRpc/CallRecorder.h>
#include <VornSdkRpc/ConnectionTexts.h>
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <thread>
#include <utility>
#include <vector>

namespace VornSdkRpc {

CallObserver::~CallObserver() = default;

namespace {

using namespace std::chrono_literals;

// How long a sink's thread rests after a batch, so that a busy server's records gather without a
// wake-up for each, and after one that could not be written.
constexpr auto kRest = 2ms;
constexpr auto kLongRest = 100ms;
constexpr std::size_t kBatchMax = 8192;

class RecorderFactory : public grpc::experimental::ServerInterceptorFactoryInterface {
 public:
  RecorderFactory(std::shared_ptr<CallLog> log, std::shared_ptr<CallObserver> observer,
                  bool streamStarts)
      : log_(std::move(log)), observer_(std::move(observer)), streamStarts_(streamStarts) {}

  grpc::experimental::Interceptor* CreateServerInterceptor(
      grpc::experimental::ServerRpcInfo* info) override {
    return new CallRecorder(info, *log_, observer_.get(), streamStarts_);
  }

 private:
  const std::shared_ptr<CallLog> log_;
  const std::shared_ptr<CallObserver> observer_;
  const bool streamStarts_;
};

// A processor that is asked, and a record of what it refuses.
class RecordedProcessor : public grpc::AuthMetadataProcessor {
 public:
  RecordedProcessor(std::shared_ptr<CallLog> log, std::shared_ptr<CallObserver> observer,
                    std::shared_ptr<grpc::AuthMetadataProcessor> processor)
      : log_(std::move(log)), observer_(std::move(observer)), processor_(std::move(processor)) {}

  bool IsBlocking() const override { return processor_->IsBlocking(); }

  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                       OutputMetadata* consumed, OutputMetadata* response) override {
    auto status = processor_->Process(metadata, connection, consumed, response);
    if (!status.ok()) record(metadata, *connection, status);
    return status;
  }

 private:
  void record(const InputMetadata& metadata, const grpc::AuthContext& connection,
              const grpc::Status& status) const {
    const auto header = [&metadata](const char* name) {
      const auto found = metadata.find(name);
      return found == metadata.end() ? std::string_view()
                                     : std::string_view(found->second.data(), found->second.size());
    };
    const std::string user = firstOf(connection, "peer-authenticated", "unknown");
    const std::string session = firstOf(connection, "session-id", "unknown");
    const std::string told = firstOf(connection, kProof, "");
    const std::string transport = firstOf(connection, kTransport, "");
    const std::string reason = reasonOf(status);
    CallRecord denied;
    denied.end = CallEnd::denied;
    denied.status = status.error_code();
    denied.start = CallRecord::Clock::now();
    denied.method = header(":path");
    denied.user = user;
    denied.session = session;
    denied.proof = proofOf(told, transport, connection.IsPeerAuthenticated());
    denied.traceparent = header("traceparent");
    denied.reason = reason;
    if (observer_) observer_->denied(denied);
    log_->append(denied);
  }

  // With the details, which the client is not told: a policy's name and rule, for example.
  static std::string reasonOf(const grpc::Status& status) {
    const std::string details = status.error_details();
    return details.empty() ? status.error_message() : status.error_message() + ": " + details;
  }

  static std::string firstOf(const grpc::AuthContext& connection, const char* name,
                             const char* missing) {
    const auto values = connection.FindPropertyValues(name);
    return values.empty() ? missing : std::string(values[0].data(), values[0].size());
  }

  const std::shared_ptr<CallLog> log_;
  const std::shared_ptr<CallObserver> observer_;
  const std::shared_ptr<grpc::AuthMetadataProcessor> processor_;
};

}  // namespace

// Gives a sink what it has not had yet.
class CallAccounting::Feeder {
 public:
  Feeder(std::shared_ptr<CallLog> log, std::unique_ptr<CallSink> sink)
      : sink_(std::move(sink)), reader_(std::move(log)), thread_([this] { feed(); }) {}
  ~Feeder() {
    reader_.close();
    thread_.join();
  }
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;

  std::uint64_t missed() const { return reader_.missed() + lost_; }
  std::uint64_t waiting() const { return reader_.left(); }

 private:
  void feed() {
    CallLog::Batch batch;
    while (reader_.read(kBatchMax, batch)) {
      const bool all = give(batch);
      if (!reader_.rest(all ? kRest : kLongRest) && !all) break;
    }
    // Nobody waits for the sink any longer than for one more try.
    while (reader_.read(kBatchMax, batch) && give(batch)) {
    }
    lost_ = reader_.left();
    if (lost_ > 0) tellLoss();
  }

  // Returns whether the sink has taken everything.
  bool give(CallLog::Batch& batch) noexcept try {
    if (batch.gap.count > 0) {
      if (!sink_->writeGap(batch.gap)) return false;
      reader_.advance(batch, 0);
      batch.gap = {};
    }
    if (batch.records.empty()) return true;
    const auto taken = sink_->write(batch.records);
    reader_.advance(batch, taken);
    return taken == batch.records.size();
  } catch (const std::exception&) {
    return false;
  }

  void tellLoss() const noexcept try {
    const Kiv::TraceHandle trace("RPCAccounting", false);
    trace.warn(fmt::format("{} records could not be written and are lost", lost_));
  } catch (const std::exception&) {
    // Without memory for the line, the count is left.
  }

  const std::unique_ptr<CallSink> sink_;
  CallLog::Reader reader_;
  std::atomic<std::uint64_t> lost_ = 0;
  std::thread thread_;
};

CallAccounting::CallAccounting(CallAccountingOptions options)
    : log_(std::make_shared<CallLog>(options.log)), streamStarts_(options.streamStarts) {}

CallAccounting::~CallAccounting() = default;

void CallAccounting::add(std::unique_ptr<CallSink> sink) {
  feeders_.emplace_back(log_, std::move(sink));
}

void CallAccounting::observe(std::shared_ptr<CallObserver> observer) {
  observer_ = std::move(observer);
}

std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface>
CallAccounting::interceptors() {
  return std::make_unique<RecorderFactory>(log_, observer_, streamStarts_);
}

void CallAccounting::install(grpc::ServerBuilder& builder) {
  std::vector<std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface>> creators;
  creators.push_back(interceptors());
  builder.experimental().SetInterceptorCreators(std::move(creators));
}

std::shared_ptr<grpc::AuthMetadataProcessor> CallAccounting::recorded(
    std::shared_ptr<grpc::AuthMetadataProcessor> processor) {
  return std::make_shared<RecordedProcessor>(log_, observer_, std::move(processor));
}

std::uint64_t CallAccounting::missed() const {
  std::uint64_t missed = 0;
  for (const auto& feeder : feeders_)
    missed += feeder.missed();
  return missed;
}

std::uint64_t CallAccounting::waiting() const {
  std::uint64_t waiting = 0;
  for (const auto& feeder : feeders_)
    waiting = std::max(waiting, feeder.waiting());
  return waiting;
}

}  // namespace VornSdkRpc
