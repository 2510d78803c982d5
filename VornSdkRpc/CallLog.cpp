#include <VornSdkRpc/CallLog.h>

#include <Kiv/Line.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <random>
#include <utility>

namespace VornSdkRpc {

namespace {

constexpr std::size_t kFieldMax = 1024;
constexpr std::size_t kLargestBlock = 1 << 16;
constexpr std::size_t kLeastMemory = 1 << 16;

// The texts that a record has of its own.
constexpr std::array kTexts = {
    &CallRecord::method, &CallRecord::user,      &CallRecord::session,
    &CallRecord::proof,  &CallRecord::peer,      &CallRecord::traceparent,
    &CallRecord::reason, &CallRecord::operation, &CallRecord::object};

// A block of the least size holds more than one record of the largest.
constexpr std::size_t kLargestRecord =
    sizeof(CallRecord) + kTexts.size() * (kFieldMax + Kiv::kCutMark.size()) + 64;
static_assert(kLargestRecord < kLeastMemory / 4);

std::string runName() {
  std::random_device random;
  return fmt::format("{:08x}{:08x}", random(), random());
}

}  // namespace

// A piece of memory that is filled with records from its front, and with where they begin from its
// end. What has been filled never changes.
class CallLog::Block {
 public:
  Block(std::size_t size, std::uint64_t first)
      : bytes_(new std::byte[size]), size_(size), first_(first) {}

  std::uint64_t first() const { return first_; }
  std::uint64_t end() const { return first_ + count_; }
  std::size_t size() const { return size_; }

  const CallRecord* at(std::uint64_t number) const {
    return std::launder(reinterpret_cast<const CallRecord*>(
        bytes_.get() + *offset(static_cast<std::size_t>(number - first_))));
  }

  // Appends the record as one of this run, with the next number. Returns false when there is no
  // room.
  bool append(const CallRecord& record, std::string_view run) {
    std::size_t texts = 0;
    for (const auto text : kTexts)
      texts += (record.*text).size();
    const std::size_t begin =
        (used_ + alignof(CallRecord) - 1) / alignof(CallRecord) * alignof(CallRecord);
    const std::size_t behind = begin + sizeof(CallRecord) + texts;
    if (behind + (count_ + 1) * sizeof(Offset) > size_) return false;
    auto* const stored = new (bytes_.get() + begin) CallRecord(record);
    stored->run = run;
    stored->number = end();
    auto* next = reinterpret_cast<char*>(bytes_.get() + begin + sizeof(CallRecord));
    for (const auto text : kTexts) {
      const auto from = record.*text;
      next = std::copy(from.begin(), from.end(), next);
      stored->*text = std::string_view(next - from.size(), from.size());
    }
    *offset(count_) = static_cast<Offset>(begin);
    used_ = behind;
    ++count_;
    return true;
  }

 private:
  using Offset = std::uint32_t;

  // The size is a multiple of an offset's.
  Offset* offset(std::size_t index) const {
    return reinterpret_cast<Offset*>(bytes_.get() + size_) - 1 - index;
  }

  const std::unique_ptr<std::byte[]> bytes_;
  const std::size_t size_;
  const std::uint64_t first_;
  std::size_t used_ = 0;
  std::size_t count_ = 0;
};

CallLog::CallLog(CallLogOptions options)
    : options_{std::max(options.memory, kLeastMemory), options.history},
      blockSize_(std::min(kLargestBlock, options_.memory / 4 / 64 * 64)),
      run_(runName()) {}

CallLog::~CallLog() = default;

void CallLog::append(const CallRecord& record) noexcept {
  const vorn::lock_guard lock(mutex_);
  store(record);
  ++next_;
  wakeWhoWaits();
}

std::uint64_t CallLog::next() const {
  const vorn::lock_guard lock(mutex_);
  return next_;
}

std::uint64_t CallLog::oldest() const {
  const vorn::lock_guard lock(mutex_);
  return blocks_.empty() ? next_ : blocks_.front()->first();
}

std::size_t CallLog::memory() const {
  const vorn::lock_guard lock(mutex_);
  return memory_;
}

void CallLog::store(const CallRecord& record) noexcept try {
  const bool fits = std::all_of(kTexts.begin(), kTexts.end(),
                                [&](auto text) { return (record.*text).size() <= kFieldMax; });
  if (fits) return storeShort(record);
  CallRecord cut = record;
  std::array<std::string, kTexts.size()> shorter;
  for (std::size_t i = 0; i < kTexts.size(); ++i)
    cut.*kTexts[i] = shorter[i] = Kiv::cutTo(std::string(cut.*kTexts[i]), kFieldMax);
  storeShort(cut);
} catch (const std::bad_alloc&) {
  // Its number is missing, and readers are told so.
}

void CallLog::storeShort(const CallRecord& record) {
  if (!blocks_.empty() && blocks_.back()->end() == next_ && blocks_.back()->append(record, run_))
    return;
  makeRoom();
  blocks_.push_back(std::make_shared<Block>(blockSize_, next_));
  memory_ += blockSize_;
  blocks_.back()->append(record, run_);
}

// For another block.
void CallLog::makeRoom() {
  forgetWhatIsRead();
  while (!blocks_.empty() && memory_ + blockSize_ > options_.memory)
    forgetOldest();
}

void CallLog::forgetOldest() {
  memory_ -= blocks_.front()->size();
  blocks_.pop_front();
}

void CallLog::forgetWhatIsRead() {
  const auto slowest = placeOfSlowest();
  while (blocks_.size() > 1 && blocks_.front()->end() <= slowest &&
         memory_ - blocks_.front()->size() >= options_.history)
    forgetOldest();
}

std::uint64_t CallLog::placeOfSlowest() const {
  auto slowest = next_;
  for (const auto* reader : readers_)
    slowest = std::min(slowest, reader->place_);
  return slowest;
}

void CallLog::wakeWhoWaits() {
  for (auto* reader : readers_) {
    if (reader->waits_) reader->changed_.notify_one();
  }
  std::erase_if(wishes_, [this](const Wish& wish) VORN_REQUIRES(mutex_) {
    if (wish.from >= next_) return false;
    wish.wake();
    return true;
  });
}

std::uint64_t CallLog::read(std::uint64_t from, std::size_t max, Batch& batch) const {
  const vorn::lock_guard lock(mutex_);
  return readLocked(from, max, batch);
}

std::uint64_t CallLog::readLocked(std::uint64_t from, std::size_t max, Batch& batch) const {
  batch.gap = {};
  batch.records.clear();
  batch.held_.clear();
  from = std::clamp<std::uint64_t>(from, 1, next_);
  auto block = std::partition_point(blocks_.begin(), blocks_.end(),
                                    [from](const auto& b) { return b->end() <= from; });
  const auto first = block == blocks_.end() ? next_ : std::max(from, (*block)->first());
  if (first > from) batch.gap = {run_, from, first - from};
  auto number = first;
  for (; block != blocks_.end() && (*block)->first() <= number && batch.records.size() < max;
       ++block) {
    batch.held_.push_back(*block);
    for (; number < (*block)->end() && batch.records.size() < max; ++number)
      batch.records.push_back((*block)->at(number));
  }
  return number;
}

std::uint64_t CallLog::wakeAt(std::uint64_t from, std::function<void()> wake) {
  const vorn::lock_guard lock(mutex_);
  if (from < next_) {
    wake();
    return 0;
  }
  wishes_.push_back({nextWish_, from, std::move(wake)});
  return nextWish_++;
}

void CallLog::unwake(std::uint64_t wish) {
  const vorn::lock_guard lock(mutex_);
  std::erase_if(wishes_, [wish](const Wish& one) { return one.name == wish; });
}

CallLog::Reader::Reader(std::shared_ptr<CallLog> log) : log_(std::move(log)) {
  const vorn::lock_guard lock(log_->mutex_);
  place_ = log_->blocks_.empty() ? log_->next_ : log_->blocks_.front()->first();
  log_->readers_.push_back(this);
}

CallLog::Reader::~Reader() {
  const vorn::lock_guard lock(log_->mutex_);
  log_->readers_.remove(this);
  log_->forgetWhatIsRead();
}

bool CallLog::Reader::read(std::size_t max, Batch& batch) {
  vorn::unique_lock lock(log_->mutex_);
  waits_ = true;
  changed_.wait(lock,
                [this]() VORN_REQUIRES(log_->mutex_) { return closed_ || place_ < log_->next_; });
  waits_ = false;
  log_->readLocked(place_, max, batch);
  return place_ < log_->next_;
}

void CallLog::Reader::advance(const Batch& batch, std::size_t records) {
  const vorn::lock_guard lock(log_->mutex_);
  place_ += batch.gap.count + records;
  missed_ += batch.gap.count;
  log_->forgetWhatIsRead();
}

bool CallLog::Reader::rest(std::chrono::milliseconds time) {
  vorn::unique_lock lock(log_->mutex_);
  return !changed_.wait_for(lock, time, [this] { return closed_; });
}

std::uint64_t CallLog::Reader::left() const {
  const vorn::lock_guard lock(log_->mutex_);
  return log_->next_ - place_;
}

std::uint64_t CallLog::Reader::missed() const {
  const vorn::lock_guard lock(log_->mutex_);
  return missed_;
}

void CallLog::Reader::close() {
  const vorn::lock_guard lock(log_->mutex_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace VornSdkRpc
