#pragma once

#include <grpcpp/security/auth_metadata_processor.h>
#include <sys/types.h>
#include <vorn/mutex.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace VornSdkRpc {

// Who has made a connection to a Unix socket, as the kernel noted it then: properties of the
// connection's authentication context by their names.
using LocalCaller = std::multimap<std::string, std::string>;

// Finds callers, on one thread, and keeps the names of users and groups for a minute: to look one
// up can take a while.
class LocalCallers {
 public:
  LocalCaller of(int connection);

 private:
  using Names = std::map<id_t, std::string>;

  const std::string& user(uid_t id);
  const std::string& group(gid_t id);
  void forgetOldNames();

  Names users_, groups_;
  std::chrono::steady_clock::time_point kept_;  // since when
  std::uint64_t sessions_ = 0;
};

// Gives a connection the properties of its caller, and then asks the agent's own processor, if
// there is one. For one connection at a time: the next caller may be set when the connection of the
// one before has been destroyed.
class LocalIdentity : public grpc::AuthMetadataProcessor {
 public:
  explicit LocalIdentity(std::shared_ptr<grpc::AuthMetadataProcessor> next)
      : next_(std::move(next)) {}

  // Any thread.
  void callerIs(LocalCaller caller);

  bool IsBlocking() const override { return next_ && next_->IsBlocking(); }
  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                       OutputMetadata* consumed, OutputMetadata* response) override;

 private:
  const std::shared_ptr<grpc::AuthMetadataProcessor> next_;
  vorn::mutex mutex_;
  LocalCaller caller_ VORN_GUARDED_BY(mutex_);
};

}  // namespace VornSdkRpc
