#pragma once

#include <VornSdkRpc/CallAccounting.h>
#include <VornSdkRpc/GrpcService.h>
#include <vorn/export.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// How an agent does, in figures that Prometheus reads. In a library of its own, VornSdkRpcMetrics,
// which brings prometheus-cpp.
//
//   VornSdkRpc::CallAccounting accounting;
//   VornSdkRpc::Metrics metrics;
//   metrics.count(accounting);
//   accounting.install(builder);
//   VornSdkRpc::GrpcServer server(builder, {routes, metrics.servingThread()}, properties);
//   metrics.add("agent_routes", "Routes.", VornSdkRpc::Metrics::gauge, [] { return size(); });
//   const VornSdkRpc::MetricsServer scraped(metrics, "127.0.0.1:9464");
//   server.run();
//
// The figures of calls are those of completion records, so that both agree. With the labels
// grpc_type, grpc_service and grpc_method; methods that the process has no messages for are one,
// "other".
//
//   grpc_server_started_total, grpc_server_handled_total (grpc_code), grpc_server_handling_seconds
//   (a histogram), grpc_server_msg_received_total, grpc_server_msg_sent_total
//   vornsdkrpc_calls_in_progress
//
//   vornsdkrpc_calls_ended_total            by CallEnd's names (end)
//   vornsdkrpc_records_total, vornsdkrpc_records_lost_total
//   vornsdkrpc_records_waiting              for the slowest sink
//   vornsdkrpc_records_bytes                that they take in memory
//   vornsdkrpc_serving_delay_seconds        how late a completion is handled, a histogram
//   vornsdkrpc_serving_cpu_seconds_total    the serving thread's processor time
//   vornsdkrpc_tags                         operations that gRPC has been asked for
//   process_cpu_seconds_total, process_open_fds, process_resident_memory_bytes,
//   process_start_time_seconds
namespace VornSdkRpc {

struct MetricsOptions {
  // Upper bounds of the histograms' buckets, in seconds, in order.
  std::vector<double> buckets = {.0005, .001, .0025, .005, .01, .025, .05,
                                 .1,    .25,  .5,    1,    2.5, 5,    10};
};

// The figures. Any thread may read them.
class VORN_EXPORT Metrics {
 public:
  enum Kind : std::uint8_t { counter, gauge };

  // One value of a figure that has several.
  struct Sample {
    std::vector<std::pair<std::string, std::string>> labels;
    double value;
  };

  explicit Metrics(MetricsOptions options = {});
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  // Counts the calls that the accounting records, and its records. Before its interceptors are
  // made; it must live as long as the figures are read.
  void count(CallAccounting& accounting);

  // A service without methods that looks once a second how late the serving thread is. For the
  // list of one server's services; without it, there are no figures of the serving thread.
  std::shared_ptr<GrpcService> servingThread();

  // Adds a figure: `read` is called, on any thread, whenever the figures are read, and what it
  // throws leaves this figure out. A counter's name ends in _total. Before the figures are read.
  void add(std::string name, std::string help, Kind kind, std::function<double()> read);
  void add(std::string name, std::string help, Kind kind,
           std::function<std::vector<Sample>()> read);

  // Adds a histogram of durations, and answers what is told each of them, on any thread and also
  // when this has gone. Before the figures are read.
  std::function<void(std::chrono::nanoseconds)> addDurations(std::string name, std::string help);

  // All figures in Prometheus's text format.
  std::string text() const;

 private:
  friend class MetricsServer;
  class VORN_NO_EXPORT Impl;
  std::shared_ptr<Impl> impl_;
};

// Serves the figures over HTTP under /metrics, on two threads of its own, until it goes.
class VORN_EXPORT MetricsServer {
 public:
  // `address` is HOST:PORT, [IPV6]:PORT, or PORT alone for 127.0.0.1; port 0 is a free one. Throws
  // std::runtime_error, which names the address, when it can't listen there.
  MetricsServer(const Metrics& metrics, const std::string& address);
  ~MetricsServer();
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  int port() const;

 private:
  class VORN_NO_EXPORT Impl;
  std::unique_ptr<Impl> impl_;
};

// Writes the figures to a file, for the node exporter's textfile collector: at once, and then each
// interval. The file is replaced as a whole, readable by everybody, and removed in the end.
class VORN_EXPORT MetricsFile {
 public:
  // Throws std::system_error, which names the file, when it can't be written. What fails later is
  // traced, "Metrics/0", and tried again.
  MetricsFile(const Metrics& metrics, std::string path,
              std::chrono::milliseconds interval = std::chrono::seconds(10));
  ~MetricsFile();
  MetricsFile(const MetricsFile&) = delete;
  MetricsFile& operator=(const MetricsFile&) = delete;

 private:
  class VORN_NO_EXPORT Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace VornSdkRpc
