#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace test {

// Gives the test program a folder of named network namespaces that nobody else sees, in a mount
// namespace of its own: what the tests make there is gone when the program ends, also when it is
// killed. Where the user may not have one, he may not make network namespaces either.
class OwnNetns : public testing::Environment {
 public:
  void SetUp() override {
    mkdir(kFolder, 0755);  // which `ip netns add` would do
    if (unshare(CLONE_NEWNS) != 0) return;
    const bool own = mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     mount("own", kFolder, "tmpfs", 0, nullptr) == 0;
    if (!own) FAIL() << kFolder << " is shared with everybody";
  }

 private:
  static constexpr const char* kFolder = "/var/run/netns";
};

inline testing::Environment* const ownNetns = testing::AddGlobalTestEnvironment(new OwnNetns);

}  // namespace test
