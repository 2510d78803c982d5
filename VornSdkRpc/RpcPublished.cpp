#include <VornSdkRpc/RpcPublished.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <random>

namespace VornSdkRpc::rpc::detail {

namespace {

// Not 0, which is a run of no table.
std::uint64_t newRun() {
  std::random_device random;
  const auto high = static_cast<std::uint64_t>(random()) << 32U;
  return std::max<std::uint64_t>(1, high | random());
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// The table

PublishedTable::PublishedTable(std::size_t removals) : run_(newRun()), removals_(removals) {}

PublishedTable::~PublishedTable() {
  assert(behind_.empty() && idle_.empty() && "a watcher outlives its table");
}

std::size_t PublishedTable::size() const {
  const vorn::lock_guard lock(mutex_);
  return size_;
}

PublishedVersion PublishedTable::version() const {
  const vorn::lock_guard lock(mutex_);
  return {run_, version_};
}

std::shared_ptr<const void> PublishedTable::publish(PublishedEntry& entry,
                                                    std::shared_ptr<const void> change,
                                                    bool removal) {
  enlist(entry, removal);
  const Before before{entry.removed, entry.changed, entry.changes};
  size_ += before.removed;
  size_ -= removal;
  entry.removed = removal;
  entry.changed = ++version_;
  ++entry.changes;
  entry.change.swap(change);
  tell(entry, before);
  // NOLINTNEXTLINE(bugprone-unchecked-optional-access): enlist() has given it one
  order_.splice(order_.end(), order_, *entry.place);
  if (removed_.size() > removals_) forgetOldest();
  return change;
}

// Everything of a change that may throw.
void PublishedTable::enlist(PublishedEntry& entry, bool removal) {
  if (!entry.place) entry.place = order_.insert(order_.end(), &entry);
  if (removal) {
    entry.removedPlace = removed_.insert(removed_.end(), &entry);
  } else if (entry.removedPlace) {
    removed_.erase(*entry.removedPlace);
    entry.removedPlace.reset();
  }
}

// Watchers to which the key waits to be told already need nothing: their item will tell the last
// change. Those that are idle have no record of any key.
void PublishedTable::tell(PublishedEntry& entry, const Before& before) {
  if (entry.records.size() != behind_.size()) {
    for (PublishedRecord* record : entry.records)
      record->watcher.seen_ = version_;
    for (PublishedWatcher* watcher : behind_) {
      watcher->table_.mutex_.assert_held();
      if (watcher->seen_ != version_) watcher->tell(entry, before);
    }
  }
  if (entry.removed) dropUnknown(entry);
  while (!idle_.empty()) {
    PublishedWatcher* const watcher = idle_.front();
    watcher->table_.mutex_.assert_held();
    watcher->idleIs(false);
    watcher->tell(entry, before);
  }
}

// A key that has come and gone before a watcher was told of it.
void PublishedTable::dropUnknown(PublishedEntry& entry) {
  for (std::size_t i = entry.records.size(); i-- > 0;) {
    PublishedRecord& record = *entry.records[i];
    record.watcher.table_.mutex_.assert_held();
    if (!record.known) record.watcher.drop(record);
  }
}

// What a watcher has not been told yet stays until it is, in the watcher's record; one that is
// being resumed and has not come as far begins anew.
void PublishedTable::forgetOldest() {
  PublishedEntry& oldest = *removed_.front();
  forgotten_ = oldest.changed;
  if (resuming_ != 0) {
    for (PublishedWatcher* watcher : behind_) {
      watcher->table_.mutex_.assert_held();
      if (watcher->resuming_ && watcher->awaits(oldest.changed)) watcher->lose();
    }
  }
  // NOLINTBEGIN(bugprone-unchecked-optional-access): what was removed stands in both lists
  order_.erase(*std::exchange(oldest.place, std::nullopt));
  removed_.erase(*std::exchange(oldest.removedPlace, std::nullopt));
  // NOLINTEND(bugprone-unchecked-optional-access)
  release(oldest);
}

void PublishedTable::release(PublishedEntry& entry) {
  if (!entry.place && entry.records.empty()) erase(entry);
}

// ------------------------------------------------------------------------------------------------
// The watcher

PublishedWatcher::PublishedWatcher(PublishedTable& table, Event& news, const WatchOptions& options)
    : table_(table), news_(news) {
  const vorn::lock_guard lock(table_.mutex_);
  place_ = table_.behind_.insert(table_.behind_.end(), this);
  const auto& resume = options.resume;
  if (resume && resume->run == table_.run_ && resume->number <= table_.version_ &&
      resume->number >= table_.forgotten_) {
    beginAt(resume->number);
  } else if (options.updatesOnly && !resume) {
    beginAt(table_.version_);
  } else {
    begin();
  }
  news_.set();
}

PublishedWatcher::~PublishedWatcher() {
  const vorn::lock_guard lock(table_.mutex_);
  clear();
  idleIs(false);
  table_.behind_.erase(place_);
}

std::optional<PublishedWatcher::Item> PublishedWatcher::next() {
  const vorn::lock_guard lock(table_.mutex_);
  if (std::exchange(lost_, false)) begin();
  if (!std::exchange(begun_, true)) return Item{News::snapshot, nullptr, 0, version()};
  if (walked_ < until_) return walk();
  if (owed_ == 0 && !std::exchange(synced_, true)) return Item{News::synced, nullptr, 0, version()};
  if (!queue_.empty()) return take();
  idleIs(true);
  return std::nullopt;
}

std::size_t PublishedWatcher::waiting() const {
  const vorn::lock_guard lock(table_.mutex_);
  return queue_.size();
}

// Everything behind the watcher's version is to be told still.
PublishedVersion PublishedWatcher::version() const {
  if (walked_ < until_) return {table_.run_, walked_};
  return {table_.run_, queue_.empty() ? table_.version_ : queue_.front().first - 1};
}

// With a snapshot.
void PublishedWatcher::begin() {
  begun_ = synced_ = false;
  walked_ = 0;
  until_ = table_.version_;
  next_ = table_.order_.begin();
  settle();
}

// With what has changed since that version.
void PublishedWatcher::beginAt(std::uint64_t version) {
  begun_ = true;
  walked_ = version;
  until_ = table_.version_;
  resuming_ = walked_ < until_;
  table_.resuming_ += resuming_;
  next_ = table_.order_.end();
  while (next_ != table_.order_.begin() && (*std::prev(next_))->changed > version)
    --next_;
  settle();
}

// Drops everything that waits.
void PublishedWatcher::clear() {
  while (!queue_.empty())
    drop(queue_.front());
  walked_ = until_;
  next_ = table_.order_.end();
  table_.resuming_ -= std::exchange(resuming_, false);
}

// What has changed can't be told any more: begins anew when it is asked for the next item.
void PublishedWatcher::lose() {
  clear();
  lost_ = true;
  news_.set();
}

void PublishedWatcher::idleIs(bool idle) {
  if (std::exchange(idle_, idle) == idle) return;
  auto& from = idle ? table_.behind_ : table_.idle_;
  auto& to = idle ? table_.idle_ : table_.behind_;
  to.splice(to.end(), from, place_);
}

// Goes on to the next key that the walk is to tell, or ends it.
void PublishedWatcher::settle() {
  const auto end = table_.order_.end();
  const auto inReach = [&] { return next_ != end && (*next_)->changed <= until_; };
  while (inReach() && (*next_)->removed && !resuming_)
    ++next_;
  if (inReach()) return;
  walked_ = until_;
  next_ = end;
  table_.resuming_ -= std::exchange(resuming_, false);
}

PublishedWatcher::Item PublishedWatcher::walk() {
  const PublishedEntry& entry = **next_;
  walked_ = entry.changed;
  ++next_;
  settle();
  return {entry.removed ? News::removal : News::value, entry.change, 0, version()};
}

PublishedWatcher::Item PublishedWatcher::take() {
  PublishedRecord& record = queue_.front();
  const PublishedEntry& entry = record.entry;
  Item item{entry.removed ? News::removal : News::value,
            entry.change,
            entry.changes - record.told - 1,
            {}};
  drop(record);
  item.version = version();
  return item;
}

// A key without a record has changed. One that the walk has not come to leaves its place there: it
// is told from the queue, before the watcher is in sync.
void PublishedWatcher::tell(PublishedEntry& entry, const PublishedTable::Before& before) {
  if (lost_) return;
  const bool awaited = awaits(before.changed);
  const bool known = awaited ? resuming_ : !before.removed;
  const bool owed = awaited && (known || !before.removed);
  // NOLINTNEXTLINE(bugprone-unchecked-optional-access): what has changed has a place
  if (awaited && next_ == *entry.place) {
    ++next_;
    settle();
  }
  if (entry.removed && !known) return;
  try {
    remember(entry, owed ? before.changes - 1 : before.changes, known, owed);
    news_.set();
  } catch (const std::bad_alloc&) {
    lose();
  }
}

void PublishedWatcher::remember(PublishedEntry& entry, std::uint64_t told, bool known, bool owed) {
  std::list<PublishedRecord> record;
  record.push_back({*this, entry, table_.version_, told, known, owed, entry.records.size(), {}});
  record.back().queued = record.begin();
  entry.records.push_back(&record.back());
  queue_.splice(queue_.end(), record);
  owed_ += owed;
}

void PublishedWatcher::drop(PublishedRecord& record) {
  PublishedEntry& entry = record.entry;
  entry.records[record.place] = entry.records.back();
  entry.records[record.place]->place = record.place;
  entry.records.pop_back();
  owed_ -= record.owed;
  queue_.erase(record.queued);
  table_.release(entry);
}

}  // namespace VornSdkRpc::rpc::detail
