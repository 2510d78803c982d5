#pragma once

// A table that is published: values by their keys, and watchers that are told the present values
// and then what changes.
//
//   rpc::Published<std::string, Session> sessions_;
//
//   void changed(const std::string& name, const Session& session) {  // on any thread
//     sessions_.set(name, session);  // or sessions_.remove(name)
//   }
//
//   rpc::Task<> watch(rpc::Writer<Update>& watch, const WatchRequest&) {
//     rpc::Event news;
//     rpc::Published<std::string, Session>::Watcher watcher(sessions_, news);
//     do {
//       while (const auto item = watcher.next()) {
//         const Update update = toUpdate(*item);
//         if (!co_await watch.write(update)) co_return grpc::Status::CANCELLED;
//       }
//     } while (co_await watch.wait(news));
//     co_return watch.endStatus();
//   }
//
// What a watcher is told, in this order:
//
//   snapshot   a snapshot begins: whatever the watcher knows is to be forgotten
//   value ...  the present values, in the order of their last changes
//   synced     all that was there when the watch began has been told
//   value, removal ...  from then on, what changes
//
// A watcher that is slow is told the latest value of a key, once, and how many changes were folded
// into it: it never has more waiting than there are keys. It costs the table a record for each key
// that has changed since the watcher was told it, nothing for those that have not, and nothing for
// a change of a key that waits already. A key that has come and gone again meanwhile is not told at
// all. Values are shared: neither a watcher nor its items hold a copy.
//
// Every item has a version. A watcher that comes back with the version of the last item that it has
// received is told what has changed since, without a snapshot and its mark, as long as the table
// remembers the keys that were removed since; otherwise it is told a snapshot. Keys that were
// removed long ago are forgotten, see the constructor.

#include <VornSdkRpc/RpcEvent.h>
#include <vorn/export.h>
#include <vorn/mutex.h>

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace VornSdkRpc::rpc {

// What an item tells.
enum class News { snapshot, value, removal, synced };

// A state of a table: the number of changes that have led to it, in this life of the table. Two
// tables, or one before and after a restart of its agent, differ in `run`, a random number. The
// default is a version of no table.
struct PublishedVersion {
  std::uint64_t run = 0;
  std::uint64_t number = 0;

  bool operator==(const PublishedVersion&) const = default;
};

// How a watch begins.
struct WatchOptions {
  // The version of the last item that was received by the watch that is resumed. One that can't be
  // resumed (of another run, or older than what the table remembers) begins with a snapshot.
  std::optional<PublishedVersion> resume = {};

  // Whether to leave the snapshot out and begin with `synced`. Without effect with `resume`.
  bool updatesOnly = false;
};

namespace detail {

class PublishedTable;
class PublishedWatcher;
struct PublishedEntry;

// A key that waits to be told to a watcher.
struct PublishedRecord {
  PublishedWatcher& watcher;
  PublishedEntry& entry;
  std::uint64_t first;    // version of the first change that has not been told
  std::uint64_t told;     // how many changes of the key had been told, or were not to be
  bool known;             // whether the watcher may know the key: then its removal has to be told
  bool owed;              // whether the watcher is not in sync before it has been told
  std::size_t place = 0;  // in the entry's records
  std::list<PublishedRecord>::iterator queued;  // in the watcher's queue
};

// A key, as far as its type does not matter.
struct PublishedEntry {
  std::shared_ptr<const void> change;  // the last one
  bool removed = true;
  std::uint64_t changed = 0;              // version of the last change
  std::uint64_t changes = 0;              // how many there have been
  std::vector<PublishedRecord*> records;  // one for each watcher to which the key waits to be told
  std::optional<std::list<PublishedEntry*>::iterator> place;         // in the order of changes
  std::optional<std::list<PublishedEntry*>::iterator> removedPlace;  // among those removed
};

// What is the same for tables of all types.
class VORN_EXPORT PublishedTable {
 public:
  PublishedTable(const PublishedTable&) = delete;
  PublishedTable& operator=(const PublishedTable&) = delete;

  std::size_t size() const;
  PublishedVersion version() const;

 protected:
  explicit PublishedTable(std::size_t removals);
  virtual ~PublishedTable();

  // With the lock held. Takes over the last change of a key, and returns the one before. When it
  // throws, nothing has changed, and an entry that is new is to be erased.
  std::shared_ptr<const void> publish(PublishedEntry& entry, std::shared_ptr<const void> change,
                                      bool removal) VORN_REQUIRES(mutex_);

  // Called with the lock held: the entry is not needed any more.
  virtual void erase(PublishedEntry& entry) noexcept VORN_REQUIRES(mutex_) = 0;

  mutable vorn::mutex mutex_;

 private:
  friend class PublishedWatcher;

  // What an entry was before a change.
  struct Before {
    bool removed;
    std::uint64_t changed;
    std::uint64_t changes;
  };

  void enlist(PublishedEntry& entry, bool removal) VORN_REQUIRES(mutex_);
  void tell(PublishedEntry& entry, const Before& before) VORN_REQUIRES(mutex_);
  void dropUnknown(PublishedEntry& entry) VORN_REQUIRES(mutex_);
  void forgetOldest() VORN_REQUIRES(mutex_);
  void release(PublishedEntry& entry) VORN_REQUIRES(mutex_);

  const std::uint64_t run_;
  const std::size_t removals_;
  std::uint64_t version_ VORN_GUARDED_BY(mutex_) = 0;
  // Version of the newest removal that is not remembered.
  std::uint64_t forgotten_ VORN_GUARDED_BY(mutex_) = 0;
  std::size_t size_ VORN_GUARDED_BY(mutex_) = 0;
  std::size_t resuming_ VORN_GUARDED_BY(mutex_) = 0;  // watchers
  // In the order of their last changes, and those removed, oldest first.
  std::list<PublishedEntry*> order_ VORN_GUARDED_BY(mutex_);
  std::list<PublishedEntry*> removed_ VORN_GUARDED_BY(mutex_);
  // Watchers that have something to take, and those that have nothing.
  std::list<PublishedWatcher*> behind_ VORN_GUARDED_BY(mutex_);
  std::list<PublishedWatcher*> idle_ VORN_GUARDED_BY(mutex_);
};

// What is the same for watchers of all types.
class VORN_EXPORT PublishedWatcher {
 public:
  struct Item {
    News kind = News::snapshot;
    std::shared_ptr<const void> change;
    std::uint64_t folded = 0;
    PublishedVersion version;
  };

  PublishedWatcher(PublishedTable& table, Event& news, const WatchOptions& options);
  ~PublishedWatcher();
  PublishedWatcher(const PublishedWatcher&) = delete;
  PublishedWatcher& operator=(const PublishedWatcher&) = delete;

  std::optional<Item> next();
  std::size_t waiting() const;

 private:
  friend class PublishedTable;

  bool awaits(std::uint64_t changed) const { return walked_ < changed && changed <= until_; }
  PublishedVersion version() const VORN_REQUIRES(table_.mutex_);
  void begin() VORN_REQUIRES(table_.mutex_);
  void beginAt(std::uint64_t version) VORN_REQUIRES(table_.mutex_);
  void clear() VORN_REQUIRES(table_.mutex_);
  void lose() VORN_REQUIRES(table_.mutex_);
  void idleIs(bool idle) VORN_REQUIRES(table_.mutex_);
  void settle() VORN_REQUIRES(table_.mutex_);
  Item walk() VORN_REQUIRES(table_.mutex_);
  Item take() VORN_REQUIRES(table_.mutex_);
  void tell(PublishedEntry& entry, const PublishedTable::Before& before)
      VORN_REQUIRES(table_.mutex_);
  void remember(PublishedEntry& entry, std::uint64_t told, bool known, bool owed)
      VORN_REQUIRES(table_.mutex_);
  void drop(PublishedRecord& record) VORN_REQUIRES(table_.mutex_);

  PublishedTable& table_;
  Event& news_;
  std::list<PublishedWatcher*>::iterator place_;
  // What was there when the watch began is taken from the table's order, as far as it is there
  // still: the changes behind `walked_` up to `until_`, of which `next_` is the first.
  std::uint64_t walked_ = 0;
  std::uint64_t until_ = 0;
  std::list<PublishedEntry*>::iterator next_;
  bool resuming_ = false;  // this is for removals as well
  // What has changed since then waits here, in the order of the first change that was not told.
  std::list<PublishedRecord> queue_;
  std::size_t owed_ = 0;  // records
  bool begun_ = false;    // the mark of the snapshot has been told, or there is none
  bool synced_ = false;   // that mark has been told
  bool lost_ = false;
  bool idle_ = false;
  std::uint64_t seen_ = 0;  // the change that has last found a record of this watcher
};

}  // namespace detail

// A table of values that are published. Any thread may call any operation. A key is copied into the
// table and into each of its changes, and compared with `Compare`.
//
// What a thread has written before set() is seen by the call that is told the value. The operations
// call nothing but Event::set(); a lock may be held, and values are destroyed outside of the
// table's own.
template <typename Key, typename Value, typename Compare = std::less<Key>>
class Published : private detail::PublishedTable {
 private:
  struct Change {
    Key key;
    std::optional<Value> value;  // none: it was removed
  };

 public:
  // One thing that a watcher is told. May be kept for as long as one likes, also when the table is
  // gone.
  class Item {
   public:
    News kind() const { return item_.kind; }

    // Of a value and a removal.
    const Key& key() const { return change().key; }

    // Of a value.
    // NOLINTNEXTLINE(bugprone-unchecked-optional-access): as said
    const Value& value() const { return *change().value; }

    // How many further changes of this key there have been since the watcher was last told of it,
    // or since the watch began: this item stands for them as well.
    std::uint64_t folded() const { return item_.folded; }

    // What to resume from once this item, and those before it, have been received.
    PublishedVersion version() const { return item_.version; }

   private:
    friend class Published;
    explicit Item(detail::PublishedWatcher::Item item) : item_(std::move(item)) {}

    const Change& change() const {
      assert(item_.change && "a mark has no key");
      return *static_cast<const Change*>(item_.change.get());
    }

    detail::PublishedWatcher::Item item_;
  };

  // Watches the table for its own lifetime, which has to end before that of the table and the
  // event. For one thread at a time, as the serving one; it may end on another, as it does where a
  // stop destroys the coroutine that it stands in.
  class Watcher {
   public:
    // `news` is set at once, and whenever there is something new to take.
    Watcher(Published& table, Event& news, const WatchOptions& options = {})
        : watcher_(table, news, options) {}

    // The next item, or none when there is nothing to be told. Take until there is none before
    // waiting for the event: it is not set again for what has been waiting.
    std::optional<Item> next() {
      auto item = watcher_.next();
      if (!item) return std::nullopt;
      return Item(std::move(*item));
    }

    // How many keys wait to be told, each with a record of its own; those of the snapshot that have
    // not changed since do not count. Any thread.
    std::size_t waiting() const { return watcher_.waiting(); }

   private:
    detail::PublishedWatcher watcher_;
  };

  // `removals` is how many of the keys that were removed are remembered for watchers that come
  // back, those removed last.
  explicit Published(std::size_t removals = 1024) : PublishedTable(removals) {}

  // Asserts that no watcher is left.
  ~Published() override = default;

  // Sets the value of a key, which is a change whatever the value was before.
  void set(Key key, Value value) {
    auto change = std::make_shared<const Change>(Change{std::move(key), std::move(value)});
    std::shared_ptr<const void> before;  // destroyed without the lock
    const vorn::lock_guard lock(mutex_);
    const auto [place, added] = entries_.try_emplace(change->key);
    try {
      before = publish(place->second, std::move(change), false);
    } catch (...) {
      if (added) entries_.erase(place);
      throw;
    }
  }

  // Returns false, and changes nothing, when there is no such key.
  bool remove(const Key& key) {
    auto change = std::make_shared<const Change>(Change{key, std::nullopt});
    std::shared_ptr<const void> before;  // destroyed without the lock
    const vorn::lock_guard lock(mutex_);
    const auto place = entries_.find(key);
    if (place == entries_.end() || place->second.removed) return false;
    before = publish(place->second, std::move(change), true);
    return true;
  }

  // The value of a key, or null.
  std::shared_ptr<const Value> find(const Key& key) const {
    const vorn::lock_guard lock(mutex_);
    const auto place = entries_.find(key);
    if (place == entries_.end() || place->second.removed) return nullptr;
    const auto change = std::static_pointer_cast<const Change>(place->second.change);
    // NOLINTNEXTLINE(bugprone-unchecked-optional-access): a change that removes nothing has one
    return {change, &*change->value};
  }

  // How many keys there are.
  using PublishedTable::size;

  // The present version.
  using PublishedTable::version;

 private:
  static const Key& keyOf(const detail::PublishedEntry& entry) {
    return static_cast<const Change*>(entry.change.get())->key;
  }

  void erase(detail::PublishedEntry& entry) noexcept override VORN_REQUIRES(mutex_) {
    entries_.erase(entries_.find(keyOf(entry)));
  }

  std::map<Key, detail::PublishedEntry, Compare> entries_ VORN_GUARDED_BY(mutex_);
};

}  // namespace VornSdkRpc::rpc
