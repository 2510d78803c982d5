#include <VornSdkRpc/Utils.h>
#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
namespace argv = VornSdkRpc::argv;

// The arguments of a process, which outlive the vector that points at them.
class CommandLine {
 public:
  explicit CommandLine(std::vector<std::string> arguments) : strings_(std::move(arguments)) {
    for (auto& string : strings_)
      pointers_.push_back(string.data());
    pointers_.push_back(nullptr);
    left = argv::vectorize(static_cast<int>(strings_.size()), pointers_.data());
  }

  std::vector<std::string> texts() const { return {left.begin(), left.end()}; }
  const char* at(std::size_t index) const { return strings_[index].data(); }

  std::vector<char*> left;

 private:
  std::vector<std::string> strings_;
  std::vector<char*> pointers_;
};

TEST(Argv, AnswersTheValueOfAnOption) {
  struct Case {
    std::vector<std::string> before;
    std::string value;
    std::vector<std::string> after;
  };
  const Case cases[] = {
      {{"prog", "--name", "agent1", "--verbose"}, "agent1", {"prog", "--verbose"}},
      {{"prog", "a", "--name", "--other"}, "--other", {"prog", "a"}},
      {{"prog", "--name", ""}, "", {"prog"}},
      {{"prog", "--name"}, "default", {"prog"}},
      {{"prog", "--name", "1", "--name", "2"}, "1", {"prog", "--name", "2"}},
      {{"prog", "--name=agent1", "--nam", "--Name", "--names"},
       "default",
       {"prog", "--name=agent1", "--nam", "--Name", "--names"}},
      {{}, "default", {}},
  };
  for (const auto& [before, value, after] : cases) {
    CommandLine line(before);
    EXPECT_EQ(argv::getOptionValue(line.left, "--name", "default"), value);
    EXPECT_EQ(line.texts(), after);
  }
}

TEST(Argv, AnswersAViewOfTheArgumentItself) {
  CommandLine line({"prog", "--name", "agent1"});
  EXPECT_EQ(argv::getOptionValue(line.left, "--name", "").data(), line.at(2));
}

TEST(Argv, FindsAnOptionOncePerOccurrence) {
  CommandLine line({"prog", "-v", "x", "-v", "-vv"});
  EXPECT_TRUE(argv::isOptionPresent(line.left, "-v"));
  EXPECT_THAT(line.texts(), ElementsAre("prog", "x", "-v", "-vv"));
  EXPECT_TRUE(argv::isOptionPresent(line.left, "-v"));
  EXPECT_FALSE(argv::isOptionPresent(line.left, "-v"));
  EXPECT_THAT(line.texts(), ElementsAre("prog", "x", "-vv"));
}

TEST(Argv, TakesAsManyArgumentsAsAreCounted) {
  CommandLine line({"prog", "a"});
  EXPECT_THAT(argv::vectorize(1, line.left.data()), ElementsAre(line.at(0)));
  auto none = argv::vectorize(0, nullptr);
  EXPECT_THAT(none, IsEmpty());
  EXPECT_FALSE(argv::isOptionPresent(none, "-v"));
  try {
    argv::vectorize(-1, line.left.data());
    ADD_FAILURE() << "a negative count was taken";
  } catch (const std::length_error& error) {
    EXPECT_STREQ(error.what(), "cannot create std::vector larger than max_size()");
  }
}

}  // namespace
