#pragma once

// How a method is served, and how many calls may be in progress.

#include <grpcpp/server_context.h>
#include <vorn/export.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace VornSdkRpc::rpc {

// How many calls each client may have in progress, so that one does not hold all that there are.
// One object counts the calls of all methods and services that it is given to. Calls of plain
// functions are never in progress. Serving thread.
class VORN_EXPORT Limits {
 public:
  // Zero: no limit.
  struct Options {
    std::size_t perConnection = 0;
    std::size_t perAddress = 0;  // a host, or a Unix socket
    std::size_t perUser = 0;     // as accounting names the user; nothing for a call without one
  };

  explicit Limits(Options options) : options_(options) {}
  Limits(const Limits&) = delete;
  Limits& operator=(const Limits&) = delete;

  // Counts a call, for as long as the claim exists. Answers nothing when one of its client's limits
  // has been reached. The claim must not outlive the limits.
  class VORN_EXPORT Claim {
   public:
    Claim(Claim&& other) noexcept
        : limits_(std::exchange(other.limits_, nullptr)), keys_(std::move(other.keys_)) {}
    Claim& operator=(Claim&&) = delete;
    ~Claim();

   private:
    friend class Limits;
    explicit Claim(Limits& limits) : limits_(&limits) {}

    Limits* limits_;
    std::vector<std::string> keys_;
  };
  std::optional<Claim> claim(const grpc::ServerContext& context);

 private:
  VORN_NO_EXPORT bool take(Claim& claim, std::string key, std::size_t limit);

  const Options options_;
  std::unordered_map<std::string, std::size_t> used_;
};

// How a method is served.
struct MethodOptions {
  // How many calls of the method may be in progress; one more is refused at once with
  // RESOURCE_EXHAUSTED. Zero: no limit. Without effect on a plain function, which is never in
  // progress: it has ended before the next call is looked at.
  std::size_t limit = 0;

  // How many calls of the method are asked for ahead, so that one poll can pick up several. At
  // least 1.
  std::size_t ahead = 1;

  // How long a stream may do nothing, neither read a message nor write one, before it is ended with
  // DEADLINE_EXCEEDED: its coroutine sees it as over. Zero: as long as it likes.
  std::chrono::milliseconds idle{0};

  // What each client may have in progress, beside the limits of the service.
  std::shared_ptr<Limits> limits{};
};

}  // namespace VornSdkRpc::rpc
