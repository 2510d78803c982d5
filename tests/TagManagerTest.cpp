#include <VornSdkRpc/TagManager.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace VornSdkRpc {
namespace {

struct Handler : RequestHandler {
  void proceed(OpaqueId) override {}
  RequestHandlerPtr spawn(OpaqueId) override { return nullptr; }
};

TEST(TagManager, ResolvesATagToItsServiceAndHandlerUntilItIsRemoved) {
  TagManager tags;
  const OpaqueId tag = tags.newTag(2);
  std::size_t serviceId = 77;
  RequestHandlerPtr found = std::make_shared<Handler>();
  EXPECT_TRUE(tags.find(tag, serviceId, found));
  EXPECT_EQ(serviceId, 2U);
  EXPECT_EQ(found, nullptr);
  const std::weak_ptr first = [&] {
    const auto made = std::make_shared<Handler>();
    tags.storeHandler(2, tag, made);
    return made;
  }();
  const auto second = std::make_shared<Handler>();
  tags.storeHandler(2, tag, second);
  EXPECT_TRUE(first.expired()) << "the second handler releases the first";
  EXPECT_TRUE(tags.find(tag, serviceId, found));
  tags.removeHandler(2, tag);
  tags.removeHandler(5, tag);  // an unknown tag, of whichever service, is ignored
  serviceId = 77;
  EXPECT_FALSE(tags.find(tag, serviceId, found));
  EXPECT_EQ(serviceId, 77U);
  EXPECT_EQ(found, second) << "both untouched";
  tags.newTag(1);
  tags.clear();
  EXPECT_EQ(tags.size(), 0U);
}

TEST(TagManager, CanStillBeCalledByTheLastHandlersThatItReleases) {
  std::size_t left = 0;
  struct Calling : Handler {
    Calling(TagManager& made, std::size_t& seen) : tags(made), left(seen) {}
    ~Calling() override {
      tags.removeHandler(0, opaqueId_);
      left += tags.size() + 1;
    }
    TagManager& tags;
    std::size_t& left;
  };
  {
    TagManager tags;
    for (int i = 0; i < 2; ++i) {
      const auto handler = std::make_shared<Calling>(tags, left);
      handler->opaqueId_ = tags.newTag(0);
      tags.storeHandler(0, handler->opaqueId_, handler);
    }
  }
  EXPECT_EQ(left, 2U) << "both went, from a registry that knew no tag any more";
}

// Threads that make, resolve and remove tags beside each other: none may see another's tag, and
// nothing may be left over.
TEST(TagManager, ServesManyThreadsAtOnce) {
  TagManager tags;
  std::vector<std::jthread> threads;
  for (std::size_t id = 0; id < 4; ++id) {
    threads.emplace_back([&, id] {
      for (int round = 0; round < 2000; ++round) {
        const OpaqueId tag = tags.newTag(id);
        const auto mine = std::make_shared<Handler>();
        tags.storeHandler(id, tag, mine);
        std::size_t serviceId = 4;
        RequestHandlerPtr found;
        ASSERT_TRUE(tags.find(tag, serviceId, found) && serviceId == id && found == mine);
        tags.removeHandler(id, tag);
      }
    });
  }
  threads.clear();
  EXPECT_EQ(tags.size(), 0U);
}

TEST(TagManagerDeathTest, AForeignServiceIsAProgrammingError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TagManager tags;
  const OpaqueId tag = tags.newTag(1);
  EXPECT_DEATH(tags.storeHandler(2, tag, nullptr), "serviceId == iter->second->serviceId");
  EXPECT_DEATH(tags.storeHandler(1, &tags, nullptr), "iter != tags_.end");
  EXPECT_DEATH(tags.removeHandler(2, tag), "i->second->serviceId == serviceId");
}

}  // namespace
}  // namespace VornSdkRpc
