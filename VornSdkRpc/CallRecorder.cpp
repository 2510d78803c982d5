#include <VornSdkRpc/CallRecorder.h>

#include <VornSdkRpc/CallNote.h>
#include <VornSdkRpc/Completion.h>
#include <VornSdkRpc/ConnectionTexts.h>
#include <VornSdkRpc/RefusedMessage.h>
#include <grpc/grpc.h>
#include <grpc/support/alloc.h>
#include <grpcpp/server_context.h>
#include <vorn/mutex.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <utility>

namespace VornSdkRpc {

namespace {

using Point = grpc::experimental::InterceptionHookPoints;

std::string_view viewOf(const grpc::string_ref& text) { return {text.data(), text.size()}; }

struct GprFree {
  void operator()(char* text) const { gpr_free(text); }
};

// Appends a text, for which there is room, and returns where it is.
std::string_view appended(std::string& texts, std::string_view text) {
  texts += text;
  return std::string_view(texts).substr(texts.size() - text.size());
}

std::atomic<bool> anyNoted = false;  // since the process began

bool isStream(const grpc::experimental::ServerRpcInfo& info) {
  return info.type() != grpc::experimental::ServerRpcInfo::Type::UNARY;
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// NotedCall

struct NotedCall::Bucket {
  vorn::mutex mutex;
  NotedCall* first VORN_GUARDED_BY(mutex) = nullptr;
};

NotedCall::Bucket& NotedCall::bucketOf(const grpc::ServerContextBase* call) {
  static constinit std::array<Bucket, 64> buckets;
  const auto hash = reinterpret_cast<std::uintptr_t>(call) * 0x9e3779b97f4a7c15U;
  return buckets[hash >> 58];
}

NotedCall::NotedCall(const grpc::ServerContextBase* call) : call_(call) {
  if (!anyNoted.load(std::memory_order_relaxed)) anyNoted = true;
  auto& bucket = bucketOf(call_);
  const vorn::lock_guard lock(bucket.mutex);
  next_ = std::exchange(bucket.first, this);
}

CallNote NotedCall::take() {
  auto& bucket = bucketOf(call_);
  const vorn::lock_guard lock(bucket.mutex);
  if (std::exchange(listed_, false)) {
    auto** link = &bucket.first;
    while (*link != this)
      link = &(*link)->next_;
    *link = next_;
  }
  return std::move(note_);
}

// The newest call of a context is its present one: an interceptor may outlive the call's context.
template <typename Change>
void NotedCall::change(const grpc::ServerContextBase* call, Change change) {
  if (!anyNoted.load(std::memory_order_relaxed)) return;
  auto& bucket = bucketOf(call);
  const vorn::lock_guard lock(bucket.mutex);
  for (auto* noted = bucket.first; noted != nullptr; noted = noted->next_) {
    if (noted->call_ == call) return change(noted->note_);
  }
}

void noteOperation(const grpc::ServerContextBase& call, std::string_view operation,
                   std::string_view object, std::uint64_t count) {
  NotedCall::change(&call, [&](CallNote& note) {
    note.operation = operation;
    note.object = object;
    note.count = count;
  });
}

void noteLimit(const grpc::ServerContextBase& call) {
  NotedCall::change(&call, [](CallNote& note) { note.limit = true; });
}

void noteBytesIn(const grpc::ServerContextBase& call, std::uint64_t bytes) {
  NotedCall::change(&call, [bytes](CallNote& note) {
    note.bytesIn = note.bytesIn == CallRecord::kUnknown ? bytes : note.bytesIn + bytes;
  });
}

// ------------------------------------------------------------------------------------------------
// CallRecorder

CallRecorder::CallRecorder(grpc::experimental::ServerRpcInfo* info, CallLog& log,
                           CallObserver* observer, bool recordsStart)
    : info_(info),
      log_(log),
      observer_(observer),
      noted_(info->server_context()),
      recordsStart_(recordsStart) {
  record_.start = CallRecord::Clock::now();
}

// One that was made for a call that never came has not begun.
CallRecorder::~CallRecorder() {
  if (begun_ && !appended_) leaveUnanswered();
}

void CallRecorder::Intercept(grpc::experimental::InterceptorBatchMethods* methods) {
  if (methods->QueryInterceptionHookPoint(Point::POST_RECV_INITIAL_METADATA)) begin(*methods);
  if (methods->QueryInterceptionHookPoint(Point::POST_RECV_MESSAGE)) received(*methods);
  if (methods->QueryInterceptionHookPoint(Point::POST_RECV_CLOSE)) closed();
  if (methods->QueryInterceptionHookPoint(Point::PRE_SEND_MESSAGE)) sending(*methods);
  if (methods->QueryInterceptionHookPoint(Point::PRE_SEND_STATUS))
    answering(methods->GetSendStatus().error_code());
  methods->Proceed();
}

// Takes everything that names the call at once: when it is given up, gRPC forgets its peer, and its
// context may be gone before it is.
void CallRecorder::begin(grpc::experimental::InterceptorBatchMethods& methods) {
  auto* const call = info_->server_context();
  const ConnectionTexts connection(grpc_call_auth_context(call->c_call()));
  const std::unique_ptr<char, GprFree> peer(grpc_call_get_peer(call->c_call()));
  const auto* const metadata = methods.GetRecvInitialMetadata();
  const auto trace = metadata->find("traceparent");
  const auto traceparent = trace == metadata->end() ? std::string_view() : viewOf(trace->second);
  const std::string_view texts[] = {info_->method(),    connection.user(), connection.session(),
                                    connection.proof(), peer.get(),        traceparent};
  std::size_t size = 0;
  for (const auto text : texts)
    size += text.size();
  texts_.reserve(size);
  record_.method = appended(texts_, texts[0]);
  record_.user = appended(texts_, texts[1]);
  record_.session = appended(texts_, texts[2]);
  record_.proof = appended(texts_, texts[3]);
  record_.peer = appended(texts_, texts[4]);
  record_.traceparent = appended(texts_, texts[5]);
  record_.deadline = call->deadline();
  begun_ = true;
  if (observer_ != nullptr) observed_ = observer_->begun(record_.method);
  if (recordsStart_ && isStream(*info_)) {
    record_.end = CallEnd::begun;
    log_.append(record_);
  }
}

void CallRecorder::received(grpc::experimental::InterceptorBatchMethods& methods) {
  if (methods.GetRecvMessage() != nullptr) {
    ++record_.messagesIn;
    if (observer_ != nullptr) observer_->received(observed_);
  } else if (!appended_ && isRefusedMessage(*info_)) {
    messageRefused_ = true;
  }
}

void CallRecorder::sending(grpc::experimental::InterceptorBatchMethods& methods) {
  ++record_.messagesOut;
  record_.bytesOut += methods.GetSerializedSendMessage()->Length();
  if (observer_ != nullptr) observer_->sent(observed_);
}

void CallRecorder::closed() {
  if (appended_) return;
  ended_ = Steady::now();
  stopped_ = completion::isStopping();
}

void CallRecorder::answering(std::int32_t status) {
  record_.sent = status;
  if (!messageRefused_ && ended_ != Steady::time_point()) return leaveUnanswered();
  record_.end = messageRefused_ ? CallEnd::refused : CallEnd::answered;
  record_.status = messageRefused_ ? grpc::RESOURCE_EXHAUSTED : status;
  append();
}

void CallRecorder::leaveUnanswered() {
  if (ended_ == Steady::time_point()) ended_ = Steady::now();
  record_.end = stopped_ ? CallEnd::stopped : CallEnd::abandoned;
  record_.status = stopped_      ? grpc::UNAVAILABLE
                   : isExpired() ? grpc::DEADLINE_EXCEEDED
                                 : grpc::CANCELLED;
  append();
}

// A client's deadline comes before the agent's idea of it, by what the call's way here took longer
// than that of its end.
bool CallRecorder::isExpired() const {
  if (record_.deadline == CallRecord::kNoDeadline) return false;
  const auto allowed = record_.deadline - record_.start;
  const auto early =
      std::min<std::chrono::nanoseconds>(std::chrono::milliseconds(100), allowed / 10);
  return ended_ - began_ >= allowed - early;
}

void CallRecorder::append() {
  const CallNote note = noted_.take();
  if (note.limit && record_.end == CallEnd::answered) record_.end = CallEnd::refused;
  record_.operation = note.operation;
  record_.object = note.object;
  record_.count = note.count;
  record_.bytesIn = note.bytesIn;
  record_.duration = (ended_ == Steady::time_point() ? Steady::now() : ended_) - began_;
  if (observer_ != nullptr) observer_->ended(observed_, record_);
  log_.append(record_);
  appended_ = true;
}

}  // namespace VornSdkRpc
