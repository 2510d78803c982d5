#include <VornSdkRpc/CallCounters.h>

#include <google/protobuf/descriptor.h>

#include <exception>
#include <functional>
#include <utility>

namespace VornSdkRpc {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr std::size_t kLongestPath = 512;

// As dashboards know them.
constexpr const char* kCodeNames[] = {
    "OK",       "Canceled",       "Unknown",          "InvalidArgument",   "DeadlineExceeded",
    "NotFound", "AlreadyExists",  "PermissionDenied", "ResourceExhausted", "FailedPrecondition",
    "Aborted",  "OutOfRange",     "Unimplemented",    "Internal",          "Unavailable",
    "DataLoss", "Unauthenticated"};

const char* typeOf(bool clientStreams, bool serverStreams) {
  if (clientStreams) return serverStreams ? "bidi_stream" : "client_stream";
  return serverStreams ? "server_stream" : "unary";
}

// The type of a method that the process can know; null for another. gRPC's health service has no
// description.
const char* typeOf(std::string_view service, std::string_view name) {
  if (service == "grpc.health.v1.Health" && (name == "Check" || name == "Watch"))
    return typeOf(false, name == "Watch");
  std::string full(service);
  full.append(".").append(name);
  const auto* const method =
      google::protobuf::DescriptorPool::generated_pool()->FindMethodByName(full);
  return method == nullptr ? nullptr
                           : typeOf(method->client_streaming(), method->server_streaming());
}

void add(std::atomic<std::uint64_t>& counter, std::uint64_t more = 1) {
  counter.fetch_add(more, std::memory_order_relaxed);
}

double valueOf(const std::atomic<std::uint64_t>& counter) {
  return static_cast<double>(counter.load(std::memory_order_relaxed));
}

}  // namespace

CallCounters::CallCounters(std::vector<double> buckets)
    : bounds_(std::move(buckets)), others_(&makeMethod("", "other", "other", "other")) {}

CallObserver::Call CallCounters::begun(std::string_view path) noexcept {
  auto& method = methodOf(path);
  add(method.started);
  return &method;
}

void CallCounters::received(Call call) noexcept { add(static_cast<Method*>(call)->received); }

void CallCounters::sent(Call call) noexcept { add(static_cast<Method*>(call)->sent); }

void CallCounters::ended(Call call, const CallRecord& record) noexcept {
  count(*static_cast<Method*>(call), record);
}

void CallCounters::denied(const CallRecord& record) noexcept {
  auto& method = methodOf(record.method);
  add(method.started);
  count(method, record);
}

void CallCounters::count(Method& method, const CallRecord& record) noexcept {
  const auto code = static_cast<std::size_t>(record.status);
  method.seconds.add(record.duration);
  add(ends_[static_cast<std::size_t>(record.end)]);
  add(method.handled[code < kCodes ? code : 2]);
}

// What is in a slot stays there, so that it can be read without a lock.
CallCounters::Method& CallCounters::methodOf(std::string_view path) noexcept try {
  auto slot = std::hash<std::string_view>()(path) % kSlots;
  for (;; slot = (slot + 1) % kSlots) {
    const auto* const method = table_[slot].load(std::memory_order_acquire);
    if (method == nullptr) break;
    if (method->path == path) return *table_[slot].load(std::memory_order_relaxed);
  }
  auto* const method = path.size() > kLongestPath ? nullptr : added(path, slot);
  return method == nullptr ? *others_ : *method;
} catch (const std::exception&) {
  return *others_;
}

// Null for a method that is not known: a client could name any number of them.
CallCounters::Method* CallCounters::added(std::string_view path, std::size_t slot) {
  const auto slash = path.rfind('/');
  if (slash == 0 || slash == std::string_view::npos) return nullptr;
  const auto service = path.substr(1, slash - 1);
  const auto name = path.substr(slash + 1);
  const char* const type = typeOf(service, name);
  if (type == nullptr) return nullptr;
  const vorn::lock_guard lock(mutex_);
  for (; table_[slot] != nullptr; slot = (slot + 1) % kSlots) {
    if (table_[slot].load()->path == path) return table_[slot];
  }
  if (methods_.size() >= kSlots / 2) return nullptr;
  auto& method = makeMethod(path, service, name, type);
  table_[slot].store(&method, std::memory_order_release);
  return &method;
}

CallCounters::Method& CallCounters::makeMethod(std::string_view path, std::string_view service,
                                               std::string_view name, const char* type) {
  auto& method = methods_.emplace_back(bounds_);
  method.path = path;
  method.service = service;
  method.name = name;
  method.type = type;
  return method;
}

// ------------------------------------------------------------------------------------------------
// What is told

// `add` is called with each method and a function that adds one metric of it and answers that.
template <typename Add>
MetricFamily CallCounters::family(const char* name, const char* help, MetricType type,
                                  Add add) const {
  MetricFamily family{name, help, type, {}};
  for (const auto& method : methods_) {
    if (method.started.load(std::memory_order_relaxed) == 0) continue;
    add(method, [&]() -> ClientMetric& {
      auto& metric = family.metric.emplace_back();
      metric.label = {{"grpc_type", method.type},
                      {"grpc_service", method.service},
                      {"grpc_method", method.name}};
      return metric;
    });
  }
  return family;
}

void CallCounters::collect(std::vector<MetricFamily>& families) const {
  const vorn::lock_guard lock(mutex_);
  const auto counter = [](Counter Method::* of) {
    return [of](const Method& method, const auto& next) {
      next().counter.value = valueOf(method.*of);
    };
  };
  families.push_back(family("grpc_server_handled_total",
                            "Calls that have ended, by what the client was told.",
                            MetricType::Counter, [](const Method& method, const auto& next) {
                              for (std::size_t code = 0; code < kCodes; ++code) {
                                if (method.handled[code].load(std::memory_order_relaxed) == 0)
                                  continue;
                                auto& metric = next();
                                metric.label.push_back({"grpc_code", kCodeNames[code]});
                                metric.counter.value = valueOf(method.handled[code]);
                              }
                            }));
  families.push_back(family("vornsdkrpc_calls_in_progress", "Calls that have not ended.",
                            MetricType::Gauge, [](const Method& method, const auto& next) {
                              double ended = 0;
                              for (const auto& handled : method.handled)
                                ended += valueOf(handled);
                              next().gauge.value = valueOf(method.started) - ended;
                            }));
  families.push_back(family("grpc_server_started_total", "Calls that have begun.",
                            MetricType::Counter, counter(&Method::started)));
  families.push_back(family("grpc_server_msg_received_total", "Messages that clients have sent.",
                            MetricType::Counter, counter(&Method::received)));
  families.push_back(family("grpc_server_msg_sent_total", "Messages that the agent has sent.",
                            MetricType::Counter, counter(&Method::sent)));
  families.push_back(family("grpc_server_handling_seconds", "How long calls take, to their end.",
                            MetricType::Histogram, [](const Method& method, const auto& next) {
                              next().histogram = method.seconds.collected();
                            }));
  MetricFamily ends{
      "vornsdkrpc_calls_ended_total", "Calls by how they ended.", MetricType::Counter, {}};
  for (auto end = CallEnd::answered; end <= CallEnd::stopped;
       end = static_cast<CallEnd>(static_cast<int>(end) + 1)) {
    auto& metric = ends.metric.emplace_back();
    metric.label = {{"end", std::string(textOf(end))}};
    metric.counter.value = valueOf(ends_[static_cast<std::size_t>(end)]);
  }
  families.push_back(std::move(ends));
}

}  // namespace VornSdkRpc
