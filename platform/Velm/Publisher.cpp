#include <Velm/Publisher.h>

#include <cassert>

namespace Velm {

// One notification that is going on: where it stands among the subscribers, kept up to date by
// whoever changes them meanwhile.
struct Publisher::Round {
  // Not inlined, where g++ 12 would take the link for one that is left behind.
  [[gnu::noinline]] explicit Round(Publisher& owner)
      : publisher(&owner), next(owner.head_), end(owner.nextSerial_), outer(owner.rounds_) {
    owner.rounds_ = this;
  }
  ~Round() {
    if (publisher != nullptr) publisher->rounds_ = outer;
  }
  Round(const Round&) = delete;
  Round& operator=(const Round&) = delete;

  // The next subscriber to call; null at the end. Those added since the round began stand behind.
  Subscriber* take() {
    if (next == nullptr || next->serial_ >= end) return nullptr;
    Subscriber* taken = next;
    next = taken->next_;
    return taken;
  }

  Publisher* publisher;  // null once it has been destroyed
  Subscriber* next;
  std::uint64_t end;
  Round* outer;
};

Subscriber::~Subscriber() {
  if (publisher_ != nullptr) publisher_->subscriberRemove(*this);
}

Publisher::~Publisher() {
  while (head_ != nullptr)
    subscriberRemove(*head_);
  for (auto* round = rounds_; round != nullptr; round = round->outer)
    round->publisher = nullptr;
}

void Publisher::subscriberAdd(Subscriber& subscriber, bool /*flag*/) {
  assert(subscriber.callback && !subscriber.publisher_);
  subscriber.publisher_ = this;
  subscriber.serial_ = nextSerial_++;
  subscriber.previous_ = tail_;
  subscriber.next_ = nullptr;
  (tail_ != nullptr ? tail_->next_ : head_) = &subscriber;
  tail_ = &subscriber;
}

void Publisher::subscriberRemove(Subscriber& subscriber) {
  if (subscriber.publisher_ != this) return;
  for (auto* round = rounds_; round != nullptr; round = round->outer) {
    if (round->next == &subscriber) round->next = subscriber.next_;
  }
  (subscriber.previous_ != nullptr ? subscriber.previous_->next_ : head_) = subscriber.next_;
  (subscriber.next_ != nullptr ? subscriber.next_->previous_ : tail_) = subscriber.previous_;
  subscriber.publisher_ = nullptr;
}

void Publisher::notify(FieldId field, const void* first, const void* second) {
  Round round(*this);
  while (auto* subscriber = round.take())
    subscriber->callback(this, subscriber, field, first, second);
}

}  // namespace Velm
