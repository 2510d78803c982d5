#include <unordered_set>
#include <utility>

#include "bench/Bench.grpc.pb.h"
#include "bench/EchoServers.h"

namespace bench {

namespace {

class Hold;

// What the calls share. Everything but the counts belongs to the serving thread.
struct Shared {
  explicit Shared(Counts& shown) : counts(shown) {}

  Bench::AsyncService service;
  grpc::ServerCompletionQueue* queue = nullptr;
  std::unordered_set<Hold*> held;
  Counts& counts;
};

class Call {
 public:
  virtual ~Call() = default;
  virtual void proceed(bool ok) = 0;
};

class Say : public Call {
 public:
  explicit Say(Shared& shared) : shared_(shared) {
    shared.service.RequestSay(&context_, &item_, &writer_, shared.queue, shared.queue, this);
  }

  void proceed(bool ok) override {
    if (!ok || answered_) {
      delete this;
      return;
    }
    new Say(shared_);
    answered_ = true;
    writer_.Finish(item_, grpc::Status::OK, this);
  }

 private:
  Shared& shared_;
  grpc::ServerContext context_;
  Item item_;
  grpc::ServerAsyncResponseWriter<Item> writer_{&context_};
  bool answered_ = false;
};

class Stream : public Call {
 public:
  explicit Stream(Shared& shared) : shared_(shared) {
    shared.service.RequestStream(&context_, &order_, &writer_, shared.queue, shared.queue, this);
  }

  void proceed(bool ok) override {
    if (!ok || finished_) {
      delete this;
      return;
    }
    if (!started_) {
      started_ = true;
      new Stream(shared_);
      item_.set_data(std::string(order_.size(), 'x'));
    }
    if (sent_ == order_.count()) {
      finished_ = true;
      writer_.Finish(grpc::Status::OK, this);
      return;
    }
    ++sent_;
    writer_.Write(item_, this);
  }

 private:
  Shared& shared_;
  grpc::ServerContext context_;
  Order order_;
  Item item_;
  grpc::ServerAsyncWriter<Item> writer_{&context_};
  std::uint32_t sent_ = 0;
  bool started_ = false;
  bool finished_ = false;
};

class Hold : public Call {
 public:
  explicit Hold(Shared& shared) : shared_(shared) {
    shared.service.RequestHold(&context_, &order_, &writer_, shared.queue, shared.queue, this);
  }
  ~Hold() override {
    if (shared_.held.erase(this) > 0) --shared_.counts.held;
  }

  void proceed(bool ok) override {
    if (!ok) {
      delete this;
      return;
    }
    if (started_) {
      writing_ = false;
      ++shared_.counts.written;
      return;
    }
    started_ = true;
    new Hold(shared_);
    shared_.held.insert(this);
    ++shared_.counts.held;
  }

  bool publish(const Item& item) {
    if (std::exchange(writing_, true)) return false;
    writer_.Write(item, this);
    return true;
  }

 private:
  Shared& shared_;
  grpc::ServerContext context_;
  Order order_;
  grpc::ServerAsyncWriter<Item> writer_{&context_};
  bool started_ = false;
  bool writing_ = false;
};

class Publish : public Call {
 public:
  explicit Publish(Shared& shared) : shared_(shared) {
    shared.service.RequestPublish(&context_, &order_, &writer_, shared.queue, shared.queue, this);
  }

  void proceed(bool ok) override {
    if (!ok || answered_) {
      delete this;
      return;
    }
    new Publish(shared_);
    answered_ = true;
    Item item;
    item.set_data(std::string(order_.size(), 'x'));
    std::uint32_t count = 0;
    for (Hold* hold : shared_.held)
      count += hold->publish(item) ? 1U : 0U;
    order_.set_count(count);
    writer_.Finish(order_, grpc::Status::OK, this);
  }

 private:
  Shared& shared_;
  grpc::ServerContext context_;
  Order order_;
  grpc::ServerAsyncResponseWriter<Order> writer_{&context_};
  bool answered_ = false;
};

class HandWritten : public Server {
 public:
  HandWritten(Counts& counts, std::size_t ahead) : Server(counts), ahead_(ahead) {}

  void run(grpc::ServerBuilder& builder, const std::function<void()>& listening) override {
    builder.RegisterService(&shared_.service);
    queue_ = builder.AddCompletionQueue();
    shared_.queue = queue_.get();
    server_ = builder.BuildAndStart();
    for (std::size_t i = 0; i < ahead_; ++i)
      new Say(shared_);
    new Stream(shared_);
    new Hold(shared_);
    new Publish(shared_);
    listening();
    void* tag = nullptr;
    bool ok = false;
    while (queue_->Next(&tag, &ok))
      static_cast<Call*>(tag)->proceed(ok && !stopping_);
  }

  void stop() override {
    stopping_ = true;
    server_->Shutdown(std::chrono::system_clock::now());
    queue_->Shutdown();
  }

 private:
  const std::size_t ahead_;
  Shared shared_{counts_};
  std::unique_ptr<grpc::ServerCompletionQueue> queue_;
  std::unique_ptr<grpc::Server> server_;
  std::atomic<bool> stopping_ = false;
};

}  // namespace

std::unique_ptr<Server> makeHandWritten(Counts& counts, std::size_t ahead) {
  return std::make_unique<HandWritten>(counts, ahead);
}

}  // namespace bench
