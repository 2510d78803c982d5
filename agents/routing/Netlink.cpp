#include "agents/routing/Netlink.h"

#include <VornSdkRpc/ScopedNamespace.h>
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>

namespace routing_agent {

namespace {

// Room for the answers to one dump's datagram, and for an answer with words.
constexpr std::size_t kBufferSize = std::size_t{64} << 10;

// The attributes of the largest request: a group of 256 next hops.
constexpr std::size_t kRequestSize = 256;

// What others may change before it must be read: about 30,000 notifications.
constexpr int kNotificationsBuffer = 32 << 20;
constexpr int kAnswersBuffer = 4 << 20;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

Descriptor openSocket() {
  Descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (socket < 0) fail("cannot open a netlink socket");
  return socket;
}

void optionIs(int fd, int level, int option, int value) {
  setsockopt(fd, level, option, &value, sizeof value);
}

void bindTo(int fd) {
  sockaddr_nl name{};
  name.nl_family = AF_NETLINK;
  if (bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0)
    fail("cannot bind a netlink socket");
}

std::uint32_t portOf(int fd) {
  sockaddr_nl name{};
  socklen_t size = sizeof name;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size) != 0)
    fail("cannot read a netlink socket's name");
  return name.nl_pid;
}

// Drops the notifications of one port's own requests before they take room.
void dropThoseOf(int fd, std::uint32_t port) {
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(nlmsghdr, nlmsg_pid)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(port), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_RET | BPF_K, 0xffffffff),
  };
  const sock_fprog program{std::size(code), code};
  if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
    fail("cannot filter notifications");
}

// Goes through the messages of a datagram.
template <typename Function>
void forEach(std::string_view datagram, const Function& function) {
  const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
  for (auto left = static_cast<int>(datagram.size()); nlmsg_ok(message, left);) {
    function(*message);
    message = nlmsg_next(const_cast<nlmsghdr*>(message), &left);
  }
}

KernelAnswer answerOf(const nlmsghdr& message) {
  const auto* const error = static_cast<const nlmsgerr*>(nlmsg_data(&message));
  KernelAnswer answer{-error->error, {}};
  constexpr auto kWithWords = NLM_F_ACK_TLVS | NLM_F_CAPPED;
  if ((message.nlmsg_flags & kWithWords) != kWithWords) return answer;
  const NetlinkAttributes attributes(message, sizeof(nlmsgerr), NLMSGERR_ATTR_MAX);
  answer.words = attributes.bytes(NLMSGERR_ATTR_MSG);
  if (!answer.words.empty() && answer.words.back() == '\0') answer.words.pop_back();
  return answer;
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// Messages

void NetlinkRequest::Release::operator()(nl_msg* message) const { nlmsg_free(message); }

NetlinkRequest::NetlinkRequest(int type, int flags, const void* header, std::size_t size)
    : message_(nlmsg_alloc_size(kRequestSize)) {
  if (!message_) throw std::bad_alloc();
  nlmsg_put(message_.get(), 0, 0, type, 0, NLM_F_REQUEST | flags);
  if (nlmsg_append(message_.get(), const_cast<void*>(header), size, NLMSG_ALIGNTO) < 0)
    throw std::bad_alloc();
}

void NetlinkRequest::put(int attribute, std::string_view bytes) {
  const std::size_t needed =
      nlmsg_hdr(message_.get())->nlmsg_len + NLA_HDRLEN + bytes.size() + NLMSG_ALIGNTO;
  if (needed > kRequestSize) nlmsg_expand(message_.get(), needed + kRequestSize);
  if (nla_put(message_.get(), attribute, static_cast<int>(bytes.size()), bytes.data()) < 0)
    throw std::bad_alloc();
}

void NetlinkRequest::put(int attribute, std::uint32_t value) {
  put(attribute, std::string_view(reinterpret_cast<const char*>(&value), sizeof value));
}

void NetlinkRequest::putNested(int attribute, int inner, std::string_view bytes) {
  nlattr* const nest = nla_nest_start(message_.get(), attribute);
  if (!nest) throw std::bad_alloc();
  put(inner, bytes);
  nla_nest_end(message_.get(), nest);
}

nlmsghdr& NetlinkRequest::message() const { return *nlmsg_hdr(message_.get()); }

std::string KernelAnswer::text() const {
  return words.empty() ? std::generic_category().message(error) : words;
}

NetlinkAttributes::NetlinkAttributes(const nlmsghdr& message, std::size_t headerSize, int max)
    : present_(static_cast<std::size_t>(max) + 1), values_(static_cast<std::size_t>(max) + 1) {
  const auto header = static_cast<int>(headerSize);
  if (!nlmsg_valid_hdr(&message, header)) return;
  const nlattr* attribute = nlmsg_attrdata(&message, header);
  for (int left = nlmsg_attrlen(&message, header); nla_ok(attribute, left);
       attribute = nla_next(attribute, &left)) {
    const int type = nla_type(attribute);
    if (type > max) continue;
    present_[static_cast<std::size_t>(type)] = true;
    values_[static_cast<std::size_t>(type)] = {static_cast<const char*>(nla_data(attribute)),
                                               static_cast<std::size_t>(nla_len(attribute))};
  }
}

std::uint32_t NetlinkAttributes::number(int attribute) const {
  std::uint32_t value = 0;
  const auto from = bytes(attribute);
  if (from.size() >= sizeof value) std::memcpy(&value, from.data(), sizeof value);
  return value;
}

// ------------------------------------------------------------------------------------------------
// The sockets

Netlink::Netlink(const std::string& netns, Notifications notifications) : buffer_(kBufferSize) {
  const VornSdkRpc::ScopedNamespace inside(netns);
  requests_ = openSocket();
  bindTo(requests_);
  optionIs(requests_, SOL_SOCKET, SO_RCVBUFFORCE, kAnswersBuffer);
  optionIs(requests_, SOL_SOCKET, SO_SNDBUFFORCE, kAnswersBuffer);
  // Refusals with words and without the request that they repeat, and dumps of no more than what is
  // asked for. An older kernel that lacks one serves as well.
  for (const int option : {NETLINK_EXT_ACK, NETLINK_CAP_ACK, NETLINK_GET_STRICT_CHK})
    optionIs(requests_, SOL_NETLINK, option, 1);
  if (notifications == kNotifications) subscribe();
}

void Netlink::subscribe() {
  notifications_ = openSocket();
  bindTo(notifications_);
  optionIs(notifications_, SOL_SOCKET, SO_RCVBUFFORCE, kNotificationsBuffer);
  dropThoseOf(notifications_, portOf(requests_));
  for (const int group :
       {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE,
        RTNLGRP_IPV6_ROUTE, RTNLGRP_MPLS_ROUTE, RTNLGRP_NEXTHOP})
    optionIs(notifications_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, group);
}

std::string_view Netlink::receive(int socket, bool& lost) {
  for (;;) {
    const auto size = recv(socket, buffer_.data(), buffer_.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (size >= 0) {
      lost = lost || static_cast<std::size_t>(size) > buffer_.size();
      return {buffer_.data(), std::min(static_cast<std::size_t>(size), buffer_.size())};
    }
    if (errno == EAGAIN) return {};
    if (errno == ENOBUFS) {
      lost = true;
    } else if (errno != EINTR) {
      fail("cannot read from the kernel");
    }
  }
}

// The kernel works on the requests while they are sent, so everything that it has to say is there
// afterwards. Only the last one asks to be acknowledged: a refusal comes in any case.
std::vector<KernelAnswer> Netlink::run(
    const std::vector<NetlinkRequest>& requests,
    const std::function<void(std::size_t, const nlmsghdr&)>& data) {
  std::vector<KernelAnswer> answers(requests.size());
  if (requests.empty()) return answers;
  std::vector<iovec> parts;
  const std::uint32_t first = sequence_ + 1;
  for (const auto& request : requests) {
    nlmsghdr& message = request.message();
    message.nlmsg_seq = ++sequence_;
    parts.push_back({&message, NLMSG_ALIGN(message.nlmsg_len)});
  }
  requests.back().message().nlmsg_flags |= NLM_F_ACK;
  msghdr envelope{};
  envelope.msg_iov = parts.data();
  envelope.msg_iovlen = parts.size();
  if (sendmsg(requests_, &envelope, 0) < 0) fail("cannot send to the kernel");

  bool lost = false;
  for (bool done = false; !done;) {
    const auto datagram = receive(requests_, lost);
    if (datagram.empty()) lost = true;
    if (lost) throw std::system_error(ENOBUFS, std::generic_category(), "answers were lost");
    forEach(datagram, [&](const nlmsghdr& message) {
      const std::size_t position = message.nlmsg_seq - first;
      if (position >= requests.size()) return;  // of a dump that was given up
      if (message.nlmsg_type != NLMSG_ERROR) {
        if (data) data(position, message);
        return;
      }
      answers[position] = answerOf(message);
      done = position + 1 == requests.size();
    });
  }
  return answers;
}

void Netlink::dump(const NetlinkRequest& request, const std::function<void()>& begin,
                   const Receive& receive) {
  constexpr int kTries = 100;
  bool interrupted = true;
  for (int tries = 0; interrupted && tries < kTries; ++tries) {
    interrupted = false;
    begin();
    nlmsghdr& message = request.message();
    message.nlmsg_seq = ++sequence_;
    if (send(requests_, &message, message.nlmsg_len, 0) < 0) fail("cannot send to the kernel");
    for (bool done = false; !done;) {
      const auto datagram = this->receive(requests_, interrupted);
      if (datagram.empty()) fail("the kernel does not end its answer");
      forEach(datagram, [&](const nlmsghdr& item) {
        if (item.nlmsg_seq != sequence_) return;
        interrupted = interrupted || (item.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        if (item.nlmsg_type == NLMSG_ERROR) {
          const auto answer = answerOf(item);
          throw std::system_error(answer.error, std::generic_category(), answer.text());
        }
        done = item.nlmsg_type == NLMSG_DONE;
        if (!done) receive(item);
      });
    }
  }
}

bool Netlink::readNotifications(const Receive& receive) {
  bool lost = false;
  for (;;) {
    const auto datagram = this->receive(notifications_, lost);
    if (datagram.empty()) return !lost;
    forEach(datagram, receive);
  }
}

}  // namespace routing_agent
