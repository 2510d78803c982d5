// The platform's own sinks, and a server behind them, when a disk is full and when nobody reads
// standard error.
#include <Kiv/FileSink.h>
#include <Kiv/Log.h>
#include <Kiv/QueuedSink.h>
#include <Kiv/StderrSink.h>
#include <Kiv/Trace.h>
#include <gmock/gmock.h>
#include <spdlog/logger.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "tests/Capture.h"
#include "tests/FullAt.h"
#include "tests/FullStderr.h"
#include "tests/ProbeService.h"

namespace test {
namespace {

using testing::ElementsAre;

std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

// A logger of bare lines to one sink, whose failures are nobody's.
spdlog::logger loggerOf(const spdlog::sink_ptr& sink) {
  sink->set_pattern("%v");
  spdlog::logger logger("test", sink);
  logger.set_error_handler([](const std::string&) {});
  return logger;
}

TEST(FileSink, GluesNoLineToTheRestOfAnother) {
  std::signal(SIGXFSZ, SIG_IGN);
  const std::string path = testing::TempDir() + "sinks" + std::to_string(getpid());
  std::ofstream(path) << "of an earlier run";
  const auto sink = std::make_shared<Kiv::FileSink>(path);
  auto logger = loggerOf(sink);
  logger.info("first");
  {
    const FullAt limit(std::filesystem::file_size(path) + 3);
    logger.info("second");
    logger.info("third");
  }
  logger.info("fourth");
  logger.info("fifth");
  EXPECT_EQ(contentOf(path),
            "of an earlier run\nfirst\nsec\nLINES_LOST: 2 lines were not written here\n"
            "fourth\nfifth\n");
  EXPECT_EQ(sink->lost(), 2U);
  std::filesystem::remove(path);
}

TEST(FileSink, WritesLinesThatGatherAtOnceAndCountsThoseThatDoNotFit) {
  std::signal(SIGXFSZ, SIG_IGN);
  const std::string path = testing::TempDir() + "sinks-gathered" + std::to_string(getpid());
  const auto sink = std::make_shared<Kiv::FileSink>(path);
  auto logger = loggerOf(sink);
  sink->gather();
  logger.info("mine");
  EXPECT_EQ(contentOf(path), "");
  std::thread([&] { logger.info("another's"); }).join();
  EXPECT_EQ(contentOf(path), "mine\nanother's\n");
  for (const char* const text : {"fits", "does not", "nor this"})
    logger.info(text);
  {
    const FullAt limit(std::filesystem::file_size(path) + 8);
    logger.flush();
  }
  logger.info("last");
  EXPECT_EQ(contentOf(path),
            "mine\nanother's\nfits\ndoe\nLINES_LOST: 2 lines were not written here\nlast\n");
  EXPECT_EQ(sink->lost(), 2U);
  std::filesystem::remove(path);
}

// Renamed and opened again while it is written to: what was renamed is complete, and nothing is
// lost.
TEST(FileSink, SurvivesRotationByRename) {
  constexpr int kLines = 20000;
  const std::string path = testing::TempDir() + "sinks-rotated" + std::to_string(getpid());
  const auto sink = std::make_shared<Kiv::FileSink>(path);
  auto logger = loggerOf(sink);
  std::atomic<bool> written = false;
  std::jthread writer([&] {
    for (int i = 0; i < kLines; ++i)
      logger.info("{}", i);
    written = true;
  });
  std::string all;
  while (!written) {
    std::filesystem::rename(path, path + ".1");
    sink->reopen();
    all += contentOf(path + ".1");
  }
  writer.join();
  all += contentOf(path);
  std::string expected;
  for (int i = 0; i < kLines; ++i)
    expected += std::to_string(i) + "\n";
  EXPECT_TRUE(all == expected);
  std::filesystem::remove(path);
  std::filesystem::remove(path + ".1");
}

TEST(FileSink, IsTheOwnersAloneAndNamesWhatItCannotOpen) {
  const std::string path = testing::TempDir() + "sinks-mode" + std::to_string(getpid());
  Kiv::FileSink{path};
  EXPECT_EQ(std::filesystem::status(path).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  std::filesystem::remove(path);
  try {
    Kiv::FileSink("/no/such/folder/log");
    FAIL();
  } catch (const spdlog::spdlog_ex& error) {
    EXPECT_STREQ(error.what(), "cannot open /no/such/folder/log: No such file or directory");
  }
}

TEST(StderrSink, LosesWhatNobodyReadsAndTellsIt) {
  FullStderr full;
  const auto sink = std::make_shared<Kiv::StderrSink>(std::chrono::milliseconds(1));
  auto logger = loggerOf(sink);
  for (int i = 0; i < 3; ++i)
    logger.info("lost");
  full.drain();
  logger.info("found");
  EXPECT_THAT(full.readLines(2), ElementsAre("LINES_LOST: 3 lines were not written here", "found"));
  EXPECT_EQ(sink->lost(), 3U);
}

// Waits for nobody, keeps the order, and accounts for every line.
TEST(QueuedSink, DropsWhatIsTooMuchAndTellsIt) {
  constexpr int kLines = 5000;
  FullStderr full;
  auto logger = loggerOf(std::make_shared<Kiv::QueuedSink>(
      std::make_shared<Kiv::StderrSink>(Kiv::StderrSink::kForever)));
  for (int i = 0; i < kLines; ++i)
    logger.info("{}", i);
  full.drain();
  int next = 0;
  while (next < kLines) {
    const std::string line = full.readLines(1).at(0);
    int missing = 0;
    if (std::sscanf(line.c_str(), "Queue/0: %d lines are missing here", &missing) == 1) {
      ASSERT_GT(missing, 0);
      next += missing;
    } else {
      ASSERT_EQ(line, std::to_string(next++));
    }
  }
  EXPECT_EQ(next, kLines);
  logger.info("again");
  EXPECT_THAT(full.readLines(1), ElementsAre("again"));
}

// What a thread that serves has to say about its clients, it says to nobody here: protobuf's
// and gRPC's
// complaints, every trace there is and the log. In a process of its own, which must end.
TEST(FullStderrDeathTest, HoldsUpNeitherCallsNorAStopNorTheExit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto serve = [] {
    const FullStderr full;
    Kiv::traceSettingIs("*/0-31");
    Kiv::platformLogger().sinks() = {std::make_shared<Kiv::StderrSink>()};
    RunningServer running({std::make_shared<ProbeService>()}, true);
    const auto stub = running.stub();
    int answered = 0;
    for (int i = 0; i < 100; ++i)
      answered += callEcho(*stub, "\xff") == grpc::INTERNAL ? 1 : 0;
    for (int i = 0; i < 1000; ++i)
      gpr_log(GPR_ERROR, "what a client has made it say");
    running.stop();
    std::exit(answered);
  };
  EXPECT_EXIT(serve(), testing::ExitedWithCode(100), "");
}

TEST(GrpcLog, GoesToTheTraceAtALimitedRate) {
  const Capture trace(Kiv::traceLogger());
  grpc::ServerBuilder builder;
  VornSdkRpc::ServerProperties properties;
  const VornSdkRpc::GrpcServer server(builder, {}, properties);
  const auto complain = [] { gpr_log(GPR_ERROR, "what a client has made it say"); };
  for (int i = 0; i < 20; ++i)
    complain();
  EXPECT_EQ(trace.count("grpc/0: what a client has made it say (0 messages were left out"), 1U);
  EXPECT_EQ(trace.lines().size(), 1U);
  Kiv::traceSettingIs("grpc/8");
  complain();
  Kiv::traceSettingIs("");
  EXPECT_EQ(trace.lines().back(), "grpc/8: what a client has made it say");
}

TEST(ProtobufLog, GoesToTheTraceAtALimitedRate) {
  const Capture trace(Kiv::traceLogger());
  RunningServer running({std::make_shared<ProbeService>()});
  const auto stub = running.stub();
  for (int i = 0; i < 20; ++i)
    callEcho(*stub, "\xff");
  EXPECT_EQ(trace.count("protobuf/0: String field 'test.Text.text' contains invalid UTF-8"), 1U);
}

}  // namespace
}  // namespace test
