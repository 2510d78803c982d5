#include <VornSdkRpc/RpcMachinery.h>

#include <VornSdkRpc/CallNote.h>
#include <VornSdkRpc/RpcEvent.h>
#include <VornSdkRpc/RpcService.h>
#include <google/protobuf/descriptor.h>
#include <grpc/grpc.h>
#include <grpc/support/time.h>

#include <algorithm>
#include <cassert>
#include <stdexcept>

namespace VornSdkRpc::rpc::detail {

namespace {

// Clears the hints that let gRPC buffer the item: a buffered write would stall the coroutine.
grpc::WriteOptions atOnce(grpc::WriteOptions options) {
  return options.clear_buffer_hint().clear_last_message();
}

// Ends a call that has one reply. Only an OK sends the reply.
void finishWith(UnaryStream& answer, const MessageLite& reply, const grpc::Status& status,
                OpaqueId tag) {
  if (status.ok()) {
    answer.Finish(reply, status, tag);
  } else {
    answer.FinishWithError(status, tag);
  }
}

grpc::Status overLimit(const grpc::ServerContext& context, const char* text) {
  constexpr std::chrono::milliseconds kAfter{1000};
  noteLimit(context);
  return StatusError(grpc::StatusCode::RESOURCE_EXHAUSTED, text).retryAfter(kAfter).status();
}

// One call of a method that nothing serves.
class UnservedCall final : public RequestHandler {
 public:
  UnservedCall(Method& method, OpaqueId tag) : method_(method) {
    opaqueId_ = tag;
    method.ask(context_, nullptr, stream_, tag);
  }

  RequestHandlerPtr spawn(OpaqueId tag) override { return method_.make(tag); }

  // The state stays AWAITING_CALL: process() takes this for the last operation.
  void proceed(OpaqueId tag) override {
    stream_.Finish({grpc::StatusCode::UNIMPLEMENTED, ""}, tag);
  }

 private:
  Method& method_;
  grpc::ServerContext context_;
  Stream stream_{&context_};
};

}  // namespace

grpc::Status noMessage() {
  return {grpc::StatusCode::INVALID_ARGUMENT, "the request's bytes are no message of its type"};
}

// ------------------------------------------------------------------------------------------------
// Method

Method::Method(ServiceBase& service, Kind kind_, int number_, MethodOptions options_)
    : kind(kind_),
      number(number_),
      options(std::move(options_)),
      service_(service),
      path_("/" + service.descriptor_->full_name() + "/" +
            service.descriptor_->method(number)->name()) {}

Method::~Method() = default;

void Method::ask(grpc::ServerContext& context, Arriving* request, AnyStream& stream,
                 OpaqueId tag) const {
  service_.ask(*this, context, request, stream, tag);
}

RequestHandlerPtr UnservedMethod::make(OpaqueId tag) {
  return std::make_shared<UnservedCall>(*this, tag);
}

// ------------------------------------------------------------------------------------------------
// FunctionCall

FunctionCall::FunctionCall(Method& method, OpaqueId tag) : method_(method) { opaqueId_ = tag; }

FunctionCall::~FunctionCall() = default;

RequestHandlerPtr FunctionCall::spawn(OpaqueId tag) { return method_.make(tag); }

// Finishes in one step. State AWAITING_CALL, left as it is, tells process() that nothing else is
// outstanding.
void FunctionCall::proceed(OpaqueId tag) {
  auto& service = method_.service();
  assert(service.completionOk() && "what the server gives back, it does not hand to a handler");
  Wakeups::Turn turn(*service.wakeups_);
  const grpc::Status status = outcome();
  service.chargeClient();
  if (!status.ok()) service.traceFailure(context_, method_, status);
  finishWith(answer_, reply(), status, tag);
  turn.finish();
}

grpc::Status FunctionCall::outcome() {
  auto& service = method_.service();
  if (auto refusal = service.refusal(context_, method_, mark())) return *std::move(refusal);
  try {
    return serve(context_);
  } catch (...) {
    return service.thrown(context_, method_);
  }
}

// ------------------------------------------------------------------------------------------------
// Exchange: the call's life

Exchange::Exchange(Method& method, OpaqueId tag)
    : method_(method),
      endTag_(method.service().nextOpaqueId()),
      sleeper_(*method.service().wakeups_, this,
               [](void* self) { static_cast<Exchange*>(self)->look(); }) {
  opaqueId_ = tag;
  context_.AsyncNotifyWhenDone(endTag_);
}

// Derived classes have called abandon(): the coroutine refers to their members.
Exchange::~Exchange() { leave(); }

RequestHandlerPtr Exchange::spawn(OpaqueId tag) { return method_.make(tag); }

void Exchange::withdrawn(OpaqueId) { service().removeHandler(endTag_); }

void Exchange::putOff() { hearOfEnd(); }

void Exchange::hearOfEnd() {
  if (std::exchange(hearsOfEnd_, true)) return;
  service().registerHandlerAs(endTag_, shared_from_this());  // completes for every call that came
}

void Exchange::proceed(OpaqueId tag) {
  const bool ok = service().completionOk();
  // The client may have gone while the call waited for its turn.
  if (state_ == AWAITING_CALL && endedBy_ != EndedBy::nothing) return service().removeHandler(tag);
  Wakeups::Turn turn(*service().wakeups_);
  if (state_ == AWAITING_CALL) {
    arrived();
  } else if (tag == opaqueId_) {
    writeDone(ok);
  } else if (tag == readTag_) {
    readDone(ok);
  } else {
    service().removeHandler(tag);
    over(whyGone());
  }
  turn.finish();
}

void Exchange::arrived() {
  state_ = IN_PROGRESS;
  hearOfEnd();
  enter();
  if (auto status = refusal()) return conclude(*std::move(status));
  try {
    task_ = serve();
    task_.start();
  } catch (...) {
    return conclude(service().thrown(context_, method_));
  }
  service().chargeClient();
  if (task_.done()) conclude(outcome());
}

std::optional<grpc::Status> Exchange::refusal() {
  if (auto status = service().refusal(context_, method_, mark())) return status;
  if (method_.options.limit != 0 && method_.inProgress >= method_.options.limit)
    return overLimit(context_, "too many calls of this method are in progress");
  for (auto* limits : {service().limits_.get(), method_.options.limits.get()}) {
    if (!limits) continue;
    auto claim = limits->claim(context_);
    if (!claim) return overLimit(context_, "too many calls of this client are in progress");
    claims_.push_back(*std::move(claim));
  }
  counted_ = true;
  ++method_.inProgress;
  return std::nullopt;
}

// Appends the call to the service's list of calls.
void Exchange::enter() {
  auto& service = this->service();
  previous_ = service.lastCall_;
  (previous_ ? previous_->next_ : service.firstCall_) = this;
  service.lastCall_ = this;
  entered_ = true;
  if (method_.kind != Kind::unary && method_.options.idle > method_.options.idle.zero()) {
    idle_.emplace(*service.wakeups_, this,
                  [](void* self) { static_cast<Exchange*>(self)->mayBeIdle(); });
    activeAt_ = service.now();
    idle_->at(activeAt_ + method_.options.idle);
  }
}

Clock::duration Exchange::age(Clock::time_point now) const {
  return begunAt_ ? now - *begunAt_ : Clock::duration::zero();
}

void Exchange::leave() noexcept {
  if (!std::exchange(entered_, false)) return;
  auto& service = this->service();
  (previous_ ? previous_->next_ : service.firstCall_) = next_;
  (next_ ? next_->previous_ : service.lastCall_) = previous_;
  idle_.reset();
  claims_.clear();
  if (std::exchange(counted_, false)) --method_.inProgress;
}

void Exchange::mayBeIdle() {
  const auto end = activeAt_ + method_.options.idle;
  // NOLINTNEXTLINE(bugprone-unchecked-optional-access): it is idle_ that calls this
  if (service().now() < end) return idle_->at(end);
  settled_ = grpc::Status(grpc::StatusCode::DEADLINE_EXCEEDED,
                          "the stream did nothing for longer than it may");
  over(EndedBy::idle);
}

grpc::Status Exchange::outcome() {
  try {
    return task_.take();
  } catch (...) {
    return service().thrown(context_, method_);
  }
}

// Ends the call when its coroutine has ended, or has never begun.
void Exchange::conclude(grpc::Status status) {
  abandon();
  sleeper_.cancel();
  leave();
  if (settled_) {
    status = *std::move(settled_);
  } else if (endedBy_ != EndedBy::nothing &&
             (status.ok() || status.error_code() == grpc::StatusCode::CANCELLED)) {
    // The client does not get the status, but accounting records it.
    status = endedBy_ == EndedBy::deadline
                 ? grpc::Status(grpc::StatusCode::DEADLINE_EXCEEDED, "the deadline has passed")
                 : grpc::Status(grpc::StatusCode::CANCELLED, "the client has cancelled");
  }
  if (!status.ok()) service().traceFailure(context_, method_, status);
  if (!writing_) return finish(status);
  // The status would wait behind a message that the client does not read.
  concluding_ = true;
  settled_ = std::move(status);
  context_.TryCancel();
}

void Exchange::finish(const grpc::Status& status) {
  state_ = FINISHED;
  if (readTag_ && !reading_) service().removeHandler(readTag_);
  sendStatus(status, opaqueId_);
}

// ------------------------------------------------------------------------------------------------
// Exchange: the end on the wire

EndedBy Exchange::endedBy() const {
  if (endedBy_ != EndedBy::nothing || !service().stopping()) return endedBy_;
  return service().draining() ? EndedBy::drained : EndedBy::stopped;
}

std::chrono::nanoseconds Exchange::remaining() const {
  const gpr_timespec deadline = context_.raw_deadline();
  if (gpr_time_cmp(deadline, gpr_inf_future(deadline.clock_type)) == 0)
    return std::chrono::nanoseconds::max();
  const gpr_timespec left = gpr_time_sub(deadline, gpr_now(deadline.clock_type));
  const auto time = std::chrono::seconds(left.tv_sec) + std::chrono::nanoseconds(left.tv_nsec);
  return std::max(time, std::chrono::nanoseconds::zero());
}

// A client cancels when its own deadline passes. That is earlier than the server's: by the time
// that the call took to arrive, and by the rounding of the deadline on the wire, a share of its
// length.
EndedBy Exchange::whyGone() const {
  constexpr std::chrono::nanoseconds kWay = std::chrono::milliseconds(20);
  const auto left = remaining();
  if (left == std::chrono::nanoseconds::max()) return EndedBy::cancelled;
  const auto given = left + age(service().now());
  return left <= kWay + given / 32 ? EndedBy::deadline : EndedBy::cancelled;
}

void Exchange::over(EndedBy why) {
  if (endedBy_ == EndedBy::nothing) endedBy_ = why;
  look();
}

// ------------------------------------------------------------------------------------------------
// Exchange: waiting

bool Exchange::begin(Wait& wait) {
  assert(service().wakeups_->onServingThread() && "a call is waited for on the server's thread");
  assert(!wait_ && "a coroutine of a call waits while another one does");
  const auto reason = reasonOf(wait);
  if (reason) wait.woke_ = *reason;
  return reason.has_value();
}

void Exchange::suspend(Wait& wait, std::coroutine_handle<> awaiting) {
  wait_ = &wait;
  suspended_ = awaiting;
  // The clock is read only here: a call that ends without a wait does not pay for it.
  const auto span = wait.limit_.kind_ == Limit::Kind::span;
  const auto now = span || !begunAt_ ? service().now() : Clock::time_point();
  if (!begunAt_) begunAt_ = now;
  if (wait.limit_.kind_ != Limit::Kind::none) {
    wait.end_ = span ? now + wait.limit_.span_ : Clock::time_point(wait.limit_.span_);
    sleeper_.at(wait.end_);
  }
  if (wait.event_) wait.event_->wakes(&sleeper_);
}

void Exchange::forget(Wait& wait) noexcept {
  wait_ = nullptr;
  if (wait.event_) wait.event_->wakes(nullptr);
  sleeper_.cancel();
}

void Exchange::abandon() noexcept {
  if (wait_) forget(*wait_);
  task_ = {};
}

void Exchange::look() {
  if (!wait_) return;
  Wait& wait = *wait_;
  const auto reason = reasonOf(wait);
  if (!reason) return;
  wait.woke_ = *reason;
  forget(wait);
  std::exchange(suspended_, nullptr).resume();
  if (task_.done()) conclude(outcome());
}

std::optional<Woke> Exchange::reasonOf(Wait& wait) {
  using For = Wait::For;
  const bool writes = wait.what_ == For::write || wait.what_ == For::metadata;
  if (endedBy_ != EndedBy::nothing && !(writes && writing_)) return Woke::over;
  if (writes && isWritten(wait)) return Woke::written;
  if (wait.what_ == For::message) {
    if (const auto read = readReason(wait)) return read;
  }
  if (wait.event_ && wait.event_->take()) return Woke::event;
  if (wait.toldOfDrain_ && service().draining() && !std::exchange(toldOfDrain_, true))
    return Woke::draining;
  if (wait.end_ != Clock::time_point::max() && wait.end_ <= service().now()) return Woke::time;
  return std::nullopt;
}

std::optional<Woke> Exchange::readReason(Wait& wait) {
  if (std::exchange(received_, false)) {
    giveTo(*wait.into_);
    return Woke::message;
  }
  if (streamEnded_) return Woke::end;
  if (!std::exchange(reading_, true)) {
    if (!readTag_) readTag_ = service().assignExtraTag(shared_from_this());
    startRead(readTag_);
  }
  return std::nullopt;
}

void Exchange::readDone(bool ok) {
  reading_ = false;
  active();
  if (concluding_) return;
  if (ok) noteBytesIn(context_, mark().size);
  if (ok && !mark().malformed) {
    received_ = true;
  } else if (ok) {
    settled_ = noMessage();
    return over(EndedBy::malformed);
  } else if (grpc_call_failed_before_recv_message(context_.c_call()) != 0) {
    return over(whyGone());
  } else {
    streamEnded_ = true;
  }
  look();
}

// Starts the write when none is in flight. Returns whether it is done.
bool Exchange::isWritten(Wait& wait) {
  if (writing_) return false;
  if (std::exchange(wait.started_, true)) return true;
  if (wait.what_ == Wait::For::metadata) {
    if (metadataSent_) throw std::logic_error("the initial metadata have been sent");
    wire().SendInitialMetadata(opaqueId_);
  } else {
    startWrite(*wait.item_, atOnce(wait.options_), opaqueId_);
  }
  writing_ = metadataSent_ = true;
  return false;
}

void Exchange::writeDone(bool ok) {
  writing_ = false;
  active();
  // NOLINTNEXTLINE(bugprone-unchecked-optional-access): set with concluding_
  if (concluding_) return finish(*settled_);
  if (!ok) return over(whyGone());
  look();
}

void Exchange::active() {
  if (idle_) activeAt_ = service().now();
}

// ------------------------------------------------------------------------------------------------
// UnaryExchange, StreamExchange

UnaryExchange::UnaryExchange(Method& method, OpaqueId tag) : Exchange(method, tag) {}
UnaryExchange::~UnaryExchange() = default;

AnyStream& UnaryExchange::wire() { return answer_; }
void UnaryExchange::startRead(OpaqueId) {}
void UnaryExchange::startWrite(const MessageLite&, grpc::WriteOptions, OpaqueId) {}

void UnaryExchange::sendStatus(const grpc::Status& status, OpaqueId tag) {
  finishWith(answer_, reply(), status, tag);
}

StreamExchange::StreamExchange(Method& method, OpaqueId tag) : Exchange(method, tag) {}
StreamExchange::~StreamExchange() = default;

AnyStream& StreamExchange::wire() { return stream_; }

void StreamExchange::startRead(OpaqueId tag) { stream_.Read(arriving(), tag); }

void StreamExchange::startWrite(const MessageLite& item, grpc::WriteOptions options, OpaqueId tag) {
  stream_.Write(item, options, tag);
}

void StreamExchange::sendStatus(const grpc::Status& status, OpaqueId tag) {
  if (method().kind == Kind::clientStreaming && status.ok()) {
    stream_.WriteAndFinish(reply(), {}, status, tag);
  } else {
    stream_.Finish(status, tag);
  }
}

const char* Exchange::waitsFor() const {
  if (!wait_) return "nothing";
  switch (wait_->what_) {
    case Wait::For::message:
      return wait_->event_ ? "a message or an event" : "a message";
    case Wait::For::write:
      return "a write";
    case Wait::For::metadata:
      return "its initial metadata";
    case Wait::For::wakeup:
      break;
  }
  return wait_->event_ ? "an event" : "a time";
}

}  // namespace VornSdkRpc::rpc::detail

namespace grpc {

using VornSdkRpc::rpc::detail::Arriving;
using VornSdkRpc::rpc::detail::Mark;
using VornSdkRpc::rpc::detail::MessageLite;

Status SerializationTraits<Arriving, void>::Deserialize(ByteBuffer* bytes, Arriving* arriving) {
  if (!arriving) {  // the method has no use for it
    bytes->Clear();
    return Status::OK;
  }
  auto* message = reinterpret_cast<MessageLite*>(arriving);
  auto* mark = reinterpret_cast<Mark*>(arriving) - 1;
  mark->size = bytes->Length();
  mark->malformed = !SerializationTraits<MessageLite>::Deserialize(bytes, message).ok();
  return Status::OK;
}

}  // namespace grpc
