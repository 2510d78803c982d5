#include <VornSdkRpc/Listener.h>

#include <VornSdkRpc/FloodWatch.h>
#include <VornSdkRpc/ListeningSocket.h>
#include <VornSdkRpc/LocalCaller.h>
#include <VornSdkRpc/OwnDescriptor.h>
#include <VornSdkRpc/ScopedNamespace.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <vorn/mutex.h>
#include <vorn/tracer.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace VornSdkRpc {

namespace {

using Clock = std::chrono::steady_clock;
using Acceptor = grpc::experimental::ExternalConnectionAcceptor;

// The last descriptors of the process are the agent's.
constexpr int kKeptBack = 16;
// How many are accepted, or refused, until the other sockets and a stop have their turn.
constexpr int kAtOnce = 64;
// How long the rest waits while there is no descriptor at all.
constexpr std::chrono::milliseconds kShortagePause{50};

int descriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  constexpr rlim_t kLargest = std::numeric_limits<int>::max();
  return static_cast<int>(std::min(limit.rlim_cur, kLargest));
}

// A descriptor that is held back, to be given up for as long as it takes to refuse a connection. It
// is a high one, where an agent that copies to fixed numbers is not in its way.
class Reserve {
 public:
  Reserve() { take(); }

  // Returns false when the process has no descriptor for it.
  bool take() {
    const int limit = descriptorLimit();
    if (held_.intact() && held_.get() < limit) return true;
    held_ = OwnDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));  // a file of its own
    for (const int lowest : {limit - 1, limit - kKeptBack}) {
      OwnDescriptor high(fcntl(held_.get(), F_DUPFD_CLOEXEC, lowest));
      if (high.get() < 0) continue;
      held_ = std::move(high);
      break;
    }
    return held_.get() >= 0;
  }

  void giveUp() { held_.close(); }

 private:
  OwnDescriptor held_;
};

// The client's address, as the kernel gives it to accept4().
struct Peer {
  sockaddr_storage address{};
  socklen_t size = sizeof address;

  bool isUnix() const { return address.ss_family == AF_UNIX; }
};

// Whom a connection is counted for, in bytes that differ for different peers.
std::string keyOf(const Peer& peer, int connection) {
  const auto bytes = [](const auto& value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
  };
  if (peer.isUnix()) {
    ucred caller{};
    socklen_t size = sizeof caller;
    getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &caller, &size);
    return "user " + bytes(caller.uid);
  }
  if (peer.address.ss_family == AF_INET)
    return bytes(reinterpret_cast<const sockaddr_in&>(peer.address).sin_addr);
  const auto& address = reinterpret_cast<const sockaddr_in6&>(peer.address).sin6_addr;
  const auto key = bytes(address);
  return IN6_IS_ADDR_V4MAPPED(&address) ? key.substr(12) : key;
}

// The connections that are open, by their peer. gRPC closes them and tells nobody: that one has
// gone is seen when its descriptor is no longer the same file.
class Connections {
 public:
  // Notes one more, or returns false when the peer has as many as it may have; 0: no limit.
  bool add(const std::string& peer, int connection, std::size_t limit) {
    const vorn::lock_guard lock(mutex_);
    if (total_ >= sweepAt_) sweep();
    auto& open = open_[peer];
    if (limit != 0 && open.size() >= limit) forgetClosed(open);
    if (limit != 0 && open.size() >= limit) return false;
    open.push_back({connection, FileIdentity(connection)});
    ++total_;
    return true;
  }

  std::size_t count() {
    const vorn::lock_guard lock(mutex_);
    sweep();
    return total_;
  }

  void closeAll() {
    const vorn::lock_guard lock(mutex_);
    for (const auto& [peer, open] : open_) {
      for (const auto& connection : open) {
        // A copy, which can't become another file while it is looked at.
        const OwnDescriptor copy(fcntl(connection.fd, F_DUPFD_CLOEXEC, 0));
        if (FileIdentity(copy.get()) == connection.file) shutdown(copy.get(), SHUT_RDWR);
      }
    }
  }

 private:
  struct Connection {
    int fd;
    FileIdentity file;
  };

  void forgetClosed(std::vector<Connection>& open) VORN_REQUIRES(mutex_) {
    total_ -= std::erase_if(open, [](const Connection& c) { return FileIdentity(c.fd) != c.file; });
  }

  // Those that have gone must not be remembered for ever.
  void sweep() VORN_REQUIRES(mutex_) {
    for (auto& [peer, open] : open_)
      forgetClosed(open);
    std::erase_if(open_, [](const auto& entry) { return entry.second.empty(); });
    sweepAt_ = 2 * total_ + 1024;
  }

  vorn::mutex mutex_;
  std::unordered_map<std::string, std::vector<Connection>> open_ VORN_GUARDED_BY(mutex_);
  std::size_t total_ VORN_GUARDED_BY(mutex_) = 0;
  std::size_t sweepAt_ VORN_GUARDED_BY(mutex_) = 1024;
};

// Counts refusals of one kind, and tells of them once a second at most.
class Refusals {
 public:
  Refusals(const vorn::tracer& tracer, const char* why) : tracer_(tracer), why_(why) {}

  std::uint64_t count() const { return count_; }
  bool untold() const { return count_ != told_; }

  void add() {
    ++count_;
    tellWhenDue();
  }
  void tellWhenDue() {
    if (Clock::now() >= nextWord_) tell();
  }
  void tell() {
    if (!untold()) return;
    tracer_.warn("Refused connections: %llu; %s.", static_cast<unsigned long long>(count_ - told_),
                 why_);
    told_ = count_;
    nextWord_ = Clock::now() + std::chrono::seconds(1);
  }

 private:
  const vorn::tracer& tracer_;
  const char* why_;
  std::atomic<std::uint64_t> count_ = 0;  // for other threads to read
  std::uint64_t told_ = 0;
  Clock::time_point nextWord_ = Clock::time_point::min();
};

// What hands connections over to gRPC. gRPC tells a processor nothing of the one connection that a
// call came over but what its client has chosen; what it can tell apart are acceptors, each with
// credentials of its own. So a connection whose caller is to be known has an acceptor for itself.
struct Entrance {
  std::shared_ptr<Acceptor> acceptor;
  std::shared_ptr<LocalIdentity> identity;  // null: any number of connections, of anybody
  int connection = -1;
  FileIdentity file{-1};  // of the connection, which is open as long as its descriptor is this file

  bool isFree() const { return !identity || !file.exists() || FileIdentity(connection) != file; }
};

bool isShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// What accept4() says of the listening socket, and not of the one connection.
bool isBroken(int error) {
  return error == EBADF || error == ENOTSOCK || error == EINVAL || error == EOPNOTSUPP;
}

}  // namespace

// The sockets, and the thread that accepts from them.
class Listener::Accepting {
 public:
  Accepting() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
      throw std::system_error(errno, std::generic_category(), "cannot make a listener");
    stopped_ = OwnDescriptor(ends[0]);
    running_ = OwnDescriptor(ends[1]);
  }
  ~Accepting() { stop(); }

  bool started() const { return started_; }

  int add(std::vector<ListeningSocket> sockets, std::vector<Entrance> entrances) {
    const int port = sockets.front().port();
    for (auto& socket : sockets)
      places_.push_back({std::move(socket), entrances});
    return port;
  }

  void start(std::size_t connectionsPerPeer, std::chrono::milliseconds unacknowledgedTime,
             const FloodLimits& floodLimits) {
    const vorn::lock_guard lock(mutex_);
    if (started_.exchange(true)) return;
    unacknowledgedTime_ = unacknowledgedTime;
    connectionsPerPeer_ = connectionsPerPeer;
    if (floodLimits.any()) floodWatch_ = std::make_unique<FloodWatch>(floodLimits);
    watching_ = floodWatch_.get();
    thread_ = std::jthread([this] { run(); });
  }

  void stop() {
    const vorn::lock_guard lock(mutex_);
    started_ = true;  // a start comes too late
    running_.close();
    if (thread_.joinable()) thread_.join();
    places_.clear();
  }

  void closeConnections() {
    const vorn::lock_guard lock(mutex_);
    if (started_ && !thread_.joinable()) connections_.closeAll();
  }

  std::size_t openConnections() { return connections_.count(); }

  Figures figures() const {
    const auto* const watch = watching_.load();
    return {.accepted = accepted_,
            .refusedForDescriptors = forDescriptors_.count(),
            .refusedForCallers = forCallers_.count(),
            .refusedForPeer = forPeer_.count(),
            .refusedForFlood = forFlood_.count(),
            .closedForFlood = watch ? watch->closed() : 0};
  }

 private:
  // A place to listen; broken when somebody has taken the socket away.
  struct Place {
    ListeningSocket socket;
    std::vector<Entrance> entrances;
    bool broken = false;
    std::size_t next = 0;  // among the entrances, to be looked at

    // Null when none is free.
    Entrance* freeEntrance() {
      for (std::size_t i = 0; i < entrances.size(); ++i) {
        auto& entrance = entrances[next++ % entrances.size()];
        if (entrance.isFree()) return &entrance;
      }
      return nullptr;
    }
  };

  void run() {
    bool paused = false;
    while (wait(paused)) {
      paused = false;
      for (std::size_t i = 0; i < places_.size() && !paused; ++i) {
        if (polled_[i + 1].revents != 0) paused = !acceptFrom(places_[i]);
      }
      for (auto* cause : causes_)
        cause->tellWhenDue();
    }
    for (auto* cause : causes_)
      cause->tell();
  }

  // Until somebody has connected, or a pause is over. Returns false once it is time to stop.
  bool wait(bool paused) {
    polled_.assign(1 + places_.size(), pollfd{-1, POLLIN, 0});
    polled_[0].fd = stopped_.get();
    if (paused) {
      const bool stops = poll(polled_.data(), 1, static_cast<int>(kShortagePause.count())) > 0;
      for (auto& place : polled_)
        place.revents = POLLIN;  // whoever is there
      return !stops;
    }
    for (std::size_t i = 0; i < places_.size(); ++i) {
      if (!places_[i].broken) polled_[i + 1].fd = places_[i].socket.fd();
    }
    const bool untold = std::any_of(std::begin(causes_), std::end(causes_),
                                    [](const auto* cause) { return cause->untold(); });
    const int ready = poll(polled_.data(), polled_.size(), untold ? 1000 : -1);
    if (ready < 0 && errno != EINTR) std::this_thread::sleep_for(kShortagePause);
    return polled_[0].revents == 0;
  }

  // Takes what waits. Returns false when the rest has to wait for descriptors.
  bool acceptFrom(Place& place) {
    bool shortage = false;
    for (int i = 0; i < kAtOnce && !place.broken; ++i) {
      Peer peer;
      const int connection = accept(place, &peer);
      if (connection >= 0) {
        welcome(place, connection, peer);
      } else if (errno == EAGAIN) {
        return true;
      } else if (isShortage(errno)) {
        shortage = true;
        if (!refuseNext(place)) return false;
      } else if (isBroken(errno)) {
        giveUp(place);
      }  // else it is the connection's own failure, and the next one may be well
    }
    return !shortage;
  }

  static int accept(const Place& place, Peer* peer) {
    if (!place.socket.intact()) {
      errno = EBADF;
      return -1;
    }
    return accept4(place.socket.fd(), reinterpret_cast<sockaddr*>(&peer->address), &peer->size,
                   SOCK_NONBLOCK | SOCK_CLOEXEC);
  }

  void welcome(Place& place, int connection, const Peer& peer) {
    helpless_ = false;
    auto* const entrance = place.freeEntrance();
    auto* const cause = entrance ? refusal(connection, peer, *entrance) : &forCallers_;
    if (cause) return refuse(connection, *cause);
    if (!peer.isUnix()) setTcpOptions(connection);
    ++accepted_;
    try {
      Acceptor::NewConnectionParameters parameters;
      parameters.listener_fd = place.socket.fd();
      parameters.fd = connection;
      entrance->acceptor->HandleNewConnection(&parameters);  // which closes it from here on
    } catch (const std::exception& error) {
      tracer_.warn("Lost a connection: %s", error.what());
    }
  }

  // Why a connection can't be had; null when it can, and has the entrance now.
  Refusals* refusal(int connection, const Peer& peer, Entrance& entrance) try {
    if (connection >= descriptorLimit() - kKeptBack) return &forDescriptors_;
    const auto key = keyOf(peer, connection);
    if (floodWatch_ && floodWatch_->isShutOut(key)) return &forFlood_;
    if (!connections_.add(key, connection, connectionsPerPeer_)) return &forPeer_;
    if (entrance.identity) {
      entrance.identity->callerIs(callers_.of(connection));
      entrance.connection = connection;
      entrance.file = FileIdentity(connection);
    }
    if (floodWatch_) floodWatch_->add(connection, peer.address, key);
    return nullptr;
  } catch (const std::bad_alloc&) {
    return &forDescriptors_;
  }

  void setTcpOptions(int connection) const {
    constexpr int kOn = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &kOn, sizeof kOn);
    const auto time = static_cast<unsigned>(unacknowledgedTime_.count());
    if (time != 0) setsockopt(connection, IPPROTO_TCP, TCP_USER_TIMEOUT, &time, sizeof time);
  }

  static void refuse(int connection, Refusals& cause) {
    cause.add();
    close(connection);
  }

  // Takes a connection with the reserve's descriptor, to close it. Returns false when that can't be
  // done: it waits.
  bool refuseNext(const Place& place) {
    if (!reserve_.take()) {
      if (!std::exchange(helpless_, true))
        tracer_.warn("No file descriptor is left, not even to refuse with: connections wait.");
      return false;
    }
    reserve_.giveUp();
    Peer peer;
    const int connection = accept(place, &peer);
    const bool stolen = connection < 0 && isShortage(errno);  // by another thread
    if (connection >= 0) refuse(connection, forDescriptors_);
    reserve_.take();
    return !stolen;
  }

  void giveUp(Place& place) {
    place.broken = true;
    tracer_.error("A listening socket is gone: %s.", std::strerror(errno));
  }

  const vorn::tracer tracer_{"Listener"};
  vorn::mutex mutex_;  // of start() and stop()
  std::atomic<bool> started_ = false;
  OwnDescriptor stopped_;  // the end of a pipe that hangs up when `running_`, the other one, closes
  OwnDescriptor running_;
  std::vector<Place> places_;
  std::size_t connectionsPerPeer_ = 0;
  std::chrono::milliseconds unacknowledgedTime_{0};
  std::unique_ptr<FloodWatch> floodWatch_;             // from the start on, if anything is limited
  std::atomic<const FloodWatch*> watching_ = nullptr;  // the same, for other threads
  std::jthread thread_;

  // The thread's own.
  std::vector<pollfd> polled_;  // the stop, and then the places
  Connections connections_;     // until it has stopped
  Reserve reserve_;
  bool helpless_ = false;  // neither a descriptor nor the reserve, and that has been said
  std::atomic<std::uint64_t> accepted_ = 0;
  Refusals forDescriptors_{tracer_, "the process is short of file descriptors or memory"};
  LocalCallers callers_;
  Refusals forCallers_{tracer_, "there are as many local callers as there may be"};
  Refusals forPeer_{tracer_, "their peer has as many as it may have"};
  Refusals forFlood_{tracer_, "their peer has flooded before"};
  Refusals* const causes_[4] = {&forDescriptors_, &forCallers_, &forPeer_, &forFlood_};
};

Listener::Listener(grpc::ServerBuilder& builder, const ServerProperties& properties)
    : builder_(&builder), nsName_(properties.nsName), accepting_(std::make_unique<Accepting>()) {}

Listener::~Listener() = default;

std::shared_ptr<Acceptor> Listener::acceptor(std::shared_ptr<grpc::ServerCredentials> credentials) {
  using Experimental = grpc::ServerBuilder::experimental_type;
  return builder_->experimental().AddExternalConnectionAcceptor(
      Experimental::ExternalConnectionType::FROM_FD, std::move(credentials));
}

int Listener::add(const std::string& address,
                  std::shared_ptr<grpc::ServerCredentials> credentials) {
  auto sockets = listenInNamespace(address);
  return accepting_->add(std::move(sockets), {{acceptor(std::move(credentials)), nullptr}});
}

int Listener::addLocal(const std::string& address,
                       std::shared_ptr<grpc::AuthMetadataProcessor> next, std::size_t connections) {
  if (!address.starts_with("unix:") && !address.starts_with("unix-abstract:"))
    throw std::invalid_argument("cannot listen on " + address + ": it is no Unix socket");
  return addLocal(listenInNamespace(address), next, connections);
}

int Listener::addLocal(std::vector<ListeningSocket> sockets,
                       const std::shared_ptr<grpc::AuthMetadataProcessor>& next,
                       std::size_t connections) {
  std::vector<Entrance> entrances;
  for (std::size_t i = 0; i < connections; ++i) {
    const auto identity = std::make_shared<LocalIdentity>(next);
    const auto credentials = grpc::experimental::LocalServerCredentials(UDS);
    credentials->SetAuthMetadataProcessor(identity);
    entrances.push_back({acceptor(credentials), identity});
  }
  return accepting_->add(std::move(sockets), std::move(entrances));
}

std::vector<ListeningSocket> Listener::listenInNamespace(const std::string& address) {
  mustNotHaveStarted("cannot listen on " + address);
  const ScopedNamespace scope(nsName_);
  return listenOn(address);
}

int Listener::addInherited(int fd, std::shared_ptr<grpc::ServerCredentials> credentials) {
  auto sockets = inherited(fd);
  return accepting_->add(std::move(sockets), {{acceptor(std::move(credentials)), nullptr}});
}

int Listener::addInheritedLocal(int fd, std::shared_ptr<grpc::AuthMetadataProcessor> next,
                                std::size_t connections) {
  int domain = 0;
  socklen_t size = sizeof domain;
  if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain != AF_UNIX)
    throw std::invalid_argument("cannot listen on descriptor " + std::to_string(fd) +
                                ": it is no Unix socket");
  return addLocal(inherited(fd), next, connections);
}

std::vector<ListeningSocket> Listener::inherited(int fd) const {
  mustNotHaveStarted("cannot listen on descriptor " + std::to_string(fd));
  std::vector<ListeningSocket> sockets;
  sockets.push_back(ListeningSocket::inherited(fd));
  return sockets;
}

void Listener::mustNotHaveStarted(const std::string& what) const {
  if (accepting_->started())
    throw std::logic_error(what + ": the listener has started or stopped already");
}

void Listener::start() {
  accepting_->start(connectionsPerPeer_, unacknowledgedTime_, floodLimits_);
}

void Listener::stop() { accepting_->stop(); }

void Listener::closeConnections() { accepting_->closeConnections(); }

Listener::Figures Listener::figures() const { return accepting_->figures(); }

std::size_t Listener::openConnections() const { return accepting_->openConnections(); }

}  // namespace VornSdkRpc
