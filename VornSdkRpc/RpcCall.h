#pragma once

// What a coroutine is given: the call that it serves, and its streams.
//
// A unary method gets an rpc::Call, one whose client streams an rpc::Reader, one whose server
// streams an rpc::Writer, and one where both do an rpc::ReaderWriter. What takes time is awaited,
// and what comes back tells why: in a condition it is true as long as there is something to go on
// with, and compared with one of the reasons it says which.
//
//   rpc::Task<> follow(rpc::ReaderWriter<ip_route_msg, count_msg>& client, rpc::Event& news) {
//     ip_route_msg route;
//     count_msg count;
//     for (;;) {
//       const rpc::Woke woke = co_await client.read(route, news, 3s);  // whichever comes first
//       if (!woke) break;  // the end of the client's stream, or of the call
//       if (woke == rpc::Woke::time) co_return silent();
//       if (woke == rpc::Woke::message) count.set_count(count.count() + 1);
//       if (!co_await client.write(count)) break;
//     }
//     co_return grpc::Status::OK;
//   }
//
// Rules. Everything here is for the server's thread, which is asserted, and for the coroutine of
// the call, which awaits one thing at a time. When a call is over (its client has cancelled or
// gone, or its deadline has passed), what is awaited comes back with Woke::over, and so does all
// that is awaited after it; the coroutine then runs to its end. A drain of the server ends a wait
// for an event as well, so that a watch whose loop goes by what it awaits needs no word for it;
// endStatus() is what it ends with.
//
// A read or a write that has been started goes on when its wait ends for another reason, and the
// next read() or write() takes it up; so both sides of a ReaderWriter can be under way at once.
//
// Fine print. A wait for an event, and one for whichever of several comes first, is told of a drain
// with Woke::draining, once for each call. One for a message, a write or a time alone is not, nor
// is waitThroughDrain(). When several reasons hold, the first of this order is told: over, written,
// message or end, event, draining, time. The others are not lost. A wait for a time that has passed
// already is a turn for the other calls.

#include <VornSdkRpc/RpcWakeups.h>
#include <google/protobuf/message_lite.h>
#include <grpcpp/grpcpp.h>
#include <vorn/export.h>

#include <chrono>
#include <coroutine>
#include <cstdint>

namespace VornSdkRpc::rpc {

class Event;

namespace detail {
class Exchange;
}  // namespace detail

// Why a wait has ended.
class Woke {
 public:
  enum class Reason : std::uint8_t {
    over,      // the call is over: Call::endedBy() says why
    end,       // the client's stream has ended
    message,   // a message has been read
    written,   // gRPC has taken what was written
    event,     // the event was set
    time,      // the time has passed
    draining,  // the server is being drained: what can end by itself should
  };
  static constexpr Reason over = Reason::over;
  static constexpr Reason end = Reason::end;
  static constexpr Reason message = Reason::message;
  static constexpr Reason written = Reason::written;
  static constexpr Reason event = Reason::event;
  static constexpr Reason time = Reason::time;
  static constexpr Reason draining = Reason::draining;

  Woke(Reason reason) : reason_(reason) {}  // NOLINT(google-explicit-constructor)

  // Whether there is something to go on with: neither the call nor the stream is at its end, nor
  // does the server want it to be.
  explicit operator bool() const {
    return reason_ != over && reason_ != end && reason_ != draining;
  }

  operator Reason() const { return reason_; }  // NOLINT(google-explicit-constructor)

 private:
  Reason reason_;
};

// Why a call is over before its coroutine has ended it.
enum class EndedBy : std::uint8_t {
  nothing,    // it is not over
  cancelled,  // the client has cancelled it or is gone
  deadline,   // its deadline has passed
  malformed,  // the client has sent bytes that are no message
  idle,       // it did nothing for longer than MethodOptions::idle
  drained,    // the grace of a drain was over; for the destructors of a coroutine's locals
  stopped,    // the server has stopped; for the same
};

// How long a wait may last: a time from now, or a point of rpc::Clock. From a year on it
// is for ever.
class Limit {
 public:
  template <typename Rep, typename Period>
  Limit(std::chrono::duration<Rep, Period> fromNow) {  // NOLINT(google-explicit-constructor)
    constexpr std::chrono::duration<Rep, Period> kNone{};
    if (fromNow < std::chrono::hours(24 * 365)) {
      kind_ = Kind::span;
      span_ = fromNow <= kNone ? Clock::duration::zero()
                               : std::chrono::duration_cast<Clock::duration>(fromNow);
    }
  }
  Limit(Clock::time_point point)  // NOLINT(google-explicit-constructor)
      : kind_(Kind::point), span_(point.time_since_epoch()) {}

 private:
  friend class detail::Exchange;
  enum class Kind : std::uint8_t { none, span, point };

  Kind kind_ = Kind::none;
  Clock::duration span_{};
};
inline const Limit forever = std::chrono::hours::max();

namespace detail {

// What an operation of a call returns, to be awaited at once. Its destruction does nothing, so that
// it does no harm either where g++ 12 destroys a temporary too often.
class [[nodiscard]] Wait {
 public:
  enum class For : std::uint8_t { wakeup, message, write, metadata };

  Wait(Exchange& exchange, For what, Event* event, Limit limit, bool toldOfDrain) noexcept
      : exchange_(exchange), what_(what), event_(event), limit_(limit), toldOfDrain_(toldOfDrain) {}
  Wait(const Wait&) = delete;
  Wait& operator=(const Wait&) = delete;

  VORN_EXPORT bool await_ready();
  VORN_EXPORT void await_suspend(std::coroutine_handle<> awaiting);
  Woke await_resume() const { return woke_; }

 protected:
  google::protobuf::MessageLite* into_ = nullptr;
  const google::protobuf::MessageLite* item_ = nullptr;
  grpc::WriteOptions options_;

 private:
  friend class Exchange;

  Exchange& exchange_;
  const For what_;
  Event* const event_;
  const Limit limit_;
  const bool toldOfDrain_;
  bool started_ = false;
  Clock::time_point end_ = Clock::time_point::max();
  Woke woke_ = Woke::over;
};

class ReadWait : public Wait {
 public:
  ReadWait(Exchange& exchange, google::protobuf::MessageLite& into, Event* event, Limit limit,
           bool toldOfDrain) noexcept
      : Wait(exchange, For::message, event, limit, toldOfDrain) {
    into_ = &into;
  }
};

class WriteWait : public Wait {
 public:
  WriteWait(Exchange& exchange, const google::protobuf::MessageLite& item, Limit limit,
            bool toldOfDrain, grpc::WriteOptions options) noexcept
      : Wait(exchange, For::write, nullptr, limit, toldOfDrain) {
    item_ = &item;
    options_ = options;
  }
};

}  // namespace detail

// One call that is served by a coroutine.
class VORN_EXPORT Call {
 public:
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // gRPC's view of the call: metadata, peer, identity, deadline, compression. Metadata of the reply
  // is added here, initial metadata before sendInitialMetadata() or the first write.
  grpc::ServerContext& context();

  // Whether the call is over early. True at once after a read or a write that returned Woke::over.
  bool cancelled() const { return endedBy() != EndedBy::nothing; }

  // Why the call is over. A client whose deadline passes cancels at the same time: a cancellation
  // at the end of the time that the call was given is the deadline.
  EndedBy endedBy() const;

  // Whether the server is being drained: what can end by itself should, with a status that sends
  // the client elsewhere, endStatus() say.
  bool draining() const;

  // What ends a call that has nothing to go on with: CANCELLED when it is over, which endedBy()
  // makes more exact in the accounting, UNAVAILABLE when the server is being drained, else OK.
  grpc::Status endStatus() const;

  // The time left until the call's deadline, to hand on: zero when it has passed, and
  // nanoseconds::max() when it has none.
  std::chrono::nanoseconds remaining() const;

  // The time that waits go by: that of rpc::Clock, unless a test turns it by hand.
  Clock::time_point now() const;

  // Waits for a time to pass.
  detail::Wait wait(Limit limit) { return {exchange_, For::wakeup, nullptr, limit, false}; }

  // Waits for whichever comes first of an event, a time and a drain of the server. An event that is
  // set already is taken at once.
  detail::Wait wait(Event& event, Limit limit = forever) {
    return {exchange_, For::wakeup, &event, limit, true};
  }

  // The same, but sleeps through a drain: for what is under way and will come to its end.
  detail::Wait waitThroughDrain(Event& event, Limit limit = forever) {
    return {exchange_, For::wakeup, &event, limit, false};
  }

  // Sends the initial metadata now, instead of with the first message or the status. Throws
  // std::logic_error when they have been sent.
  detail::Wait sendInitialMetadata() { return {exchange_, For::metadata, nullptr, forever, false}; }

 protected:
  explicit Call(detail::Exchange& exchange) : exchange_(exchange) {}
  ~Call() = default;

  detail::Exchange& exchange_;

 private:
  using For = detail::Wait::For;
};

// A call whose client streams.
template <typename Request>
class Reader : public Call {
 public:
  // Reads the next message. Returns Woke::message, Woke::end at the end of the client's stream, or
  // Woke::over. `item` is touched by the first alone. Bytes that are no Request end the call with
  // INVALID_ARGUMENT.
  detail::ReadWait read(Request& item) { return {exchange_, item, nullptr, forever, false}; }

  // Waits for whichever comes first of the next message (or the end of the stream), an event, a
  // time and a drain of the server. A read that is outstanding then stays so, for the next one.
  detail::ReadWait read(Request& item, Limit limit) {
    return {exchange_, item, nullptr, limit, true};
  }
  detail::ReadWait read(Request& item, Event& event, Limit limit = forever) {
    return {exchange_, item, &event, limit, true};
  }

 protected:
  explicit Reader(detail::Exchange& exchange) : Call(exchange) {}
  ~Reader() = default;
};

namespace detail {

// A call whose server streams, beside what its client does.
template <typename Base, typename Reply>
class Writing : public Base {
 public:
  // Writes a message, and waits until gRPC has taken it: returns Woke::written or Woke::over.
  // Options that ask gRPC to hold the message back for the next one, or for the end of the stream,
  // are passed over.
  WriteWait write(const Reply& item, grpc::WriteOptions options = {}) {
    return {this->exchange_, item, forever, false, options};
  }

  // The same with a limit. A message that was not taken by then is still on its way, and the next
  // write waits for it first. A coroutine that ends before cancels its call, because the status
  // would wait behind the message; the status is what is accounted.
  WriteWait write(const Reply& item, Limit limit, grpc::WriteOptions options = {}) {
    return {this->exchange_, item, limit, false, options};
  }

 protected:
  explicit Writing(Exchange& exchange) : Base(exchange) {}
  ~Writing() = default;
};

}  // namespace detail

// A call whose server streams.
template <typename Reply>
class Writer : public detail::Writing<Call, Reply> {
 protected:
  explicit Writer(detail::Exchange& exchange) : detail::Writing<Call, Reply>(exchange) {}
  ~Writer() = default;
};

// A call in which both sides stream: a Reader that writes as a Writer does.
template <typename Request, typename Reply>
class ReaderWriter : public detail::Writing<Reader<Request>, Reply> {
 protected:
  explicit ReaderWriter(detail::Exchange& exchange)
      : detail::Writing<Reader<Request>, Reply>(exchange) {}
  ~ReaderWriter() = default;
};

}  // namespace VornSdkRpc::rpc
