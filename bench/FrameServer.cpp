#include <unordered_set>
#include <utility>

#include "bench/Bench.grpc.pb.h"
#include "bench/OnFrame.h"

namespace bench {

namespace {

using VornSdkRpc::OpaqueId;
using VornSdkRpc::RequestHandlerPtr;

class Hold;

class BenchService : public VornSdkRpc::GrpcService {
 public:
  BenchService(Counts& shown, std::size_t ahead)
      : GrpcService("Bench"), counts(shown), ahead_(ahead) {}

  grpc::ServerCompletionQueue* queue() const { return cq_; }

  Bench::AsyncService async;
  Counts& counts;
  std::unordered_set<Hold*> held;

 private:
  void registerWith(grpc::ServerBuilder& builder) override { builder.RegisterService(&async); }
  void serverStarted() override;

  template <typename Handler>
  void open() {
    registerHandler(std::make_shared<Handler>(*this, nextOpaqueId()));
  }

  const std::size_t ahead_;
};

// What the handlers of the methods share.
template <typename Derived>
class Handler : public VornSdkRpc::RequestHandler {
 public:
  Handler(BenchService& service, OpaqueId tag) : service_(service) { opaqueId_ = tag; }

  RequestHandlerPtr spawn(OpaqueId tag) override {
    return std::make_shared<Derived>(service_, tag);
  }

 protected:
  BenchService& service_;
  grpc::ServerContext context_;
};

class Say : public Handler<Say> {
 public:
  Say(BenchService& service, OpaqueId tag) : Handler(service, tag) {
    service.async.RequestSay(&context_, &item_, &writer_, service.queue(), service.queue(), tag);
  }

  void proceed(OpaqueId tag) override { writer_.Finish(item_, grpc::Status::OK, tag); }

 private:
  Item item_;
  grpc::ServerAsyncResponseWriter<Item> writer_{&context_};
};

class Stream : public Handler<Stream> {
 public:
  Stream(BenchService& service, OpaqueId tag) : Handler(service, tag) {
    service.async.RequestStream(&context_, &order_, &writer_, service.queue(), service.queue(),
                                tag);
  }

  void proceed(OpaqueId tag) override {
    if (state_ == AWAITING_CALL) {
      state_ = IN_PROGRESS;
      item_.set_data(std::string(order_.size(), 'x'));
    } else if (!service_.completionOk()) {
      service_.removeHandler(tag);
      return;
    }
    if (sent_ == order_.count()) {
      state_ = FINISHED;
      writer_.Finish(grpc::Status::OK, tag);
      return;
    }
    ++sent_;
    writer_.Write(item_, tag);
  }

 private:
  Order order_;
  Item item_;
  grpc::ServerAsyncWriter<Item> writer_{&context_};
  std::uint32_t sent_ = 0;
};

class Hold : public Handler<Hold> {
 public:
  Hold(BenchService& service, OpaqueId tag) : Handler(service, tag) {
    service.async.RequestHold(&context_, &order_, &writer_, service.queue(), service.queue(), tag);
  }
  ~Hold() override {
    if (service_.held.erase(this) > 0) --service_.counts.held;
  }

  void proceed(OpaqueId tag) override {
    if (state_ == AWAITING_CALL) {
      state_ = IN_PROGRESS;
      service_.held.insert(this);
      ++service_.counts.held;
    } else if (!service_.completionOk()) {
      service_.removeHandler(tag);
    } else {
      writing_ = false;
      ++service_.counts.written;
    }
  }

  bool publish(const Item& item) {
    if (std::exchange(writing_, true)) return false;
    writer_.Write(item, opaqueId_);
    return true;
  }

 private:
  Order order_;
  grpc::ServerAsyncWriter<Item> writer_{&context_};
  bool writing_ = false;
};

class Publish : public Handler<Publish> {
 public:
  Publish(BenchService& service, OpaqueId tag) : Handler(service, tag) {
    service.async.RequestPublish(&context_, &order_, &writer_, service.queue(), service.queue(),
                                 tag);
  }

  void proceed(OpaqueId tag) override {
    Item item;
    item.set_data(std::string(order_.size(), 'x'));
    std::uint32_t count = 0;
    for (Hold* hold : service_.held)
      count += hold->publish(item) ? 1U : 0U;
    order_.set_count(count);
    writer_.Finish(order_, grpc::Status::OK, tag);
  }

 private:
  Order order_;
  grpc::ServerAsyncResponseWriter<Order> writer_{&context_};
};

void BenchService::serverStarted() {
  for (std::size_t i = 0; i < ahead_; ++i)
    open<Say>();
  open<Stream>();
  open<Hold>();
  open<Publish>();
}

}  // namespace

std::unique_ptr<Server> makeFrame(Counts& counts, std::size_t ahead) {
  return std::make_unique<OnFrame>(counts, std::make_shared<BenchService>(counts, ahead));
}

}  // namespace bench
