// One of the servers that scripts/bench measures, in a process of its own:
//
//   EchoServer MODE [--ahead N] [--accounting FILE | --records KIND:FILE [--metrics] |
//   --spdlog FILE] [--count-allocations] [--keepalive [--streams N]]
//   [--listener [--flood-limits]] [--work US] [--turns]
//
// MODE is handwritten, frame, kit, coroutine, callback or synchronous; KIND is line or json.
// --keepalive has installArguments() called, with N streams a connection (any number), --work has
// Say of the kit take so long, and --turns has clients take turns on the frame. Tells the port that
// it listens on, then answers every line of its standard input with one line of JSON: "report" with
// what the process has used so far, "stop" (or the end of the input) with how long stopping took,
// after which it ends.
#include <VornSdkRpc/ServerArguments.h>
#include <fmt/core.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "bench/Allocations.h"
#include "bench/EchoServers.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  std::string mode;
  std::size_t ahead = 1;
  std::string accountingFile;
  std::string records;
  bool metrics = false;
  std::string spdlogFile;
  bool countAllocations = false;
  bool keepalive = false;
  bool listener = false;
  bool floodLimits = false;
  int streams = 0;
  std::chrono::microseconds work{0};
  bool turns = false;
  bool timesPolls = false;
};

Options parse(int argc, char** argv) {
  if (argc < 2) throw std::invalid_argument("which server?");
  Options options{.mode = argv[1], .accountingFile = {}, .records = {}, .spdlogFile = {}};
  for (int i = 2; i < argc; ++i) {
    const std::string_view option = argv[i];
    const auto value = [&] {
      if (++i == argc) throw std::invalid_argument(fmt::format("{} needs a value", option));
      return argv[i];
    };
    if (option == "--ahead") {
      options.ahead = std::stoul(value());
    } else if (option == "--accounting") {
      options.accountingFile = value();
    } else if (option == "--records") {
      options.records = value();
    } else if (option == "--metrics") {
      options.metrics = true;
    } else if (option == "--spdlog") {
      options.spdlogFile = value();
    } else if (option == "--count-allocations") {
      options.countAllocations = true;
    } else if (option == "--keepalive") {
      options.keepalive = true;
    } else if (option == "--listener") {
      options.listener = true;
    } else if (option == "--flood-limits") {
      options.floodLimits = true;
    } else if (option == "--streams") {
      options.streams = std::stoi(value());
    } else if (option == "--work") {
      options.work = std::chrono::microseconds(std::stol(value()));
    } else if (option == "--time-polls") {
      options.timesPolls = true;
    } else if (option == "--turns") {
      options.turns = true;
    } else {
      throw std::invalid_argument(fmt::format("unknown option {}", option));
    }
  }
  return options;
}

std::unique_ptr<bench::Server> make(const Options& options, bench::Counts& counts) {
  if (options.mode == "handwritten") return bench::makeHandWritten(counts, options.ahead);
  if (options.mode == "frame") return bench::makeFrame(counts, options.ahead);
  if (options.mode == "kit") return bench::makeKit(counts, options.ahead, false, options.work);
  if (options.mode == "coroutine") return bench::makeKit(counts, options.ahead, true, options.work);
  if (options.mode == "callback") return bench::makeCallback(counts);
  if (options.mode == "synchronous") return bench::makeSynchronous(counts);
  throw std::invalid_argument(fmt::format("unknown server {}", options.mode));
}

std::int64_t microseconds(const timeval& time) {
  return std::int64_t{time.tv_sec} * 1'000'000 + time.tv_usec;
}

std::size_t residentBytes() {
  std::size_t total = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

std::string report(const bench::Counts& counts) {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto heap = mallinfo2();
  return fmt::format(
      R"({{"cpu_us": {}, "allocations": {}, "heap_bytes": {}, "resident_bytes": {}, "held": {}, "written": {}, "longest_poll_ms": {:.1f}}})",
      microseconds(usage.ru_utime) + microseconds(usage.ru_stime), allocations(),
      heap.uordblks + heap.hblkhd, residentBytes(), counts.held.load(), counts.written.load(),
      counts.longestPollMs.load());
}

// Until "stop" or the end of the input.
void answerReports(const bench::Counts& counts) {
  for (std::string line; std::getline(std::cin, line) && line != "stop";) {
    std::cout << report(counts) << std::endl;
  }
}

void serve(const Options& options) {
  int port = 0;
  grpc::ServerBuilder builder;
  const std::string address = "0.0.0.0:0";
  const auto credentials = grpc::InsecureServerCredentials();
  const auto listener =
      std::make_shared<VornSdkRpc::Listener>(builder, VornSdkRpc::ServerProperties());
  if (options.floodLimits)
    listener->floodLimitsAre({.abandonedCalls = 2000, .bytesWithoutMessage = 4 << 20});
  if (options.listener) {
    port = listener->add(address, credentials);
  } else {
    builder.AddListeningPort(address, credentials, &port);
  }
  if (!options.accountingFile.empty())
    bench::accountThroughLibrary(builder, options.accountingFile);
  std::optional<bench::Recording> recording;
  if (!options.records.empty()) recording.emplace(builder, options.records, options.metrics);
  if (!options.spdlogFile.empty()) bench::accountThroughSpdlog(builder, options.spdlogFile);
  if (options.keepalive) {
    VornSdkRpc::installArguments(builder, {.maxConcurrentStreams = options.streams});
  }

  bench::Counts counts;
  counts.timesPolls = options.timesPolls;
  const auto server = make(options, counts);
  if (options.listener) server->listenerIs(listener);
  if (options.turns) server->clientsTakeTurns();
  Clock::time_point stopped;
  std::thread control;
  server->run(builder, [&] {
    std::cout << port << std::endl;
    control = std::thread([&] {
      answerReports(counts);
      stopped = Clock::now();
      server->stop();
    });
  });
  const auto ended = Clock::now();
  control.join();
  const std::chrono::duration<double, std::milli> took = ended - stopped;
  std::cout << fmt::format(R"({{"stop_ms": {:.3f}}})", took.count()) << std::endl;
}

}  // namespace

int main(int argc, char** argv) try {
  const Options options = parse(argc, argv);
  allocationCountingIs(options.countAllocations);
  serve(options);
} catch (const std::exception& error) {
  std::cerr << "EchoServer: " << error.what() << '\n';
  return 2;
}
