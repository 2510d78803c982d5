#include <VornSdkRpc/Metrics.h>

#include <VornSdkRpc/CallCounters.h>
#include <VornSdkRpc/FileWatch.h>
#include <VornSdkRpc/Histogram.h>
#include <VornSdkRpc/ServingThread.h>
#include <fcntl.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/text_serializer.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vorn/tracer.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace VornSdkRpc {

namespace {

using prometheus::MetricFamily;
using prometheus::MetricType;

double processorSeconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

double openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<double>(std::distance(begin(all), end(all)) - 1);  // the iterator has one
}

double residentBytes() {
  std::size_t total = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

double now() {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(since).count();
}

// What the file of a figure's file could not be made for.
[[noreturn]] void cannotWrite(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), "cannot write " + path);
}

void writeAll(int fd, std::string_view text, const std::string& path) {
  while (!text.empty()) {
    const auto written = write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) cannotWrite(path);
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
}

// Puts a file with the text in the place of the one before.
void replaceFile(const std::string& path, std::string_view text) {
  const std::string next = path + ".new";
  const int fd = open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) cannotWrite(next);
  const std::unique_ptr<const int, void (*)(const int*)> closed(
      &fd, [](const int* one) { close(*one); });
  if (fchmod(fd, 0644) != 0) cannotWrite(next);  // whatever the umask is
  writeAll(fd, text, next);
  if (rename(next.c_str(), path.c_str()) != 0) cannotWrite(path);
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// Metrics

class Metrics::Impl : public prometheus::Collectable {
 public:
  using Read = std::function<std::vector<Sample>()>;

  explicit Impl(MetricsOptions options)
      : buckets_(std::move(options.buckets)), calls_(std::make_shared<CallCounters>(buckets_)) {}

  void add(std::string name, std::string help, Kind kind, Read read) {
    figures_.push_back({std::move(name), std::move(help), kind, std::move(read)});
  }

  std::function<void(std::chrono::nanoseconds)> addDurations(std::string name, std::string help) {
    auto histogram = std::make_shared<Histogram>(buckets_);
    durations_.push_back({std::move(name), std::move(help), histogram});
    return [histogram](std::chrono::nanoseconds duration) { histogram->add(duration); };
  }

  void count(CallAccounting& accounting) {
    accounting.observe(calls_);
    counts_ = true;
  }

  std::shared_ptr<ServingThread> servingThread() {
    if (!serving_) serving_ = std::make_shared<ServingThread>(buckets_);
    return serving_;
  }

  std::vector<MetricFamily> Collect() const override {
    std::vector<MetricFamily> families;
    if (counts_) calls_->collect(families);
    if (serving_) {
      families.push_back(familyOf("vornsdkrpc_serving_delay_seconds",
                                  "How late the serving thread handles what is due.",
                                  serving_->delays()));
    }
    for (const auto& each : durations_)
      families.push_back(familyOf(each.name, each.help, *each.histogram));
    for (const auto& figure : figures_)
      collect(figure, families);
    return families;
  }

 private:
  struct Figure {
    std::string name;
    std::string help;
    Kind kind;
    Read read;
  };

  struct Durations {
    std::string name;
    std::string help;
    std::shared_ptr<const Histogram> histogram;
  };

  static MetricFamily familyOf(const std::string& name, const std::string& help,
                               const Histogram& histogram) {
    MetricFamily family{name, help, MetricType::Histogram, {}};
    family.metric.emplace_back().histogram = histogram.collected();
    return family;
  }

  static void collect(const Figure& figure, std::vector<MetricFamily>& families) try {
    const auto type = figure.kind == counter ? MetricType::Counter : MetricType::Gauge;
    MetricFamily family{figure.name, figure.help, type, {}};
    for (auto& sample : figure.read()) {
      auto& metric = family.metric.emplace_back();
      for (auto& [name, value] : sample.labels)
        metric.label.push_back({name, std::move(value)});
      (figure.kind == counter ? metric.counter.value : metric.gauge.value) = sample.value;
    }
    families.push_back(std::move(family));
  } catch (const std::exception&) {
    // The others are told.
  }

  const std::vector<double> buckets_;
  const std::shared_ptr<CallCounters> calls_;
  bool counts_ = false;
  std::shared_ptr<ServingThread> serving_;
  std::vector<Durations> durations_;
  std::vector<Figure> figures_;
};

Metrics::Metrics(MetricsOptions options) : impl_(std::make_shared<Impl>(std::move(options))) {
  add("process_cpu_seconds_total", "Processor time of the process.", counter, processorSeconds);
  add("process_open_fds", "Open file descriptors.", gauge, openDescriptors);
  add("process_resident_memory_bytes", "Memory that is in use.", gauge, residentBytes);
  add("process_start_time_seconds", "When the figures began, in seconds since 1970.", gauge,
      [begun = now()] { return begun; });
}

Metrics::~Metrics() = default;

void Metrics::count(CallAccounting& accounting) {
  impl_->count(accounting);
  const auto log = accounting.log();
  add("vornsdkrpc_records_total", "Records of calls.", counter,
      [log] { return static_cast<double>(log->next() - 1); });
  add("vornsdkrpc_records_bytes", "Memory that records of calls take.", gauge,
      [log] { return static_cast<double>(log->memory()); });
  add("vornsdkrpc_records_waiting", "Records that the slowest sink has not taken yet.", gauge,
      [&accounting] { return static_cast<double>(accounting.waiting()); });
  add("vornsdkrpc_records_lost_total", "Records that a sink was not given, all sinks together.",
      counter, [&accounting] { return static_cast<double>(accounting.missed()); });
}

std::shared_ptr<GrpcService> Metrics::servingThread() {
  const auto serving = impl_->servingThread();
  add("vornsdkrpc_serving_cpu_seconds_total", "Processor time of the serving thread.", counter,
      [serving] { return serving->processorSeconds(); });
  add("vornsdkrpc_tags", "Operations that gRPC has been asked for.", gauge,
      [serving] { return static_cast<double>(serving->tags()); });
  return serving;
}

void Metrics::add(std::string name, std::string help, Kind kind, std::function<double()> read) {
  add(std::move(name), std::move(help), kind,
      [read = std::move(read)] { return std::vector<Sample>{{{}, read()}}; });
}

void Metrics::add(std::string name, std::string help, Kind kind,
                  std::function<std::vector<Sample>()> read) {
  impl_->add(std::move(name), std::move(help), kind, std::move(read));
}

std::function<void(std::chrono::nanoseconds)> Metrics::addDurations(std::string name,
                                                                    std::string help) {
  return impl_->addDurations(std::move(name), std::move(help));
}

std::string Metrics::text() const {
  std::ostringstream text;
  prometheus::TextSerializer().Serialize(text, impl_->Collect());
  return std::move(text).str();
}

// ------------------------------------------------------------------------------------------------
// MetricsServer

class MetricsServer::Impl {
 public:
  Impl(std::shared_ptr<prometheus::Collectable> figures, const std::string& address)
      : figures_(std::move(figures)),
        exposer_(address.find(':') == std::string::npos ? "127.0.0.1:" + address : address) {
    exposer_.RegisterCollectable(figures_);
  }

  int port() const { return exposer_.GetListeningPorts().at(0); }

 private:
  const std::shared_ptr<prometheus::Collectable> figures_;
  prometheus::Exposer exposer_;
};

MetricsServer::MetricsServer(const Metrics& metrics, const std::string& address) try
    : impl_(std::make_unique<Impl>(metrics.impl_, address)) {
} catch (const std::exception&) {  // which says nothing of use
  throw std::runtime_error("cannot listen for metrics on " + address);
}

MetricsServer::~MetricsServer() = default;

int MetricsServer::port() const { return impl_->port(); }

// ------------------------------------------------------------------------------------------------
// MetricsFile

class MetricsFile::Impl {
 public:
  Impl(const Metrics& metrics, std::string path, std::chrono::milliseconds interval)
      : metrics_(metrics), path_(std::move(path)) {
    replaceFile(path_, metrics_.text());
    watch_ = std::make_unique<FileWatch>(interval, [this] { write(); });
  }
  ~Impl() {
    watch_.reset();
    unlink(path_.c_str());
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

 private:
  void write() {
    try {
      replaceFile(path_, metrics_.text());
      failed_ = false;
    } catch (const std::exception& error) {
      if (!std::exchange(failed_, true)) tracer_.error("%s", error.what());
    }
  }

  const Metrics& metrics_;
  const std::string path_;
  const vorn::tracer tracer_{"Metrics"};
  bool failed_ = false;
  std::unique_ptr<FileWatch> watch_;
};

MetricsFile::MetricsFile(const Metrics& metrics, std::string path,
                         std::chrono::milliseconds interval)
    : impl_(std::make_unique<Impl>(metrics, std::move(path), interval)) {}

MetricsFile::~MetricsFile() = default;

}  // namespace VornSdkRpc
