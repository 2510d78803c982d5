#pragma once

// What the calls of a service of the kit share.

#include <VornSdkRpc/GrpcService.h>
#include <grpcpp/alarm.h>
#include <grpcpp/grpcpp.h>
#include <vorn/error.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VornSdkRpc::rpc {

class Call;
template <typename Generated>
class Service;

namespace detail {
template <typename Method, typename Request, typename Reply>
class FunctionCall;
}  // namespace detail

class ServiceBase : public GrpcService {
 protected:
  explicit ServiceBase(std::string name) : GrpcService(std::move(name)) {}

  // The server runs, and the first calls are about to be asked for. Serving thread.
  virtual void opened() {}

  // The server stops: from now on the service sees no completion. Runs on the thread that stops, at
  // most once, and must be safe beside a call's step on the serving thread. What it throws leaves
  // GrpcServer::stop().
  virtual void closing() {}

  void serverStarted() final {
    opened();
    for (const auto& open : openers_)
      open();
  }
  void stoppingChanged() final {
    if (!stopping()) return;
    {
      const std::lock_guard lock(alarmsMutex_);
      for (grpc::Alarm& alarm : alarms_)
        alarm.Cancel();
    }
    closing();
  }

 private:
  friend class Call;
  template <typename Generated>
  friend class Service;
  template <typename Method, typename Request, typename Reply>
  friend class detail::FunctionCall;

  using AlarmPosition = std::list<grpc::Alarm>::iterator;

  AlarmPosition newAlarm() {
    const std::lock_guard lock(alarmsMutex_);
    return alarms_.emplace(alarms_.end());
  }
  void dropAlarm(AlarmPosition alarm) {
    const std::lock_guard lock(alarmsMutex_);
    alarms_.erase(alarm);
  }
  // An alarm that is set while the service begins to stop is cancelled here or by
  // stoppingChanged().
  void setAlarm(grpc::Alarm& alarm, gpr_timespec deadline, OpaqueId tag) {
    const std::lock_guard lock(alarmsMutex_);
    alarm.Set(cq_, deadline, tag);
    if (stopping()) alarm.Cancel();
  }

  // The status that ends a call whose function has thrown. Called in a catch block.
  grpc::Status currentExceptionStatus() const {
    try {
      throw;
    } catch (const vorn::invalid_argument_error& error) {
      return {grpc::StatusCode::INVALID_ARGUMENT, textOf(error)};
    } catch (const vorn::unsupported_error& error) {
      return {grpc::StatusCode::UNIMPLEMENTED, textOf(error)};
    } catch (const vorn::configuration_error& error) {
      return {grpc::StatusCode::FAILED_PRECONDITION, textOf(error)};
    } catch (const vorn::no_scoped_lock_obtained_error& error) {
      return {grpc::StatusCode::UNAVAILABLE, textOf(error)};
    } catch (const std::exception& error) {
      tracer_.trace0("a call failed: %s", error.what());
    } catch (...) {
      tracer_.trace0("a call failed with an unknown exception");
    }
    return {grpc::StatusCode::INTERNAL, "internal error"};
  }

  // A client refuses a status whose text is larger than the metadata that it takes, 8 KiB.
  static std::string textOf(const std::exception& error) {
    constexpr std::size_t kLongest = 1024;  // three times as many bytes on the wire at most
    return std::string(std::string_view(error.what()).substr(0, kLongest));
  }

  // Each asks for the first calls of one method.
  std::vector<std::function<void()>> openers_;

  std::mutex alarmsMutex_;
  std::list<grpc::Alarm> alarms_;  // those of the calls that have waited, pending or not
};

}  // namespace VornSdkRpc::rpc
