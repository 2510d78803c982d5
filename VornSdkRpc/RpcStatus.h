#pragma once

// A status that ends a call from anywhere below its function, with details that a client's program
// can read: which fields of the request were wrong, and when to try again.
//
//   throw rpc::StatusError(grpc::StatusCode::UNAVAILABLE, "the hardware restarts").retryAfter(2s);
//
// The details are those of google.rpc (BadRequest, RetryInfo) in a google.rpc.Status, which gRPC
// sends as grpc-status-details-bin and the status libraries of all languages read. The SDK's own
// errors of arguments (vorn/error.h) get theirs without more.

#include <grpcpp/support/status.h>
#include <vorn/export.h>

#include <chrono>
#include <exception>
#include <string>
#include <string_view>

namespace VornSdkRpc::rpc {

// Thrown by a function or a coroutine of the kit: its call ends with status().
class VORN_EXPORT StatusError : public std::exception {
 public:
  // A code that is not OK, and a text for the client, of which it is sent the first 1024 bytes.
  StatusError(grpc::StatusCode code, std::string_view message);
  StatusError(const StatusError&) = default;
  StatusError& operator=(const StatusError&) = default;
  ~StatusError() override;

  // Adds a field of the request that is wrong, "prefix.addr" say, and what is wrong with it. What
  // would make the details larger than a client takes is left out.
  StatusError& wrongField(std::string_view field, std::string_view description) &;
  StatusError&& wrongField(std::string_view field, std::string_view description) &&;

  // Tells the client to try again after that time.
  StatusError& retryAfter(std::chrono::milliseconds delay) &;
  StatusError&& retryAfter(std::chrono::milliseconds delay) &&;

  grpc::Status status() const;

  const char* what() const noexcept override { return message_.c_str(); }

 private:
  grpc::StatusCode code_;
  std::string message_;
  std::string badRequest_;  // both as they are sent
  std::string retryInfo_;
};

}  // namespace VornSdkRpc::rpc
