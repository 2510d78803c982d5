#pragma once

#include <VornSdkRpc/Rpc.h>

#include <memory>
#include <optional>
#include <string>

#include "examples/snippets/Snippets.grpc.pb.h"

// The guide's service of sessions: heartbeats from the client and notices from the server, each at
// any time.
namespace snippets {

using namespace VornSdkRpc::pb;
namespace rpc = VornSdkRpc::rpc;

class SessionService : public rpc::Service<Sessions> {
 public:
  SessionService() : Service("Sessions") {
    using namespace std::chrono_literals;
    // [limits]
    limitsAre(std::make_shared<rpc::Limits>(
        rpc::Limits::Options{.perConnection = 4, .perAddress = 100, .perUser = 10}));
    method(&Async::RequestSession,
           [this](rpc::ReaderWriter<beat_msg, notice_msg>& session) { return serve(session); },
           {.limit = 1000, .idle = 60s});
    // [limits]
    method(&Async::RequestDescribe, [](rpc::Call& call, const beat_msg&, notice_msg& notice) {
      return describe(call, notice);
    });
    // [byHand]
    byHand(&Async::RequestPing,
           [this](VornSdkRpc::OpaqueId tag) { return std::make_shared<Ping>(async(), cq_, tag); });
    // [byHand]
  }

  rpc::Events notices;

 private:
  // [session]
  rpc::Task<> serve(rpc::ReaderWriter<beat_msg, notice_msg>& session) {
    using namespace std::chrono_literals;
    rpc::Event news;
    const rpc::Events::Subscription subscription(notices, news);
    beat_msg beat;
    notice_msg notice;
    auto last = session.now();
    for (;;) {
      const rpc::Woke woke = co_await session.read(beat, news, last + 3s);
      if (woke == rpc::Woke::time)
        co_return grpc::Status(grpc::StatusCode::DEADLINE_EXCEEDED, "no heartbeat for 3 s");
      if (woke == rpc::Woke::message) last = session.now();
      if (woke == rpc::Woke::event && !co_await session.write(notice, 1s)) break;
      if (!woke) break;  // the stream has ended, the call is over, or the server drains
    }
    co_return session.endStatus();
  }
  // [session]

  // [metadata]
  static rpc::Task<> describe(rpc::Call& call, notice_msg& notice) {
    call.context().set_compression_algorithm(GRPC_COMPRESS_GZIP);  // of the messages of this call
    call.context().AddInitialMetadata("schema", "2");
    const rpc::Woke sent = co_await call.sendInitialMetadata();
    if (!sent) co_return grpc::Status::CANCELLED;
    notice.set_text("a long text");
    call.context().AddTrailingMetadata("cost", "1");
    co_return grpc::Status::OK;
  }
  // [metadata]

  // [admit]
  std::optional<grpc::Status> admit(grpc::ServerContext& context,
                                    const std::string& method) override {
    if (method == "/snippets.Sessions/Session" && context.client_metadata().count("client") == 0)
      return grpc::Status(grpc::StatusCode::UNAUTHENTICATED, "a session needs a client's name");
    return std::nullopt;
  }
  // [admit]

  class Ping : public VornSdkRpc::RequestHandler {
   public:
    Ping(Async& async, grpc::ServerCompletionQueue* queue, VornSdkRpc::OpaqueId tag)
        : async_(async), queue_(queue) {
      opaqueId_ = tag;
      async_.RequestPing(&context_, &beat_, &writer_, queue_, queue_, tag);
    }
    VornSdkRpc::RequestHandlerPtr spawn(VornSdkRpc::OpaqueId tag) override {
      return std::make_shared<Ping>(async_, queue_, tag);
    }
    void proceed(VornSdkRpc::OpaqueId tag) override {
      writer_.Finish(beat_, grpc::Status::OK, tag);
    }

   private:
    Async& async_;
    grpc::ServerCompletionQueue* const queue_;
    grpc::ServerContext context_;
    beat_msg beat_;
    grpc::ServerAsyncResponseWriter<beat_msg> writer_{&context_};
  };
};

}  // namespace snippets
