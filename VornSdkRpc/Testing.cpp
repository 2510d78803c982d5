#include <VornSdkRpc/Testing.h>

#include <Kiv/Trace.h>
#include <VornSdkRpc/InsecureCredentials.h>
#include <VornSdkRpc/RpcService.h>
#include <dirent.h>
#include <grpcpp/security/auth_metadata_processor.h>
#include <grpcpp/support/client_interceptor.h>
#include <stdlib.h>
#include <unistd.h>
#include <vorn/mutex.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <future>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace VornSdkRpc::testing {

namespace {

using Clock = std::chrono::steady_clock;

// Waits until a condition holds; returns false when it does not in time.
template <typename Condition>
bool holdsWithin(std::chrono::milliseconds patience, Condition condition) {
  for (const auto end = Clock::now() + patience; !condition();) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// ------------------------------------------------------------------------------------------------
// Identity: the client says in its metadata what its connection is to hold

constexpr char kIdentityKey[] = "vorn-testing-identity-bin";

class SayIdentity : public grpc::experimental::Interceptor {
 public:
  explicit SayIdentity(const Identity& identity) : identity_(identity) {}

  void Intercept(grpc::experimental::InterceptorBatchMethods* methods) override {
    if (methods->QueryInterceptionHookPoint(
            grpc::experimental::InterceptionHookPoints::PRE_SEND_INITIAL_METADATA)) {
      for (const auto& [name, value] : identity_) {
        std::string both = name;
        both.append(1, '\0').append(value);
        methods->GetSendInitialMetadata()->insert({kIdentityKey, both});
      }
    }
    methods->Proceed();
  }

 private:
  const Identity& identity_;
};

class SayIdentityFactory : public grpc::experimental::ClientInterceptorFactoryInterface {
 public:
  explicit SayIdentityFactory(Identity identity) : identity_(std::move(identity)) {}

  grpc::experimental::Interceptor* CreateClientInterceptor(
      grpc::experimental::ClientRpcInfo*) override {
    return new SayIdentity(identity_);
  }

 private:
  const Identity identity_;
};

class TakeIdentity : public grpc::AuthMetadataProcessor {
 public:
  bool IsBlocking() const override { return false; }

  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                       OutputMetadata* consumed, OutputMetadata*) override {
    const vorn::lock_guard lock(mutex_);  // calls of one connection come on several threads
    const bool isNew = connection->FindPropertyValues(kIdentityKey).empty();
    if (isNew) connection->AddProperty(kIdentityKey, "taken");
    const auto [begin, end] = metadata.equal_range(kIdentityKey);
    for (auto sent = begin; sent != end; ++sent) {
      const std::string text(sent->second.data(), sent->second.size());
      const auto split = text.find('\0');
      if (isNew) connection->AddProperty(text.substr(0, split), text.substr(split + 1));
      consumed->insert({kIdentityKey, text});
    }
    return grpc::Status::OK;
  }

 private:
  vorn::mutex mutex_;
};

// ------------------------------------------------------------------------------------------------
// Records: the interceptor that an agent uses, with a queue that the test reads

using RecordQueue = SynchronizedQueue<LogMessageData>;

class RecordingFactory : public grpc::experimental::ServerInterceptorFactoryInterface {
 public:
  explicit RecordingFactory(RecordQueue& queue) : queue_(queue) {}

  grpc::experimental::Interceptor* CreateServerInterceptor(
      grpc::experimental::ServerRpcInfo* info) override {
    return new LoggingInterceptor(info, &queue_);
  }

 private:
  RecordQueue& queue_;
};

// ------------------------------------------------------------------------------------------------
// What may be left

std::string nameOfThread(const std::string& id) {
  std::string name;
  std::getline(std::ifstream("/proc/self/task/" + id + "/comm"), name);
  return name;
}

// The process's threads but for gRPC's, which have names of their own and come and go.
std::set<std::string> threads() {
  Kiv::traceLogger();  // has one for good, which is not to appear in between
  const std::string program = nameOfThread(std::to_string(getpid()));
  std::set<std::string> found;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/task"), closedir);
  while (const auto* entry = folder ? readdir(folder.get()) : nullptr) {
    if (entry->d_name[0] != '.' && nameOfThread(entry->d_name) == program)
      found.insert(entry->d_name);
  }
  return found;
}

// A folder that is this object's, with what is in it.
class Folder {
 public:
  Folder() {
    if (!mkdtemp(path_.data()))
      throw std::system_error(errno, std::generic_category(), "no folder for a socket");
  }
  ~Folder() {
    unlink(socket().c_str());
    rmdir(path_.c_str());
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string socket() const { return path_ + "/socket"; }

 private:
  std::string path_ = "/tmp/vorn-testing-XXXXXX";
};

}  // namespace

// ------------------------------------------------------------------------------------------------
// TestServer

class TestServer::Machine {
 public:
  Machine(std::vector<std::shared_ptr<GrpcService>> services, const Options& options)
      : threadsBefore_(threads()),
        services_(services),
        byHand_(options.byHand),
        patience_(options.patience),
        folder_(options.socket ? std::make_unique<Folder>() : nullptr),
        address_(folder_ ? "unix:" + folder_->socket() : ""),
        server_(
            std::make_unique<GrpcServer>(configured(options), std::move(services), properties_)) {
    if (byHand_) {
      setUp();
      return;
    }
    thread_ = std::thread([this] { serve(); });
    try {
      up_.get_future().get();
    } catch (...) {
      thread_.join();
      throw;
    }
  }

  ~Machine() {
    const std::string left = finish();
    if (left.empty()) return;
    std::fprintf(stderr, "A TestServer has left something behind:\n%s", left.c_str());
    std::abort();
  }

  std::string finish() {
    if (!server_) return "";
    std::string left;
    if (!ended_ && !settle()) left += callsInProgress();
    stop();
    builder_.reset();
    server_.reset();
    services_.clear();
    if (!holdsWithin(patience_, [&] { return newThreads() == 0; }))
      left += std::to_string(newThreads()) + " threads run on\n";
    return left;
  }

  bool settle() {
    const auto idle = [&] { return server_->tagManager().size() <= tagsAtFirst_; };
    return holdsWithin(patience_, [&] {
      if (byHand_ && !idle()) step();
      return idle();
    });
  }

  void stop() {
    if (std::exchange(ended_, true)) return;
    server_->stop();
    end();
  }

  void drain(std::chrono::milliseconds grace) {
    if (!folder_)
      throw std::logic_error(
          "a drain is tested over a socket: TestServer(services, {.socket = true})");
    if (std::exchange(ended_, true)) return;
    server_->stop(grace);
    end();
  }

  bool step() { return server_->dequeue(); }

  void advance(std::chrono::nanoseconds time) {
    time_ = time_.value_or(rpc::Clock::now()) + time;
    for (auto* service : kitServices())
      service->timeIs(*time_);
  }

  std::shared_ptr<grpc::Channel> channel(const Identity& identity) const {
    if (!identity.empty() && !folder_)
      throw std::logic_error(
          "an identity belongs to a connection: TestServer(services, {.socket = true})");
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    if (!folder_) return server_->server()->InProcessChannel(arguments);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    std::vector<std::unique_ptr<grpc::experimental::ClientInterceptorFactoryInterface>> creators;
    creators.push_back(std::make_unique<SayIdentityFactory>(identity));
    auto channel = grpc::experimental::CreateCustomChannelWithInterceptors(
        address_, grpc::InsecureChannelCredentials(), arguments, std::move(creators));
    // gRPC 1.51's client sometimes takes a stale errno for a refusal and then fails calls for a
    // second; waiting for the connection is not hurt by it.
    channel->WaitForConnected(std::chrono::system_clock::now() + patience_);
    return channel;
  }

  // A queue that is empty would make its reader wait: there is always something to take out.
  std::vector<LogMessageData> records() {
    const vorn::lock_guard lock(recordsMutex_);
    queue_.push({});
    std::deque<LogMessageData> taken;
    queue_.swap(taken);
    taken.pop_back();
    records_.insert(records_.end(), taken.begin(), taken.end());
    return records_;
  }

  GrpcServer& server() { return *server_; }
  const std::string& address() const { return address_; }

 private:
  grpc::ServerBuilder& configured(const Options& options) {
    builder_ = std::make_unique<grpc::ServerBuilder>();
    std::vector<std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface>> creators;
    creators.push_back(std::make_unique<RecordingFactory>(queue_));
    builder_->experimental().SetInterceptorCreators(std::move(creators));
    builder_->SetMaxReceiveMessageSize(-1);
    if (folder_)
      builder_->AddListeningPort(address_,
                                 insecureServerCredentials(std::make_shared<TakeIdentity>()));
    if (options.configure) options.configure(*builder_);
    return *builder_;
  }

  void setUp() {
    server_->setup();
    tagsAtFirst_ = server_->tagManager().size();
  }

  void run() {
    while (!server_->stopRequested()) {
      step();
      runTasks();
    }
    server_->teardown();
  }

  // The serving thread: that of setup() and of every step.
  void serve() {
    try {
      setUp();
    } catch (...) {
      return up_.set_exception(std::current_exception());
    }
    up_.set_value();
    run();
  }

  std::vector<rpc::ServiceBase*> kitServices() const {
    std::vector<rpc::ServiceBase*> found;
    for (const auto& service : services_) {
      if (auto* kit = dynamic_cast<rpc::ServiceBase*>(service.get())) found.push_back(kit);
    }
    return found;
  }

  std::string callsInProgress() {
    std::string lines;
    betweenSteps([&] {
      for (auto* service : kitServices()) {
        for (const auto& call : service->calls())
          lines += call.method + " of " + call.peer + " waits for " + call.waitsFor + "\n";
      }
    });
    return lines.empty() ? "calls are in progress\n" : lines;
  }

  // Has the serving thread call a function, and waits until it has.
  void betweenSteps(const std::function<void()>& function) {
    if (byHand_) return function();
    std::packaged_task<void()> task(function);
    const auto done = task.get_future();
    {
      const vorn::lock_guard lock(tasksMutex_);
      tasks_.push_back(std::move(task));
    }
    done.wait();
  }

  void runTasks() {
    const vorn::lock_guard lock(tasksMutex_);
    for (auto& task : tasks_)
      task();
    tasks_.clear();
  }

  void end() { byHand_ ? run() : thread_.join(); }

  std::size_t newThreads() const {
    const auto now = threads();
    return static_cast<std::size_t>(std::count_if(
        now.begin(), now.end(), [&](const auto& id) { return !threadsBefore_.contains(id); }));
  }

  const std::set<std::string> threadsBefore_;
  std::vector<std::shared_ptr<GrpcService>> services_;
  const bool byHand_;
  const std::chrono::milliseconds patience_;
  const std::unique_ptr<Folder> folder_;
  const std::string address_;
  RecordQueue queue_;
  vorn::mutex recordsMutex_;
  std::vector<LogMessageData> records_ VORN_GUARDED_BY(recordsMutex_);
  std::optional<rpc::Clock::time_point> time_;
  vorn::mutex tasksMutex_;
  std::vector<std::packaged_task<void()>> tasks_ VORN_GUARDED_BY(tasksMutex_);
  ServerProperties properties_;
  std::unique_ptr<grpc::ServerBuilder> builder_;
  std::unique_ptr<GrpcServer> server_;
  std::size_t tagsAtFirst_ = 0;
  bool ended_ = false;
  std::promise<void> up_;
  std::thread thread_;
};

TestServer::TestServer(std::vector<std::shared_ptr<GrpcService>> services, Options options)
    : machine_(std::make_unique<Machine>(std::move(services), options)) {}

TestServer::~TestServer() = default;

std::string TestServer::finish() { return machine_->finish(); }

std::shared_ptr<grpc::Channel> TestServer::channel(const Identity& identity) const {
  return machine_->channel(identity);
}

std::vector<LogMessageData> TestServer::records() { return machine_->records(); }

void TestServer::stop() { machine_->stop(); }

void TestServer::drain(std::chrono::milliseconds grace) { machine_->drain(grace); }

bool TestServer::step() { return machine_->step(); }

void TestServer::advance(std::chrono::nanoseconds time) { machine_->advance(time); }

bool TestServer::settle() { return machine_->settle(); }

GrpcServer& TestServer::server() { return machine_->server(); }

const std::string& TestServer::address() const { return machine_->address(); }

}  // namespace VornSdkRpc::testing
