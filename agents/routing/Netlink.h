#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agents/routing/Descriptor.h"

struct nl_msg;

namespace routing_agent {

// One request to the kernel's rtnetlink: a type, a header and attributes.
class NetlinkRequest {
 public:
  // `flags` are NLM_F_...; NLM_F_REQUEST comes by itself.
  template <typename Header>
  NetlinkRequest(int type, int flags, const Header& header)
      : NetlinkRequest(type, flags, &header, sizeof header) {}

  void put(int attribute, std::string_view bytes);
  void put(int attribute, std::uint32_t value);
  // An attribute that holds the one attribute `inner`.
  void putNested(int attribute, int inner, std::string_view bytes);

  nlmsghdr& message() const;

 private:
  struct Release {
    void operator()(nl_msg* message) const;
  };

  NetlinkRequest(int type, int flags, const void* header, std::size_t size);

  std::unique_ptr<nl_msg, Release> message_;
};

// What the kernel says to a request: errno and, where it has them, its own words. Zero: done.
struct KernelAnswer {
  int error = 0;
  std::string words;

  // The words, or what errno means when there are none.
  std::string text() const;
};

// The attributes of a message, each as its bytes (empty: not there).
class NetlinkAttributes {
 public:
  // Of a message whose own header has `headerSize` bytes. Attributes above `max` are passed over.
  NetlinkAttributes(const nlmsghdr& message, std::size_t headerSize, int max);

  bool has(int attribute) const { return present_[static_cast<std::size_t>(attribute)]; }
  std::string_view bytes(int attribute) const {
    return values_[static_cast<std::size_t>(attribute)];
  }
  // Zero when it is not there.
  std::uint32_t number(int attribute) const;

 private:
  std::vector<bool> present_;
  std::vector<std::string_view> values_;
};

// The kernel's routing in one network namespace: requests that are sent and answered together,
// dumps, and notifications of what others change. Used by one thread. Every operation throws
// std::system_error when the socket fails, which the kernel's refusal of a request is not.
class Netlink {
 public:
  using Receive = std::function<void(const nlmsghdr&)>;

  enum Notifications : std::uint8_t { kNotifications, kNoNotifications };

  // Opens its sockets inside the namespace `netns`, as `ip netns` knows it; empty: the calling
  // thread's own. Without notifications there is no socket for them. Throws std::system_error.
  explicit Netlink(const std::string& netns, Notifications notifications = kNotifications);

  // Sends the requests in one message and returns what the kernel says to each, in order. The
  // kernel goes on behind one that it refuses. `data` is given what a request that asks for
  // something is sent, with the request's position. Throws when answers were lost: any of the
  // requests may have been done.
  std::vector<KernelAnswer> run(const std::vector<NetlinkRequest>& requests,
                                const std::function<void(std::size_t, const nlmsghdr&)>& data = {});

  // Gives `receive` everything that the request (which has NLM_F_DUMP) is sent. Begins again, after
  // calling `begin`, when the kernel says that its tables changed meanwhile.
  void dump(const NetlinkRequest& request, const std::function<void()>& begin,
            const Receive& receive);

  // Gives `receive` the notifications that have come; returns false when some were lost. Those of
  // this object's own requests do not come. Does not block.
  bool readNotifications(const Receive& receive);

  // Readable when there are notifications.
  int notificationsFd() const { return notifications_; }

 private:
  void subscribe();
  // One datagram; empty when there is none. Answers ENOBUFS through `lost`.
  std::string_view receive(int socket, bool& lost);

  Descriptor requests_;
  Descriptor notifications_;
  std::uint32_t sequence_ = 0;
  std::vector<char> buffer_;
};

}  // namespace routing_agent
