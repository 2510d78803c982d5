#include <VornSdkRpc/StopOnSignal.h>

#include <semaphore.h>
#include <signal.h>
#include <vorn/mutex.h>
#include <vorn/tracer.h>

#include <array>
#include <cerrno>
#include <exception>
#include <stdexcept>

namespace VornSdkRpc {

namespace {

constexpr std::array<int, 2> kSignals = {SIGINT, SIGTERM};

// The signals that have come and been handled by nobody yet. (Of what a thread can wait for, a
// semaphore is what a signal handler may touch.)
class Arrived {
 public:
  Arrived() { sem_init(&count_, 0, 0); }  // never destroyed: a handler may be running

  void add() { sem_post(&count_); }
  void takeOne() {
    while (sem_wait(&count_) != 0) {
    }
  }
  void forgetAll() {
    while (sem_trywait(&count_) == 0) {
    }
  }

 private:
  sem_t count_;
};

Arrived& arrived() {
  static auto* const made = new Arrived;
  return *made;
}

// What the signals did before they were ours.
class Handlers {
 public:
  void install() {
    const vorn::lock_guard lock(mutex_);
    if (installed_) return;
    arrived();  // made here, and not in a signal handler
    struct sigaction ours{};
    ours.sa_handler = [](int) {
      const int error = errno;
      arrived().add();
      errno = error;
    };
    ours.sa_flags = SA_RESTART;
    sigemptyset(&ours.sa_mask);
    for (std::size_t i = 0; i < kSignals.size(); ++i)
      sigaction(kSignals[i], &ours, &before_[i]);
    installed_ = true;
  }

  void remove() {
    const vorn::lock_guard lock(mutex_);
    for (std::size_t i = 0; i < kSignals.size(); ++i)
      sigaction(kSignals[i], &before_[i], nullptr);
    installed_ = false;
  }

 private:
  vorn::mutex mutex_;
  bool installed_ VORN_GUARDED_BY(mutex_) = false;
  std::array<struct sigaction, kSignals.size()> before_ VORN_GUARDED_BY(mutex_) = {};
};

Handlers& handlers() {
  static auto* const made = new Handlers;
  return *made;
}

std::atomic<bool> taken = false;

// A process may have been started with the signals blocked; its threads inherit that.
void unblockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : kSignals)
    sigaddset(&signals, signal);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace

void StopOnSignal::holdSignals() { handlers().install(); }

StopOnSignal::StopOnSignal(GrpcServer& server, std::chrono::milliseconds grace)
    : server_(server), grace_(grace) {
  if (taken.exchange(true)) throw std::logic_error("a process can have one StopOnSignal at a time");
  try {
    handlers().install();
    thread_ = std::thread([this] { wait(); });
  } catch (...) {
    handlers().remove();
    taken = false;
    throw;
  }
}

StopOnSignal::~StopOnSignal() {
  handlers().remove();
  ended_ = true;
  arrived().add();
  thread_.join();
  arrived().forgetAll();
  taken = false;
}

void StopOnSignal::wait() {
  unblockSignals();
  const vorn::tracer tracer("StopOnSignal");
  for (auto grace = grace_;; grace = {}) {
    arrived().takeOne();
    if (ended_) return;
    try {
      server_.stop(grace);
    } catch (const std::exception& error) {
      tracer.error("a service failed to stop: %s", error.what());
    } catch (...) {
      tracer.error("a service failed to stop");
    }
  }
}

}  // namespace VornSdkRpc
