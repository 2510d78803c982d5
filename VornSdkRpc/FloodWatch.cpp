#include <VornSdkRpc/FloodWatch.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <grpc/grpc.h>
#include <grpc/support/alloc.h>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <system_error>
#include <utility>

namespace VornSdkRpc {

namespace {

constexpr std::chrono::milliseconds kRest{50};
// What a connection sends between two looks at gRPC's counts: some hundred calls at least.
constexpr std::uint64_t kBytesBetween = 16 << 10;

// gRPC's answer, in JSON without spaces.
class Json {
 public:
  explicit Json(char* text) : text_(text ? text : ""), freed_(text) {}
  ~Json() { gpr_free(freed_); }
  Json(const Json&) = delete;
  Json& operator=(const Json&) = delete;

  // The next number of the name from a position on, which moves behind it. Returns false when there
  // is none: gRPC leaves out what is 0.
  template <typename Number>
  bool next(std::string_view name, std::size_t* at, Number* number) const {
    const std::string key = fmt::format("\"{}\":", name);
    *at = text_.find(key, *at);
    if (*at == std::string_view::npos) return false;
    *at += key.size();
    if (*at < text_.size() && text_[*at] == '"') ++*at;
    const char* const end = text_.data() + text_.size();
    return std::from_chars(text_.data() + *at, end, *number).ec == std::errc();
  }
  template <typename Number = std::uint64_t>
  Number number(std::string_view name, std::string_view behind = "") const {
    Number number = 0;
    std::size_t at = behind.empty() ? 0 : text_.find(behind);
    return at != std::string_view::npos && next(name, &at, &number) ? number : 0;
  }

  std::string_view text() const { return text_; }
  bool isLastPart() const { return text_.find("\"end\":true") != std::string_view::npos; }

 private:
  std::string_view text_;
  char* freed_;
};

CallCounts countsOf(const Json& socket) {
  return {socket.number("streamsStarted"), socket.number("streamsSucceeded"),
          socket.number("streamsFailed"), socket.number("messagesReceived")};
}

int portOf(const sockaddr_storage& address) {
  return ntohs(address.ss_family == AF_INET6
                   ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                   : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

// As gRPC writes the peer in the name of a connection.
std::string nameOf(const sockaddr_storage& peer) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const auto v4 = [&](const void* address) {
    inet_ntop(AF_INET, address, text.data(), text.size());
    return fmt::format("chttp2 ipv4:{}:{}", text.data(), portOf(peer));
  };
  if (peer.ss_family == AF_INET) return v4(&reinterpret_cast<const sockaddr_in&>(peer).sin_addr);
  const auto& v6 = reinterpret_cast<const sockaddr_in6&>(peer);
  if (IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr)) return v4(v6.sin6_addr.s6_addr + 12);
  inet_ntop(AF_INET6, &v6.sin6_addr, text.data(), text.size());
  const auto scope = v6.sin6_scope_id == 0 ? "" : fmt::format("%25{}", v6.sin6_scope_id);
  return fmt::format("chttp2 ipv6:%5B{}{}%5D:{}", text.data(), scope, portOf(peer));
}

// What has come over a connection so far.
struct Bytes {
  std::uint64_t read = 0;  // by gRPC
  bool areLeft = false;    // to be read
};

Bytes bytesOf(int connection) {
  tcp_info info{};
  socklen_t size = sizeof info;
  int unread = 0;
  if (getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return {};
  if (ioctl(connection, SIOCINQ, &unread) != 0) return {};
  const auto left = std::min<std::uint64_t>(info.tcpi_bytes_received, unread);
  return {info.tcpi_bytes_received - left, left != 0};
}

}  // namespace

bool FloodJudge::isFlood(const CallCounts& counts, std::uint64_t bytes, Clock::time_point now) {
  const bool flood = hasAbandonedTooMany(counts, now) || hasSentTooMuch(counts, bytes);
  before_ = counts;
  return flood;
}

// A bucket, out of which a tenth runs in a second.
bool FloodJudge::hasAbandonedTooMany(const CallCounts& counts, Clock::time_point now) {
  if (limits_.abandonedCalls == 0) return false;
  const auto most = static_cast<double>(limits_.abandonedCalls);
  const std::chrono::duration<double> passed = now - std::exchange(lookedAt_, now);
  const auto before = static_cast<double>(before_.unanswered());
  const auto unanswered = static_cast<double>(counts.unanswered());
  forgiven_ = std::min({forgiven_ + most / 10 * passed.count(), before, unanswered});
  return unanswered - forgiven_ > most;
}

bool FloodJudge::hasSentTooMuch(const CallCounts& counts, std::uint64_t bytes) {
  if (limits_.bytesWithoutMessage == 0) return false;
  if (counts.begun != before_.begun || counts.messages != before_.messages) bytesAt_ = bytes;
  return bytes - bytesAt_ > limits_.bytesWithoutMessage * (1 + counts.open());
}

FloodWatch::FloodWatch(const Listener::FloodLimits& limits) : limits_(limits) {
  const auto must = [](int result) {
    if (result < 0)
      throw std::system_error(errno, std::generic_category(), "cannot watch connections");
    return result;
  };
  int ends[2];
  must(pipe2(ends, O_CLOEXEC));
  stopped_ = OwnDescriptor(ends[0]);
  running_ = OwnDescriptor(ends[1]);
  epoll_ = must(epoll_create1(EPOLL_CLOEXEC));
  epoll_event event{};
  event.data.fd = stopped_.get();
  must(epoll_ctl(epoll_, EPOLL_CTL_ADD, stopped_.get(), &event));
  thread_ = std::jthread([this] { run(); });
}

FloodWatch::~FloodWatch() {
  running_.close();
  thread_.join();
  ::close(epoll_);
}

void FloodWatch::add(int connection, const sockaddr_storage& peer, const std::string& host) try {
  if (peer.ss_family != AF_INET && peer.ss_family != AF_INET6) return;
  sockaddr_storage local{};
  socklen_t size = sizeof local;
  getsockname(connection, reinterpret_cast<sockaddr*>(&local), &size);
  {
    const vorn::lock_guard lock(mutex_);
    connections_.insert_or_assign(
        connection, Connection{FileIdentity(connection), nameOf(peer), host, portOf(local), newest_,
                               FloodJudge(limits_)});
  }
  epoll_event event{};
  event.events = EPOLLIN | EPOLLET;  // what has come while the thread rests is one event
  event.data.fd = connection;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, connection, &event);
} catch (const std::bad_alloc&) {
  // It is not watched.
}

bool FloodWatch::isShutOut(const std::string& host) {
  if (limits_.shutOut.count() == 0) return false;
  const vorn::lock_guard lock(mutex_);
  const auto found = shutOutUntil_.find(host);
  return found != shutOutUntil_.end() && Clock::now() < found->second;
}

void FloodWatch::shutOut(const std::string& host) try {
  if (limits_.shutOut.count() == 0) return;
  const auto now = Clock::now();
  std::erase_if(shutOutUntil_, [now](const auto& entry) { return entry.second <= now; });
  shutOutUntil_[host] = now + limits_.shutOut;
} catch (const std::bad_alloc&) {
  // It may connect again.
}

void FloodWatch::run() {
  while (handleEvents(unread_.empty() ? -1 : 0) && rest()) {
    for (const int fd : std::exchange(unread_, {}))
      look(fd);
  }
}

// Returns false once it is time to stop.
bool FloodWatch::handleEvents(int timeout) {
  std::array<epoll_event, 64> events;
  int count = static_cast<int>(events.size());
  for (; count == static_cast<int>(events.size()); timeout = 0) {
    count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), timeout);
    if (count < 0) return errno == EINTR;
    for (int i = 0; i < count; ++i) {
      if (events[i].data.fd == stopped_.get()) return false;
      look(events[i].data.fd);
    }
  }
  return true;
}

bool FloodWatch::rest() {
  pollfd stopped{stopped_.get(), 0, 0};
  return poll(&stopped, 1, static_cast<int>(kRest.count())) <= 0;
}

void FloodWatch::look(int fd) try {
  // A copy, which can't become another file while it is looked at.
  const OwnDescriptor copy(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  const vorn::lock_guard lock(mutex_);
  const auto found = connections_.find(fd);
  if (found == connections_.end()) return;
  auto& connection = found->second;
  if (FileIdentity(copy.get()) != connection.file) return;
  const auto bytes = bytesOf(copy.get());
  if (bytes.areLeft) unread_.insert(fd);
  // What has come between the kernel's two answers may make them less than before.
  if (bytes.read < connection.lookedAt + kBytesBetween) return;
  connection.lookedAt = bytes.read;
  if (connection.id == 0) connection.id = find(connection);
  if (connection.id == 0) return;
  const auto counts = countsOf(Json(grpc_channelz_get_socket(connection.id)));
  if (!connection.judge.isFlood(counts, bytes.read, Clock::now())) return;
  close(connection, copy.get(), counts);
  connections_.erase(found);
} catch (const std::bad_alloc&) {
  // It will be looked at again.
}

void FloodWatch::close(const Connection& connection, int fd, const CallCounts& counts) {
  // Resets the connection, and throws away what gRPC has not read of it: a shutdown would not.
  sockaddr nobody{};
  nobody.sa_family = AF_UNSPEC;
  if (connect(fd, &nobody, sizeof nobody) != 0) shutdown(fd, SHUT_RDWR);
  shutOut(connection.host);
  ++closed_;
  ++untold_;
  const auto now = Clock::now();
  if (now < nextWord_) return;
  nextWord_ = now + std::chrono::seconds(1);
  tracer_.warn(
      "Closed connections: %llu; their clients flood. The last one: %s, of %llu calls it let %llu "
      "be answered.",
      static_cast<unsigned long long>(std::exchange(untold_, 0)), connection.name.c_str() + 7,
      static_cast<unsigned long long>(counts.begun),
      static_cast<unsigned long long>(counts.answered));
}

// gRPC's id of the connection, or 0.
std::intptr_t FloodWatch::find(const Connection& connection) {
  std::intptr_t server = 0;
  for (bool last = false; !last;) {
    const Json servers(grpc_channelz_get_servers(server));
    last = true;
    for (std::size_t at = 0; servers.next("serverId", &at, &server);) {
      if (const auto id = findIn(server, connection)) return id;
      last = servers.isLastPart();
    }
    ++server;
  }
  return 0;
}

std::intptr_t FloodWatch::findIn(std::intptr_t server, const Connection& connection) {
  const std::string name = fmt::format("\"{}\"", connection.name);
  std::intptr_t id = connection.newerThan;
  for (bool last = false; !last;) {
    const Json sockets(grpc_channelz_get_server_sockets(server, id + 1, 0));
    last = sockets.isLastPart();
    std::size_t before = 0;
    for (std::size_t at = 0; sockets.next("socketId", &at, &id); before = at) {
      newest_ = std::max(newest_, id);
      if (sockets.text().substr(before, at - before).find(name) == std::string_view::npos) continue;
      const Json socket(grpc_channelz_get_socket(id));
      if (socket.number<int>("port", "\"local\":") == connection.localPort) return id;
    }
    last = last || before == 0;
  }
  return 0;
}

}  // namespace VornSdkRpc
