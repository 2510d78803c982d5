#include <VornSdkRpc/TagManager.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace VornSdkRpc {
namespace {

struct Handler : RequestHandler {
  explicit Handler(std::atomic<int>& alive) : alive_(alive) { ++alive_; }
  ~Handler() override { --alive_; }
  void proceed(OpaqueId) override {}
  RequestHandlerPtr spawn(OpaqueId) override { return nullptr; }
  std::atomic<int>& alive_;
};

TEST(TagManager, ResolvesATagToItsServiceAndHandlerUntilItIsRemoved) {
  std::atomic<int> alive = 0;
  TagManager tags;
  const OpaqueId tag = tags.newTag(2);
  std::size_t serviceId = 77;
  RequestHandlerPtr handler = std::make_shared<Handler>(alive);
  EXPECT_TRUE(tags.find(tag, serviceId, handler));
  EXPECT_EQ(serviceId, 2U);
  EXPECT_EQ(handler, nullptr);
  EXPECT_EQ(alive, 0);

  tags.storeHandler(2, tag, std::make_shared<Handler>(alive));
  tags.storeHandler(2, tag, std::make_shared<Handler>(alive));
  EXPECT_EQ(alive, 1) << "the second handler releases the first";
  EXPECT_TRUE(tags.find(tag, serviceId, handler));
  tags.removeHandler(2, tag);
  EXPECT_EQ(alive, 1) << "a handler that was found outlives its tag";

  serviceId = 77;
  RequestHandlerPtr untouched = handler;
  EXPECT_FALSE(tags.find(tag, serviceId, untouched));
  EXPECT_EQ(serviceId, 77U);
  EXPECT_EQ(untouched, handler);
  tags.removeHandler(5, tag);  // an unknown tag, of whichever service, is ignored
}

TEST(TagManager, AHandlerWithTwoTagsSurvivesTheRemovalOfOne) {
  std::atomic<int> alive = 0;
  TagManager tags;
  const OpaqueId first = tags.newTag(0);
  const OpaqueId second = tags.newTag(0);
  auto handler = std::make_shared<Handler>(alive);
  tags.storeHandler(0, first, handler);
  tags.storeHandler(0, second, std::move(handler));
  tags.removeHandler(0, first);
  EXPECT_EQ(alive, 1);
  tags.clear();
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(tags.size(), 0U);
}

TEST(TagManager, CanStillBeCalledByTheLastHandlersThatItReleases) {
  struct Calling : Handler {
    Calling(std::atomic<int>& alive, TagManager& tags) : Handler(alive), tags_(tags) {}
    ~Calling() override {
      tags_.removeHandler(0, opaqueId_);
      alive_ += static_cast<int>(tags_.size());
    }
    TagManager& tags_;
  };
  std::atomic<int> alive = 0;
  {
    TagManager tags;
    for (int i = 0; i < 2; ++i) {
      const auto handler = std::make_shared<Calling>(alive, tags);
      handler->opaqueId_ = tags.newTag(0);
      tags.storeHandler(0, handler->opaqueId_, handler);
    }
  }
  EXPECT_EQ(alive, 0);
}

// Threads that make, resolve and remove tags beside each other: none may see another's tag, and
// nothing may be left over.
TEST(TagManager, ServesManyThreadsAtOnce) {
  std::atomic<int> alive = 0;
  std::atomic<int> wrong = 0;
  TagManager tags;
  {
    std::vector<std::jthread> threads;
    for (std::size_t id = 0; id < 4; ++id) {
      threads.emplace_back([&, id] {
        for (int round = 0; round < 2000; ++round) {
          const OpaqueId tag = tags.newTag(id);
          const auto mine = std::make_shared<Handler>(alive);
          tags.storeHandler(id, tag, mine);
          std::size_t serviceId = 4;
          RequestHandlerPtr found;
          if (!tags.find(tag, serviceId, found) || serviceId != id || found != mine) ++wrong;
          tags.removeHandler(id, tag);
        }
      });
    }
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(tags.size(), 0U);
}

TEST(TagManagerDeathTest, AForeignServiceIsAProgrammingError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TagManager tags;
  const OpaqueId tag = tags.newTag(1);
  const char* const stored = "iter != tags_.end\\(\\) && serviceId == iter->second->serviceId";
  EXPECT_DEATH(tags.storeHandler(2, tag, nullptr), stored);
  EXPECT_DEATH(tags.storeHandler(1, &tags, nullptr), stored);
  EXPECT_DEATH(tags.removeHandler(2, tag), "i->second->serviceId == serviceId");
}

}  // namespace
}  // namespace VornSdkRpc
