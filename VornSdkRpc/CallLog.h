#pragma once

#include <VornSdkRpc/CallRecord.h>
#include <vorn/export.h>
#include <vorn/mutex.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace VornSdkRpc {

// Records that are missing in a run: `count` of them, from the number `first` on.
struct CallGap {
  std::string_view run = {};
  std::uint64_t first = 0;
  std::uint64_t count = 0;
};

// How much a CallLog keeps.
struct CallLogOptions {
  // No more memory than this is taken by records, in bytes: the oldest are dropped when it would
  // be, also those that a reader has not come to, who is told the gap. At least 64 KiB. By default
  // there is no limit: a reader that stands still costs memory, and no record.
  std::size_t memory = SIZE_MAX;

  // So much is kept although every reader has come past it, for those that come later.
  std::size_t history = 0;
};

// The records of a run, in memory, one behind the other, each with its number. Records are written
// once and read in place. Any thread may use one.
class VORN_EXPORT CallLog {
 public:
  explicit CallLog(CallLogOptions options = {});
  ~CallLog();
  CallLog(const CallLog&) = delete;
  CallLog& operator=(const CallLog&) = delete;

  // A name for this run of the process, which no other run has.
  const std::string& run() const { return run_; }

  // Copies a record, gives it its number, and wakes who waits. Its texts are cut at 1,024 bytes.
  // Never throws and never waits for a reader: without memory for it, the record is lost, and its
  // number is missing.
  void append(const CallRecord& record) noexcept;

  // The number that the next record gets.
  std::uint64_t next() const;

  // The number of the oldest record that is kept, or of the next one.
  std::uint64_t oldest() const;

  // What the records take by now.
  std::size_t memory() const;

 private:
  class Block;
  using Blocks = std::deque<std::shared_ptr<Block>>;

 public:
  // What stands behind a place: first a gap, when there is one, then records. They live as long as
  // the log and the batch, or until that is filled again.
  struct Batch {
    CallGap gap;  // count 0: none
    std::vector<const CallRecord*> records;

   private:
    friend class CallLog;
    std::vector<std::shared_ptr<Block>> held_;
  };

  // Fills the batch with at most `max` of the records from the number `from` on. Returns the number
  // behind them, which is `from` when there is nothing yet. (A number that has not been given yet
  // stands for the next one.)
  std::uint64_t read(std::uint64_t from, std::size_t max, Batch& batch) const;

  // Calls `wake`, once, when there is a record with the number `from`: at once when there is one.
  // On a thread that appends, with a lock held: it may not block or use the log. Returns a name for
  // the wish.
  std::uint64_t wakeAt(std::uint64_t from, std::function<void()> wake);

  // Takes the wish back: `wake` is not being called any more when it returns.
  void unwake(std::uint64_t wish);

  // A reader whose place holds records back from being forgotten.
  class VORN_EXPORT Reader {
   public:
    // Begins with the oldest record that there is.
    explicit Reader(std::shared_ptr<CallLog> log);
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Waits until something stands behind the reader's place or close() has been called, and fills
    // the batch. Returns false, with nothing in it, when it is closed and there is nothing left.
    bool read(std::size_t max, Batch& batch);

    // Comes past the batch's gap, and that many of its records.
    void advance(const Batch& batch, std::size_t records);

    // Waits for a time, or until it is closed. Returns whether it is open.
    bool rest(std::chrono::milliseconds time);

    // How many numbers stand behind its place, those of gaps as well.
    std::uint64_t left() const;

    // The records of the gaps that it has come past.
    std::uint64_t missed() const;

    // Ends the waiting. Any thread.
    void close();

   private:
    friend class CallLog;
    const std::shared_ptr<CallLog> log_;
    std::uint64_t place_;
    std::uint64_t missed_ = 0;
    bool waits_ = false;
    bool closed_ = false;
    std::condition_variable changed_;
  };

 private:
  struct Wish {
    std::uint64_t name;
    std::uint64_t from;
    std::function<void()> wake;
  };

  VORN_NO_EXPORT void store(const CallRecord& record) noexcept VORN_REQUIRES(mutex_);
  VORN_NO_EXPORT void storeShort(const CallRecord& record) VORN_REQUIRES(mutex_);
  VORN_NO_EXPORT void makeRoom() VORN_REQUIRES(mutex_);
  VORN_NO_EXPORT void forgetOldest() VORN_REQUIRES(mutex_);
  VORN_NO_EXPORT void forgetWhatIsRead() VORN_REQUIRES(mutex_);
  VORN_NO_EXPORT std::uint64_t placeOfSlowest() const VORN_REQUIRES(mutex_);
  VORN_NO_EXPORT std::uint64_t readLocked(std::uint64_t from, std::size_t max, Batch& batch) const
      VORN_REQUIRES(mutex_);
  VORN_NO_EXPORT void wakeWhoWaits() VORN_REQUIRES(mutex_);

  const CallLogOptions options_;
  const std::size_t blockSize_;
  const std::string run_;
  mutable vorn::mutex mutex_;
  std::uint64_t next_ VORN_GUARDED_BY(mutex_) = 1;
  std::size_t memory_ VORN_GUARDED_BY(mutex_) = 0;
  Blocks blocks_ VORN_GUARDED_BY(mutex_);
  std::list<Reader*> readers_ VORN_GUARDED_BY(mutex_);
  std::vector<Wish> wishes_ VORN_GUARDED_BY(mutex_);
  std::uint64_t nextWish_ VORN_GUARDED_BY(mutex_) = 1;
};

}  // namespace VornSdkRpc
