#pragma once

#include <vorn/export.h>

#include <cstdint>

namespace Velm {

class Publisher;

// Names what a notification is about: an attribute of the publishing type.
using FieldId = std::uint16_t;

// One place to which a publisher's notifications go. Embedded in the object that listens, which the
// callback finds from its address. Leaves its publisher when it is destroyed.
class VORN_EXPORT Subscriber {
 public:
  // The last two arguments are those of Publisher::notify.
  using Callback = void (*)(Publisher*, Subscriber*, FieldId, const void*, const void*);

  Subscriber() = default;
  explicit Subscriber(Callback function) : callback(function) {}
  ~Subscriber();
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;

  // What is called for each notification. Not null while subscribed.
  Callback callback = nullptr;

 private:
  friend class Publisher;

  Publisher* publisher_ = nullptr;  // null while not subscribed
  Subscriber* previous_ = nullptr;
  Subscriber* next_ = nullptr;
  std::uint64_t serial_ = 0;
};

// Tells its subscribers, in the order in which they came, what has happened. One thread at a time;
// a callback may add and remove any subscriber, notify again, and destroy any subscriber or the
// publisher itself.
class VORN_EXPORT Publisher {
 public:
  Publisher() = default;
  // Lets every subscriber go.
  ~Publisher();
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // Adds a subscriber; a notification that is going on does not reach it. Asserts that it has a
  // callback and is subscribed nowhere. `flag` is carried for the platform; this layer has no use
  // for it.
  void subscriberAdd(Subscriber& subscriber, bool flag);

  // Removes a subscriber; a notification that is going on does not reach it any more. One that is
  // not subscribed here is left alone.
  void subscriberRemove(Subscriber& subscriber);

  // Calls callback(this, &subscriber, field, first, second) for every subscriber. An exception from
  // a callback ends the round and passes on.
  void notify(FieldId field, const void* first = nullptr, const void* second = nullptr);

 private:
  struct Round;

  Subscriber* head_ = nullptr;
  Subscriber* tail_ = nullptr;
  Round* rounds_ = nullptr;  // the notifications that are going on, innermost first
  std::uint64_t nextSerial_ = 0;
};

}  // namespace Velm
