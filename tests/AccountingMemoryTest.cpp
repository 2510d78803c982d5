// A program of its own: with an allocator of the program's, the thread sanitizer can't tell any
// more which allocations are gRPC's.
#include <Kiv/Log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/Accounted.h"
#include "tests/Capture.h"
#include "tests/FailingNew.h"

using testing::ElementsAre;
using testing::HasSubstr;

TEST(Accounting, ARecordOutlastsAMomentWithoutMemory) {
  std::vector<int> left;  // -1 once the allocation has failed
  const test::Capture log(Kiv::platformLogger(), [&left] {
    left.push_back(test::allocationsLeft);
    if (left.size() == 1) test::allocationsLeft = 0;
  });
  test::EchoServer server;
  const auto stub = server.stub();
  for (int status = 0; status < 3; ++status) {
    EXPECT_EQ(test::callEcho(*stub, std::to_string(status)), status);
  }
  server.stop();
  EXPECT_THAT(log.lines(),
              ElementsAre(HasSubstr("status: 0"), HasSubstr("status: 1"), HasSubstr("status: 2")));
  EXPECT_THAT(left, ElementsAre(-1, -1, -1));
}
