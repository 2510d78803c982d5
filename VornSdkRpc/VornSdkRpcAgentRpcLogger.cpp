#include <VornSdkRpc/VornSdkRpcAgentRpcLogger.h>

#include <Kiv/Line.h>
#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <Velm/FmTrace.h>
#include <VornSdkRpc/AccountingLine.h>
#include <VornSdkRpc/ConnectionTexts.h>
#include <VornSdkRpc/RefusedMessage.h>
#include <fmt/format.h>
#include <grpc/grpc.h>
#include <grpc/grpc_security.h>
#include <grpcpp/server_context.h>

#include <chrono>
#include <exception>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace VornSdkRpc {

namespace {

// Tools find the message in this section, without running the library: the linker and strip must
// keep it, and it must hold nothing else. The loader writes the addresses.
[[gnu::section(".tolmar_logmsg"), gnu::used,
  gnu::retain]] constinit Kiv::LogDescriptor accountingDescriptor = {
    "VORNSDKRPC_ACCOUNTING_RPC", "user: %s, session: %s, peer: %s, rpc: %s, status: %s",
    "RPC request received by the VornSdkRpc server from a client", "\x01", 6};

// Every record is written: accounting suppresses nothing.
Kiv::LogHandle accountingLogHandle(&accountingDescriptor, Velm::Duration(0), 1.0, 0U, 0U);

Kiv::TraceHandle& _defaultTraceHandle() {
  static Kiv::TraceHandle handle("RPCAccounting", false);
  return handle;
}

// gRPC deletes both through their bases.
static_assert(std::has_virtual_destructor_v<grpc::experimental::Interceptor>);
static_assert(std::has_virtual_destructor_v<grpc::experimental::ServerInterceptorFactoryInterface>);

// How long the consumer rests after a batch. A wake-up is most of what accounting costs a server;
// while the consumer rests, a busy server's records gather without one. A record that comes to a
// consumer with nothing to do is written at once, and a close waits for no rest.
constexpr auto kRest = std::chrono::milliseconds(2);

// What a client chooses, it also chooses the length of. A field has at most so many bytes as sent.
constexpr std::size_t kFieldMax = 1024;

std::string field(std::string sent) {
  if (sent.size() <= kFieldMax) return sent;
  return Kiv::cutTo(std::move(sent), kFieldMax);
}

void traceBatch(unsigned long size) noexcept {
  try {
    if (_defaultTraceHandle().enabled(8)) {
      Velm::fmtrace(_defaultTraceHandle(), 8, __FILE__, "consumer", __LINE__,
                    "LoggingInterceptorFactory", "Draining backlog (size {})", size);
    }
  } catch (const std::exception&) {
    // Without memory for the line, the trace is the poorer and accounting goes on.
  }
}

// Writes records. Memory that has run out for a moment costs neither the process nor a record:
// nothing of it has been written when the log call throws, and it is tried again. An outage has one
// budget of rests, whatever the number of records; once the queue is closed somebody waits for it,
// and a record is tried once more at once.
class RecordWriter {
 public:
  explicit RecordWriter(SynchronizedQueue<LogMessageData>& queue) : queue_(queue) {}
  ~RecordWriter() { tellLoss(); }
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;

  void write(const std::deque<LogMessageData>& batch) noexcept {
    const Kiv::LogBatch lines;
    for (const auto& record : batch)
      write(record);
  }

 private:
  static constexpr int kRestsMax = 100;  // a second

  void write(const LogMessageData& record) noexcept {
    for (bool last = false; !isWritten(record);) {
      if (last || rests_ == kRestsMax) {
        ++lost_;
        return;
      }
      last = queue_.isClosed();
      if (last) continue;
      ++rests_;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    rests_ = 0;
    tellLoss();
  }

  static bool isWritten(const LogMessageData& record) {
    try {
      writeAccountingLine(record.user, record.session, record.peer, record.rpc, record.status);
      return true;
    } catch (const std::exception&) {
      return false;
    }
  }

  void tellLoss() noexcept {
    if (lost_ == 0) return;
    try {
      _defaultTraceHandle().warn(
          fmt::format("{} records could not be written and are lost", lost_));
      lost_ = 0;
    } catch (const std::exception&) {
      // It is told behind the next record, when there is memory.
    }
  }

  SynchronizedQueue<LogMessageData>& queue_;
  int rests_ = 0;  // of this outage
  std::uint64_t lost_ = 0;
};

}  // namespace

void writeAccountingLine(std::string_view user, std::string_view session, std::string_view peer,
                         std::string_view rpc, std::int32_t status) {
  Kiv::log(accountingLogHandle, user, session, peer, rpc, status);
}

void LoggingInterceptor::Intercept(grpc::experimental::InterceptorBatchMethods* methods) {
  using Point = grpc::experimental::InterceptionHookPoints;
  if (methods->QueryInterceptionHookPoint(Point::POST_RECV_INITIAL_METADATA))
    peer_ = info_->server_context()->peer();
  if (methods->QueryInterceptionHookPoint(Point::POST_RECV_MESSAGE) &&
      methods->GetRecvMessage() == nullptr && isRefusedMessage(*info_)) {
    messageRefused_ = true;
  }
  if (methods->QueryInterceptionHookPoint(Point::PRE_SEND_STATUS)) account(*methods);
  methods->Proceed();
}

void LoggingInterceptor::account(grpc::experimental::InterceptorBatchMethods& methods) {
  auto* const call = info_->server_context();
  // The context's own properties, which it would take copies to tell.
  const ConnectionTexts connection(grpc_call_auth_context(call->c_call()));
  const std::int32_t status =
      messageRefused_ ? grpc::RESOURCE_EXHAUSTED : methods.GetSendStatus().error_code();
  LogMessageData record{
      field(std::string(connection.user())), field(std::string(connection.session())),
      field(peer_.empty() ? call->peer() : std::move(peer_)), field(info_->method()), status};
  if (_defaultTraceHandle().enabled(9)) {
    Velm::fmtrace(_defaultTraceHandle(), 9, __FILE__, "Intercept", __LINE__, "LoggingInterceptor",
                  "Enqueueing message");
  }
  queue_->push(std::move(record));
}

LoggingInterceptorFactory::LoggingInterceptorFactory() {
  _defaultTraceHandle();  // made before a factory of static storage duration, it outlives that
  // Not in thread_'s initializer: the queue comes after it.
  thread_ = std::jthread([this] { consumer(); });
}

LoggingInterceptorFactory::~LoggingInterceptorFactory() {
  queue_.close();
  thread_.join();
}

grpc::experimental::Interceptor* LoggingInterceptorFactory::CreateServerInterceptor(
    grpc::experimental::ServerRpcInfo* info) {
  return new LoggingInterceptor(info, &queue_);
}

void LoggingInterceptorFactory::consumer() {
  RecordWriter writer(queue_);
  std::deque<LogMessageData> batch;
  while (queue_.swap(batch)) {
    traceBatch(batch.size());
    writer.write(batch);
    batch.clear();
    queue_.rest(kRest);
  }
}

}  // namespace VornSdkRpc
