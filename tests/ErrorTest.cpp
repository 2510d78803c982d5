#include <gtest/gtest.h>
#include <vorn/error.h>

#include <memory>
#include <string>

#include "ErrorThrower.h"
#include "FailingNew.h"

namespace {

// Throws `error` again through its base and answers whether a handler of type Handler catches it.
template <typename Handler>
bool caughtBy(const vorn::error& error) {
  try {
    error.raise();
  } catch (const Handler& caught) {
    EXPECT_STREQ(caught.what(), error.what());
    EXPECT_EQ(typeid(caught), typeid(error));
    return true;
  } catch (...) {
  }
  return false;
}

// One letter for each handler that catches the error, in the order of the class list.
std::string handlersOf(const vorn::error& error) {
  std::string caught;
  if (caughtBy<vorn::invalid_argument_error>(error)) caught += 'a';
  if (caughtBy<vorn::invalid_range_error>(error)) caught += 'r';
  if (caughtBy<vorn::configuration_error>(error)) caught += 'c';
  if (caughtBy<vorn::unconfigured_agent_error>(error)) caught += 'u';
  if (caughtBy<vorn::unsupported_error>(error)) caught += 's';
  if (caughtBy<vorn::no_scoped_lock_obtained_error>(error)) caught += 'l';
  EXPECT_TRUE(caughtBy<vorn::error>(error) && caughtBy<std::exception>(error));
  return caught;
}

TEST(Error, RaisesItselfAsWhatItIs) {
  EXPECT_EQ(handlersOf(vorn::invalid_argument_error("m", "a")), "a");
  EXPECT_EQ(handlersOf(vorn::invalid_range_error("m", "a", 1)), "ar");
  EXPECT_EQ(handlersOf(vorn::configuration_error("m")), "c");
  EXPECT_EQ(handlersOf(vorn::unconfigured_agent_error("m", "a")), "cu");
  EXPECT_EQ(handlersOf(vorn::unsupported_error("m", "f")), "s");
  EXPECT_EQ(handlersOf(vorn::no_scoped_lock_obtained_error("m")), "l");
}

TEST(Error, CarriesItsFieldsAlong) {
  const std::unique_ptr<const vorn::error> kept =
      std::make_unique<vorn::invalid_range_error>("out of range", "mtu", ~std::uint64_t{0});
  try {
    kept->raise();
  } catch (const vorn::invalid_range_error& error) {
    EXPECT_STREQ(error.what(), "out of range");
    EXPECT_EQ(error.argument(), "mtu");
    EXPECT_EQ(error.value(), ~std::uint64_t{0});
  }
  vorn::unsupported_error assigned("old", "old");
  assigned = vorn::unsupported_error("not here", "sbfd");
  EXPECT_STREQ(assigned.what(), "not here");
  EXPECT_EQ(assigned.feature(), "sbfd");
}

TEST(Error, PassesOnTheFailureOfACopy) {
  const std::string text(100, 'x');
  const vorn::unconfigured_agent_error error(text, text);
  const int failures = test::failEachAllocation(
      [&] {
        try {
          error.raise();
        } catch (const vorn::error&) {
        }
      },
      [] {});
  EXPECT_EQ(failures, 2);
}

TEST(Error, IsTheSameTypeInEverySharedObject) {
  EXPECT_EQ(thrower::rangeType(), &typeid(vorn::invalid_range_error));
  try {
    thrower::throwRange();
  } catch (const vorn::error& error) {
    EXPECT_STREQ(error.what(), "too high");
    const auto* range = dynamic_cast<const vorn::invalid_range_error*>(&error);
    ASSERT_NE(range, nullptr);
    EXPECT_EQ(range->value(), 1U << 20);
  }
  EXPECT_THROW(thrower::throwUnconfigured(), vorn::configuration_error);
  EXPECT_THROW(thrower::callAndRaise([] { throw vorn::unsupported_error("m", "f"); }),
               vorn::unsupported_error);
}

}  // namespace
