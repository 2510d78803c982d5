#include <VornSdkRpc/RpcPublished.h>
#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/FailingNew.h"

namespace test {
namespace {

namespace rpc = VornSdkRpc::rpc;
using rpc::News;
using testing::ElementsAre;

// A number that counts how many of its kind there are.
struct Counted {
  explicit Counted(int of) : number(of) { ++alive; }
  Counted(const Counted& other) : number(other.number) { ++alive; }
  Counted& operator=(const Counted&) = default;
  ~Counted() { --alive; }
  auto operator<=>(const Counted& other) const { return number <=> other.number; }

  int number;
  static inline std::atomic<int> alive = 0;
};

using Numbers = rpc::Published<std::string, int>;

// An item as a text: "snapshot", "a=1", "a=1+2" with two changes folded into it, "-a", "synced".
std::string textOf(const Numbers::Item& item) {
  const std::string folded = item.folded() == 0 ? "" : "+" + std::to_string(item.folded());
  switch (item.kind()) {
    case News::snapshot:
      return "snapshot";
    case News::value:
      return item.key() + "=" + std::to_string(item.value()) + folded;
    case News::removal:
      return "-" + item.key() + folded;
    case News::synced:
      return "synced";
  }
  return "?";
}

// A watcher with its event, and what it has been told last.
class Watch {
 public:
  explicit Watch(Numbers& table, const rpc::WatchOptions& options = {})
      : watcher_(table, news_, options) {}

  std::vector<std::string> take(std::size_t most = SIZE_MAX) {
    std::vector<std::string> texts;
    while (texts.size() < most) {
      const auto item = watcher_.next();
      if (!item) break;
      version = item->version();
      if (item->kind() == News::snapshot) state.clear();
      if (item->kind() == News::value) state[item->key()] = item->value();
      if (item->kind() == News::removal) state.erase(item->key());
      texts.push_back(textOf(*item));
    }
    return texts;
  }
  std::size_t waiting() const { return watcher_.waiting(); }

  rpc::PublishedVersion version;
  std::map<std::string, int> state;

 private:
  rpc::Event news_;
  Numbers::Watcher watcher_;
};

TEST(Published, TellsASnapshotAMarkAndThenWhatChanges) {
  Numbers table;
  Watch early(table);
  EXPECT_THAT(early.take(), ElementsAre("snapshot", "synced"));
  table.set("a", 1);
  table.set("b", 2);
  table.set("a", 3);
  EXPECT_FALSE(table.remove("c"));
  EXPECT_EQ(table.size(), 2U);
  EXPECT_EQ(*table.find("a"), 3);
  EXPECT_EQ(table.find("c"), nullptr);
  EXPECT_THAT(early.take(), ElementsAre("a=3+1", "b=2"));
  Watch late(table);
  EXPECT_THAT(late.take(), ElementsAre("snapshot", "b=2", "a=3", "synced"));
  Watch updates(table, {.updatesOnly = true});
  EXPECT_THAT(updates.take(), ElementsAre("synced"));
  EXPECT_TRUE(table.remove("a"));
  EXPECT_FALSE(table.remove("a"));
  for (Watch* watch : {&early, &late, &updates})
    EXPECT_THAT(watch->take(), ElementsAre("-a"));
  EXPECT_EQ(table.size(), 1U);
}

TEST(Published, FoldsWhatASlowWatcherHasNotTaken) {
  Numbers table;
  table.set("a", 0);
  table.set("b", 0);
  Watch watch(table);
  watch.take();
  const auto change = [&](const std::string& what) {
    for (const char c : what) {
      if (std::isupper(c)) table.remove(std::string(1, static_cast<char>(std::tolower(c))));
      if (std::islower(c)) table.set(std::string(1, c), 7);
    }
  };
  for (const auto& [changes, told] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"aaa", {"a=7+2"}},
           {"aba", {"a=7+1", "b=7"}},   // in the order in which they began to wait
           {"aA", {"-a+1"}},            // a removal stands for what was before it
           {"a", {"a=7"}},              //
           {"Aaa", {"a=7+2"}},          // and may be folded itself
           {"xX", {}},                  // what has come and gone is not told
           {"xXx", {"x=7"}},            //
           {"yYyYxb", {"x=7", "b=7"}},  //
           {"X", {"-x"}},               //
           {"xxX", {}},                 // nor when it had been known before that
           {"xaAbB", {"x=7", "-a+1", "-b+1"}},
       }) {
    change(changes);
    EXPECT_EQ(watch.waiting(), told.size()) << changes;
    EXPECT_EQ(watch.take(), told) << changes;
  }
}

// What changes while a snapshot is taken is told once, and all of the snapshot before the mark.
TEST(Published, IsInSyncWhenAllThatWasThereHasBeenTold) {
  Numbers table(0);
  for (const char* key : {"a", "b", "c", "d", "e"})
    table.set(key, 0);
  Watch watch(table);
  EXPECT_THAT(watch.take(3), ElementsAre("snapshot", "a=0", "b=0"));
  table.set("a", 1);    // was told: changes
  table.set("c", 1);    // was not: is told in its new state
  table.set("new", 1);  // was not there
  table.remove("d");    // will not be told
  table.set("c", 2);
  EXPECT_THAT(watch.take(), ElementsAre("e=0", "a=1", "c=2+2", "synced", "new=1"));
  Watch another(table);
  another.take(1);
  for (const char* key : {"a", "b", "c", "e", "new"})
    table.remove(key);
  EXPECT_THAT(another.take(), ElementsAre("synced"));
}

TEST(Published, ResumesOrBeginsAnew) {
  Numbers table(2);
  Watch first(table);
  for (const char* key : {"a", "b", "c", "d"})
    table.set(key, 0);
  first.take();
  const auto version = first.version;
  EXPECT_EQ(version, table.version());
  table.set("a", 1);
  table.remove("b");
  table.set("new", 1);
  Watch resumed(table, {.resume = version});
  EXPECT_THAT(resumed.take(1), ElementsAre("a=1"));
  Watch again(table, {.resume = resumed.version});
  EXPECT_THAT(again.take(), ElementsAre("-b", "new=1", "synced"));
  EXPECT_THAT(Watch(table, {.resume = again.version}).take(), ElementsAre("synced"));

  table.set("new", 2);  // while it is resumed: told in its new state, in sync only then
  EXPECT_THAT(resumed.take(), ElementsAre("-b", "new=2+1", "synced"));

  Watch slow(table, {.resume = version});
  table.remove("c");
  table.remove("d");  // the table forgets that there was a b
  EXPECT_THAT(slow.take(), ElementsAre("snapshot", "a=1", "new=2", "synced"));
  EXPECT_THAT(again.take(), ElementsAre("new=2", "-c", "-d")) << "who was there is told";
  const rpc::PublishedVersion future{version.run, table.version().number + 1};
  for (const auto& unknown : {version, future, rpc::PublishedVersion{}, Numbers().version()}) {
    const rpc::WatchOptions options{.resume = unknown, .updatesOnly = true};
    EXPECT_THAT(Watch(table, options).take(), ElementsAre("snapshot", "a=1", "new=2", "synced"));
  }
}

TEST(Published, SharesItsValues) {
  rpc::Published<int, Counted> table;
  {
    rpc::Event news;
    rpc::Published<int, Counted>::Watcher watchers[] = {
        {table, news}, {table, news}, {table, news}};
    table.set(1, Counted(1));
    std::set<const Counted*> addresses = {table.find(1).get()};
    std::vector<rpc::Published<int, Counted>::Item> items;
    for (auto& watcher : watchers) {
      while (auto item = watcher.next()) {
        if (item->kind() == News::value) addresses.insert(&item->value());
        items.push_back(*std::move(item));
      }
    }
    EXPECT_EQ(addresses.size(), 1U);
    table.remove(1);
    EXPECT_EQ(Counted::alive, 1) << "an item keeps its value";
  }
  EXPECT_EQ(Counted::alive, 0);
}

// A million changes with watchers that have stopped at different places: the same keys again and
// again, and keys that come and go and never come back.
TEST(Published, HoldsNoMoreThanItsKeysWhateverChanges) {
  constexpr int kKeys = 100, kRemembered = 10, kChanges = 1'000'000;
  using Table = rpc::Published<Counted, Counted>;
  {
    Table table(kRemembered);
    rpc::Event news;
    for (int i = 0; i < kKeys; ++i)
      table.set(Counted(i), Counted(i));
    Table::Watcher untouched(table, news), halfway(table, news), drained(table, news);
    for (int i = 0; i < kKeys / 2; ++i)
      halfway.next();
    while (drained.next()) {
    }
    // A key in the table and in its last change, and a value there.
    const int most = 3 * (kKeys + 1) + 2 * (kRemembered + 1) + 4;
    for (int i = 0; i < kChanges; ++i) {
      if (i % 2 == 0) {
        table.set(Counted(i % kKeys), Counted(i));
      } else {
        table.set(Counted(kKeys + i), Counted(i));
        table.remove(Counted(kKeys + i));
      }
      if (i % 97 != 0) continue;
      ASSERT_LE(Counted::alive, most);
      for (const auto* watcher : {&untouched, &halfway, &drained})
        ASSERT_LE(watcher->waiting(), std::size_t{kKeys});
    }
    for (auto* watcher : {&untouched, &halfway, &drained}) {
      std::uint64_t folded = 0;
      std::map<int, int> last;
      while (const auto item = watcher->next()) {
        folded += item->folded();
        if (item->kind() == News::value) last[item->key().number] = item->value().number;
      }
      EXPECT_GE(last.size(), std::size_t{kKeys / 2});
      for (const auto& [key, value] : last)
        EXPECT_EQ(table.find(Counted(key))->number, value);
      EXPECT_GE(folded, kChanges / 2U - kKeys);
    }
  }
  EXPECT_EQ(Counted::alive, 0);
}

// A table of a random walk, beside what it should hold.
struct Model {
  Numbers table{3};
  std::map<std::string, int> present;
  std::map<std::string, std::uint64_t> changes;
  std::map<std::string, int> removed;  // when, for each key that ever was
  int now = 0;

  void set(const std::string& key) {
    table.set(key, ++now);
    present[key] = now;
    ++changes[key];
  }
  void remove(const std::string& key) {
    EXPECT_EQ(table.remove(key), present.erase(key) == 1);
    removed[key] = ++now;
    ++changes[key];
  }
};

// A watcher of it, that compares what it is told with what it should be.
class Follower {
 public:
  explicit Follower(Model& model) : model_(model) { watch(false); }

  // Comes back, as one that was told all that it has taken, or as one that knows nothing.
  void watch(bool resumed) {
    if (!resumed) version_ = {};
    watcher_.emplace(model_.table, news_, rpc::WatchOptions{.resume = version_});
    told_.clear();
    synced_ = false;
    began_ = model_.now;
    atBegin_ = model_.present;
  }

  // Takes an item; answers false when there is none.
  bool take() {
    const auto item = watcher_->next();
    if (!item) {
      EXPECT_TRUE(synced_);
      EXPECT_EQ(state_, model_.present);
      EXPECT_EQ(watcher_->waiting(), 0U);
      return false;
    }
    version_ = item->version();
    if (item->kind() == News::snapshot) {
      EXPECT_TRUE(told_.empty() || !synced_);
      state_.clear();
      told_.clear();
    } else if (item->kind() == News::synced) {
      inSync();
    } else {
      told(*item);
    }
    return true;
  }

 private:
  void inSync() {
    EXPECT_FALSE(std::exchange(synced_, true));
    for (const auto& [key, value] : atBegin_) {
      if (const auto gone = model_.removed.find(key);
          gone != model_.removed.end() && gone->second > began_)
        continue;
      EXPECT_TRUE(state_.contains(key) && state_[key] >= value) << key;
    }
  }

  void told(const Numbers::Item& item) {
    const auto& key = item.key();
    const auto changes = model_.changes[key];
    const auto before = told_.find(key);
    EXPECT_TRUE(before == told_.end() || item.folded() == changes - before->second - 1) << key;
    if (item.kind() == News::value) {
      EXPECT_EQ(item.value(), model_.present.at(key)) << "the latest";
      state_[key] = item.value();
      told_[key] = changes;
    } else {
      EXPECT_FALSE(model_.present.contains(key));
      state_.erase(key);
      told_.erase(key);  // it may come and go unseen before it is told again
    }
  }

  Model& model_;
  rpc::Event news_;
  std::optional<Numbers::Watcher> watcher_;
  rpc::PublishedVersion version_;
  std::map<std::string, int> state_, atBegin_;
  std::map<std::string, std::uint64_t> told_;  // how many changes of a key that had been told
  bool synced_ = false;
  int began_ = 0;
};

TEST(Published, BringsEveryWatcherToTheSameStateWhateverTheOrder) {
  for (unsigned seed = 0; seed < 200 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](unsigned most) { return static_cast<std::size_t>(random() % most); };
    Model model;
    std::vector<std::unique_ptr<Follower>> followers;
    for (int i = 0; i < 4; ++i)
      followers.push_back(std::make_unique<Follower>(model));
    for (int step = 0; step < 500; ++step) {
      const std::string key(1, static_cast<char>('a' + below(8)));
      Follower& follower = *followers[below(4)];
      switch (below(16)) {
        case 0:
          follower.watch(below(4) != 0);
          break;
        case 1:
          while (follower.take()) {
          }
          break;
        case 2:
        case 3:
        case 4:
          if (model.present.contains(key)) model.remove(key);
          break;
        case 5:
        case 6:
        case 7:
          model.set(key);
          break;
        default:
          follower.take();
      }
    }
    for (const auto& follower : followers) {
      while (follower->take()) {
      }
    }
  }
}

// Each allocation of a change fails once: the change is not made, or a watcher begins anew.
TEST(Published, LosesNoWatcherForWantOfMemory) {
  for (const bool removal : {false, true}) {
    bool throws = true, failed = true;
    for (int failing = 0; failed; ++failing) {
      Numbers table;
      table.set("a", 0);
      Watch idle(table), behind(table), walking(table);
      idle.take();
      behind.take();
      walking.take(2);
      table.set("b", 0);
      idle.take();
      const auto before = table.version();
      allocationsLeft = failing;
      try {
        removal ? void(table.remove("a")) : table.set("key", 1);
        failed = allocationsLeft < 0;
        throws = false;
      } catch (const std::bad_alloc&) {
        EXPECT_TRUE(throws) << "and not later";
        EXPECT_EQ(table.version(), before);
      }
      allocationsLeft = -1;
      for (Watch* watch : {&idle, &behind, &walking}) {
        watch->take();
        EXPECT_EQ(watch->state.size(), table.size());
        for (const auto& [key, value] : watch->state)
          EXPECT_EQ(*table.find(key), value);
      }
    }
  }
}

// Two threads change a table while others watch it, come back and leave.
TEST(Published, IsForAnyThread) {
  constexpr int kChanges = 20'000;
  Numbers table(4);
  std::atomic<int> changing = 2;
  std::vector<std::jthread> threads;
  for (int writer = 0; writer < 2; ++writer) {
    threads.emplace_back([&, writer] {
      for (int i = 0; i < kChanges; ++i) {
        const std::string key(1, static_cast<char>('a' + (7 * i + writer) % 11));
        if (i % 3 == 2) {
          table.remove(key);
        } else {
          table.set(key, i);
        }
      }
      --changing;
    });
  }
  for (int reader = 0; reader < 3; ++reader) {
    threads.emplace_back([&, reader] {
      std::map<std::string, int> state;
      rpc::PublishedVersion version;
      bool last = false;
      while (!last) {
        last = changing == 0;
        rpc::Event news;
        Numbers::Watcher watcher(table, news, {.resume = version});
        for (int taken = 0; last || taken < 10 * reader + 10; ++taken) {
          const auto item = watcher.next();
          if (!item) break;
          version = item->version();
          if (item->kind() == News::snapshot) state.clear();
          if (item->kind() == News::value) state[item->key()] = item->value();
          if (item->kind() == News::removal) state.erase(item->key());
        }
      }
      EXPECT_EQ(state.size(), table.size());
      for (const auto& [key, value] : state)
        EXPECT_EQ(*table.find(key), value);
    });
  }
}

TEST(PublishedDeathTest, AssertsThatNoWatcherOutlivesItsTable) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        rpc::Event news;
        auto table = std::make_unique<Numbers>();
        const Numbers::Watcher watcher(*table, news);
        table = nullptr;
      },
      "a watcher outlives its table");
}

}  // namespace
}  // namespace test
