#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/NamespaceCheck.h>
#include <VornSdkRpc/ServerArguments.h>
#include <VornSdkRpc/Utils.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vorn/error.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "tests/OwnNetns.h"
#include "tests/ProbeService.h"

namespace test {
namespace {

using VornSdkRpc::Mutex;
using VornSdkRpc::ScopedNamespace;

// ---------------------------------------------------------------------------------------------
// Mutex

TEST(Mutex, ExcludesOtherThreads) {
  Mutex mutex(std::chrono::nanoseconds::max());  // beyond the end of time
  long counter = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 10000; ++n) {
        const std::lock_guard lock(mutex);
        ++counter;
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(counter, 40000);
}

TEST(MutexDeathTest, TakesAMissedDeadlineForADeadlock) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Mutex mutex(std::chrono::milliseconds(50));
        const std::lock_guard held(mutex);
        const std::lock_guard again(mutex);
      },
      "std::chrono::steady_clock::now\\(\\) < deadline && \"Unable to acquire the lock during the "
      "specified time\"");
}

// ---------------------------------------------------------------------------------------------
// ScopedNamespace

// The namespace of one thread, by its inode.
ino_t namespaceOf(const std::string& thread = "thread-self") {
  struct stat status{};
  stat(("/proc/" + thread + "/ns/net").c_str(), &status);
  return status.st_ino;
}

std::set<ino_t> namespacesOfAllThreads() {
  std::set<ino_t> all;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    all.insert(namespaceOf("self/task/" + task.path().filename().string()));
  }
  return all;
}

std::size_t openDescriptors() {
  std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

// Two namespaces of the test's own, where it may make some.
class NamespaceTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const auto& name : {first_, second_}) {
      if (std::system(("ip netns add " + name + " 2>/dev/null && ip -n " + name + " link set lo up")
                          .c_str())) {
        GTEST_SKIP() << "this user may not make network namespaces";
      }
    }
  }
  void TearDown() override {
    for (const auto& name : {first_, second_}) {
      if (std::system(("ip netns delete " + name + " 2>/dev/null").c_str())) continue;
    }
  }

  const std::string first_ = "rpc-test-a" + std::to_string(getpid());
  const std::string second_ = "rpc-test-b" + std::to_string(getpid());
};

TEST_F(NamespaceTest, SwitchesOnlyTheCallingThreadAndNests) {
  const ino_t home = namespaceOf();
  const std::size_t descriptors = openDescriptors();
  // On a thread of its own, which is not the main one: its namespace is not that of the process.
  std::thread([&] {
    const ScopedNamespace outer(first_);
    const ino_t inFirst = namespaceOf();
    EXPECT_NE(inFirst, home);
    {
      const ScopedNamespace inner(second_);
      EXPECT_NE(namespaceOf(), home);
      EXPECT_NE(namespaceOf(), inFirst);
    }
    EXPECT_EQ(namespaceOf(), inFirst);
    EXPECT_EQ(namespaceOf("self"), home) << "the main thread stays where it is";
    const ScopedNamespace none("");
    EXPECT_EQ(namespaceOf(), inFirst);
  }).join();
  {
    const ScopedNamespace scope(first_);
    EXPECT_NE(namespaceOf(), home);
  }
  EXPECT_EQ(namespaceOf(), home);
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(NamespaceTest, AServerListensInItAndLeavesTheProcessOutside) {
  const ino_t home = namespaceOf();
  const std::string address = "127.0.0.1:50999";
  const auto probe = std::make_shared<ProbeService>();
  grpc::ServerBuilder builder;
  builder.AddListeningPort(address, grpc::InsecureServerCredentials());
  VornSdkRpc::ServerProperties properties{first_};
  VornSdkRpc::GrpcServer server(builder, {probe}, properties);
  server.setup();
  EXPECT_EQ(namespaceOf(), home);
  EXPECT_THAT(namespacesOfAllThreads(), testing::ElementsAre(home))
      << "no thread, gRPC's own included, is left inside";
  // The address is free elsewhere, and taken inside.
  for (const auto& [name, taken] : {std::pair{second_, false}, {first_, true}}) {
    grpc::ServerBuilder again;
    again.AddListeningPort(address, grpc::InsecureServerCredentials());
    VornSdkRpc::installArguments(again);
    VornSdkRpc::ServerProperties where{name};
    const auto listens = [&, &netns = name] {
      grpc::ServerBuilder spare;
      VornSdkRpc::ServerProperties there{netns};
      VornSdkRpc::Listener(spare, there).add(address, grpc::InsecureServerCredentials());
    };
    if (taken) {
      EXPECT_THROW(listens(), std::system_error);
    } else {
      EXPECT_NO_THROW(listens());
    }
    VornSdkRpc::GrpcServer second(again, {std::make_shared<ProbeService>()}, where);
    if (taken) {
      EXPECT_THROW(second.setup(), VornSdkRpc::ServerFailedError);
    } else {
      EXPECT_NO_THROW(second.setup());
    }
    EXPECT_EQ(namespaceOf(), home) << "also after a failure";
  }
}

TEST_F(NamespaceTest, IsCheckedWithoutMovingTheThread) {
  const ino_t home = namespaceOf();
  EXPECT_NO_THROW(VornSdkRpc::checkNamespace(first_));
  EXPECT_EQ(namespaceOf(), home);
}

TEST(NamespaceCheck, NamesTheNamespaceThatCantBeEntered) {
  EXPECT_NO_THROW(VornSdkRpc::checkNamespace(""));
  for (const auto& [name, why] : {std::pair{"no-such-namespace", "No such file or directory"},
                                  {"../netns/escape", "Invalid argument"}}) {
    try {
      VornSdkRpc::checkNamespace(name);
      FAIL() << name << " can be entered";
    } catch (const vorn::configuration_error& error) {
      EXPECT_EQ(error.what(), std::string("cannot enter network namespace ") + name + ": " + why);
    }
  }
}

TEST(ScopedNamespaceDeathTest, AnUnknownNamespaceIsABrokenPrecondition) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(ScopedNamespace("no-such-namespace"), "!status");
  EXPECT_DEATH(ScopedNamespace("../netns/escape"), "!status");
}

}  // namespace
}  // namespace test
