#include "agents/routing/ReloadOnSignal.h"

#include <pthread.h>
#include <vorn/tracer.h>

#include <csignal>
#include <exception>
#include <utility>

namespace routing_agent {

namespace {

const sigset_t& hangup() {
  static const sigset_t set = [] {
    sigset_t made;
    sigemptyset(&made);
    sigaddset(&made, SIGHUP);
    return made;
  }();
  return set;
}

}  // namespace

void ReloadOnSignal::holdSignal() { pthread_sigmask(SIG_BLOCK, &hangup(), nullptr); }

ReloadOnSignal::ReloadOnSignal(std::function<void()> reload)
    : reload_(std::move(reload)), thread_([this] { run(); }) {}

ReloadOnSignal::~ReloadOnSignal() {
  over_ = true;
  // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread): sigwait takes it
  pthread_kill(thread_.native_handle(), SIGHUP);
  thread_.join();
}

void ReloadOnSignal::run() {
  for (int signal = 0; sigwait(&hangup(), &signal) == 0 && !over_;) {
    try {
      reload_();
    } catch (const std::exception& error) {
      vorn::tracer("ReloadOnSignal").error("%s", error.what());
    }
  }
}

}  // namespace routing_agent
