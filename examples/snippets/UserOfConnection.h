#pragma once

#include <grpcpp/security/auth_metadata_processor.h>

#include <mutex>
#include <string>

namespace snippets {

// Takes a connection's first caller at its word, as one that the kernel or a certificate vouches
// for would be taken, and holds every later call of the connection to it.
// [identity]
class UserOfConnection : public grpc::AuthMetadataProcessor {
 public:
  bool IsBlocking() const override { return false; }

  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                       OutputMetadata*, OutputMetadata*) override {
    const std::lock_guard lock(mutex_);  // calls of one connection come on several threads
    const auto claim = metadata.find("username");
    const std::string user =
        "local:" + (claim == metadata.end()
                        ? std::string("nobody")
                        : std::string(claim->second.data(), claim->second.size()));
    const auto known = connection->FindPropertyValues("peer-authenticated");
    if (known.empty()) {
      connection->AddProperty("peer-authenticated", user);
      connection->AddProperty("session-id", "session-" + std::to_string(++sessions_));
    } else if (user != std::string(known.front().data(), known.front().size())) {
      return {grpc::StatusCode::UNAUTHENTICATED, "this connection belongs to another user"};
    }
    return grpc::Status::OK;
  }

 private:
  std::mutex mutex_;
  unsigned sessions_ = 0;
};
// [identity]

}  // namespace snippets
