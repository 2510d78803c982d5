#include <VornSdkRpc/LocalCaller.h>

#include <fmt/format.h>
#include <grp.h>
#include <grpcpp/security/auth_context.h>
#include <pwd.h>
#include <sys/socket.h>

#include <cerrno>
#include <random>
#include <utility>
#include <vector>

namespace VornSdkRpc {

namespace {

constexpr char kProof[] = "peer-proof";

// The name in a record of the user or group database; empty when there is none.
template <typename Record, typename Id>
std::string nameOf(Id id, int (*lookUp)(Id, Record*, char*, std::size_t, Record**),
                   char* Record::* name) {
  std::vector<char> buffer(1024);
  Record record;
  Record* found = nullptr;
  while (lookUp(id, &record, buffer.data(), buffer.size(), &found) == ERANGE)
    buffer.resize(2 * buffer.size());
  return found ? found->*name : "";
}

std::vector<gid_t> groupsOf(int connection, gid_t primary) {
  std::vector<gid_t> groups(32);
  auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  int error = getsockopt(connection, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
  groups.resize(size / sizeof(gid_t));
  if (error != 0 && errno == ERANGE)
    error = getsockopt(connection, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
  if (error != 0) groups.clear();
  std::erase(groups, primary);
  groups.insert(groups.begin(), primary);
  return groups;
}

// A name for this run of the process, so that sessions of different runs differ.
const std::string& runName() {
  static const std::string name = [] {
    std::random_device random;
    return fmt::format("{:08x}{:08x}", random(), random());
  }();
  return name;
}

}  // namespace

LocalCaller LocalCallers::of(int connection) {
  forgetOldNames();
  ucred caller{};
  socklen_t size = sizeof caller;
  if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &caller, &size) != 0) return {};
  const std::string& name = user(caller.uid);
  const std::string uid = std::to_string(caller.uid);
  LocalCaller properties = {{"peer-authenticated", name.empty() ? "uid:" + uid : name},
                            {kProof, "kernel"},
                            {"session-id", fmt::format("{}-{}", runName(), ++sessions_)},
                            {"local-uid", uid},
                            {"local-pid", std::to_string(caller.pid)}};
  if (!name.empty()) properties.emplace("local-user", name);
  for (const gid_t gid : groupsOf(connection, caller.gid)) {
    properties.emplace("local-gid", std::to_string(gid));
    if (!group(gid).empty()) properties.emplace("local-group", group(gid));
  }
  return properties;
}

const std::string& LocalCallers::user(uid_t id) {
  const auto known = users_.find(id);
  if (known != users_.end()) return known->second;
  return users_.emplace(id, nameOf<passwd>(id, &getpwuid_r, &passwd::pw_name)).first->second;
}

const std::string& LocalCallers::group(gid_t id) {
  const auto known = groups_.find(id);
  if (known != groups_.end()) return known->second;
  return groups_.emplace(id, nameOf<::group>(id, &getgrgid_r, &::group::gr_name)).first->second;
}

void LocalCallers::forgetOldNames() {
  const auto now = std::chrono::steady_clock::now();
  if (now - kept_ < std::chrono::minutes(1)) return;
  kept_ = now;
  users_.clear();
  groups_.clear();
}

void LocalIdentity::callerIs(LocalCaller caller) {
  const vorn::lock_guard lock(mutex_);
  caller_ = std::move(caller);
}

grpc::Status LocalIdentity::Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                                    OutputMetadata* consumed, OutputMetadata* response) {
  {
    const vorn::lock_guard lock(mutex_);  // calls of one connection come on several threads
    if (connection->FindPropertyValues(kProof).empty()) {
      if (caller_.empty()) return {grpc::StatusCode::UNAUTHENTICATED, "the caller is not known"};
      for (const auto& [name, value] : caller_)
        connection->AddProperty(name, value);
    }
  }
  return next_ ? next_->Process(metadata, connection, consumed, response) : grpc::Status::OK;
}

}  // namespace VornSdkRpc
