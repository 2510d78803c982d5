#include <VornSdkRpc/PolicyGuard.h>

#include <VornSdkRpc/FileWatch.h>
#include <vorn/error.h>
#include <vorn/mutex.h>
#include <vorn/tracer.h>

#include <atomic>
#include <exception>
#include <map>
#include <utility>

namespace VornSdkRpc {

namespace {

constexpr std::size_t kLongest = 1 << 20;

const vorn::tracer& tracer() {
  static const auto* const made = new vorn::tracer("Policy");  // calls may outlast destructors
  return *made;
}

using Counter = std::shared_ptr<std::atomic<std::uint64_t>>;

Counter newCounter() { return std::make_shared<std::atomic<std::uint64_t>>(0); }

void count(const Counter& counter) { counter->fetch_add(1, std::memory_order_relaxed); }

std::string_view textOf(const grpc::string_ref& text) { return {text.data(), text.size()}; }

std::string detailsOf(const PolicyDenial& denial) {
  const std::string by = "policy " + std::string(denial.policy) + ", ";
  return by + (denial.rule.empty() ? "no rule allows it" : "rule " + std::string(denial.rule));
}

}  // namespace

PolicyPeer policyPeerOf(const grpc::AuthContext& connection) {
  static const std::string kTransport = "transport_security_type";
  static const std::string kNames[] = {"peer_uri", "peer_dns", "x509_subject"};
  static const std::pair<std::string, std::string> kLocal[] = {{"local-uid", "uid:"},
                                                               {"local-user", "user:"},
                                                               {"local-gid", "gid:"},
                                                               {"local-group", "group:"}};
  PolicyPeer peer;
  const auto transport = connection.FindPropertyValues(kTransport);
  const bool tls = !transport.empty() && (transport[0] == "ssl" || transport[0] == "tls");
  if (tls) {
    for (const auto& property : kNames) {
      for (const auto& name : connection.FindPropertyValues(property))
        peer.names.push_back(textOf(name));
    }
    if (peer.names.empty()) peer.names.emplace_back();
    return peer;
  }
  for (const auto& [property, kind] : kLocal) {
    for (const auto& name : connection.FindPropertyValues(property))
      peer.local.push_back(std::string(kind).append(textOf(name)));
  }
  return peer;
}

// ------------------------------------------------------------------------------------------------
// PolicyGuard

class PolicyGuard::Impl {
 public:
  struct InForce {
    Policy policy;
    std::uint64_t generation;
    std::chrono::system_clock::time_point loaded;
    std::vector<Counter> hits;  // of its rules
  };

  explicit Impl(PolicyOptions options) : options_(std::move(options)) {}

  void policyIs(Policy policy) {
    auto next = std::make_shared<InForce>(
        InForce{std::move(policy), 1, std::chrono::system_clock::now(), {}});
    const vorn::lock_guard lock(mutex_);
    for (const auto& rule : next->policy.rules())
      next->hits.push_back(counterOf(rule));
    if (inForce_) next->generation = inForce_->generation + 1;
    inForce_ = std::move(next);
  }

  std::shared_ptr<const InForce> inForce() const {
    const vorn::lock_guard lock(mutex_);
    return inForce_;
  }

  grpc::Status admit(const grpc::AuthContext& connection, std::string_view method,
                     const PolicyRequest::Headers& headers) {
    const auto now = inForce();
    const auto [allowed, rule] = now->policy.decide({policyPeerOf(connection), method, headers});
    const bool matched = rule != PolicyDecision::kNoRule;
    count(matched ? now->hits[rule] : unmatched_);
    if (allowed) return grpc::Status::OK;
    const PolicyDenial denial{
        .connection = connection,
        .method = method,
        .policy = now->policy.name(),
        .rule = matched ? std::string_view(now->policy.rules()[rule].name) : "",
        .enforced = !options_.dryRun};
    tell(denial);
    if (options_.dryRun) return grpc::Status::OK;
    return {grpc::StatusCode::PERMISSION_DENIED, "the policy does not allow this call",
            detailsOf(denial)};
  }

  PolicyState state() const {
    const auto now = inForce();
    PolicyState state{.name = now->policy.name(),
                      .generation = now->generation,
                      .loaded = now->loaded,
                      .rules = {},
                      .unmatched = unmatched_->load(),
                      .dryRun = options_.dryRun};
    for (std::size_t i = 0; i < now->hits.size(); ++i) {
      const auto& rule = now->policy.rules()[i];
      state.rules.push_back(
          {.name = rule.name, .allows = rule.allows, .hits = now->hits[i]->load()});
    }
    return state;
  }

 private:
  // A rule's counter; that of the rule of the same name in the policy before, if there is one.
  Counter counterOf(const PolicyRule& rule) const VORN_REQUIRES(mutex_) {
    if (inForce_) {
      const auto& before = inForce_->policy.rules();
      for (std::size_t i = 0; i < before.size(); ++i) {
        if (before[i].name == rule.name && before[i].allows == rule.allows)
          return inForce_->hits[i];
      }
    }
    return newCounter();
  }

  void tell(const PolicyDenial& denial) const try {
    if (tracer().enabled(8)) {
      tracer().trace8("%s %.*s: %s", denial.enforced ? "denied" : "would deny",
                      static_cast<int>(denial.method.size()), denial.method.data(),
                      detailsOf(denial).c_str());
    }
    if (options_.denied) options_.denied(denial);
  } catch (const std::exception& error) {
    tracer().error("a denial could not be told: %s", error.what());
  }

  const PolicyOptions options_;
  const Counter unmatched_ = newCounter();
  mutable vorn::mutex mutex_;  // guards the pointer, for the time of a copy
  std::shared_ptr<const InForce> inForce_ VORN_GUARDED_BY(mutex_);
};

PolicyGuard::PolicyGuard(Policy policy, PolicyOptions options)
    : impl_(std::make_unique<Impl>(std::move(options))) {
  policyIs(std::move(policy));
}

PolicyGuard::~PolicyGuard() = default;

void PolicyGuard::policyIs(Policy policy) { impl_->policyIs(std::move(policy)); }

Policy PolicyGuard::policy() const { return impl_->inForce()->policy; }

PolicyState PolicyGuard::state() const { return impl_->state(); }

grpc::Status PolicyGuard::admit(const grpc::AuthContext& connection, std::string_view method,
                                const PolicyRequest::Headers& headers) {
  return impl_->admit(connection, method, headers);
}

// ------------------------------------------------------------------------------------------------
// The processor

namespace {

class PolicyProcessor : public grpc::AuthMetadataProcessor {
 public:
  PolicyProcessor(std::shared_ptr<PolicyGuard> guard,
                  std::shared_ptr<grpc::AuthMetadataProcessor> identity)
      : guard_(std::move(guard)), identity_(std::move(identity)) {}

  bool IsBlocking() const override { return identity_ && identity_->IsBlocking(); }

  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                       OutputMetadata* consumed, OutputMetadata* response) override try {
    if (identity_) {
      auto status = identity_->Process(metadata, connection, consumed, response);
      if (!status.ok()) return status;
    }
    const auto path = metadata.find(":path");
    const auto method = path == metadata.end() ? std::string_view() : textOf(path->second);
    return guard_->admit(*connection, method, metadata);
  } catch (const std::exception& error) {
    tracer().error("a call could not be decided on: %s", error.what());
    return {grpc::StatusCode::INTERNAL, "internal error"};
  }

 private:
  const std::shared_ptr<PolicyGuard> guard_;
  const std::shared_ptr<grpc::AuthMetadataProcessor> identity_;
};

}  // namespace

std::shared_ptr<grpc::AuthMetadataProcessor> policyProcessor(
    std::shared_ptr<PolicyGuard> guard, std::shared_ptr<grpc::AuthMetadataProcessor> identity) {
  return std::make_shared<PolicyProcessor>(std::move(guard), std::move(identity));
}

// ------------------------------------------------------------------------------------------------
// PolicyFile

class PolicyFile::Impl {
 public:
  explicit Impl(std::string path) : path_(std::move(path)) {}

  // What the file holds now.
  Policy read() {
    const vorn::lock_guard lock(mutex_);
    seen_ = readFile(path_, kLongest);
    return parsed();
  }

  void watch(std::shared_ptr<PolicyGuard> guard, std::chrono::milliseconds interval) {
    guard_ = std::move(guard);
    watch_ = std::make_unique<FileWatch>(interval, [this] { look(); });
  }

  bool look() {
    const vorn::lock_guard lock(mutex_);
    try {
      auto text = readFile(path_, kLongest);
      if (text == seen_ && readable_) return error_.empty();
      seen_ = std::move(text);
      readable_ = true;
      guard_->policyIs(parsed());
      error_.clear();
      tracer().trace0("policy %s of %s is in force", guard_->policy().name().c_str(),
                      path_.c_str());
    } catch (const vorn::configuration_error& error) {
      refused(error.what());
    } catch (const std::system_error& error) {
      readable_ = false;
      refused(error.what());
    }
    return error_.empty();
  }

  std::string error() const {
    const vorn::lock_guard lock(mutex_);
    return error_;
  }

 private:
  Policy parsed() const VORN_REQUIRES(mutex_) try {
    return Policy::parse(seen_);
  } catch (const vorn::configuration_error& error) {
    throw vorn::configuration_error(path_ + ": " + error.what());
  }

  // Tells once what is wrong, however often it is seen.
  void refused(const char* why) VORN_REQUIRES(mutex_) {
    if (error_ == why) return;
    error_ = why;
    tracer().error("the policy stays as it was: %s", why);
  }

  const std::string path_;
  mutable vorn::mutex mutex_;
  std::string seen_ VORN_GUARDED_BY(mutex_);
  bool readable_ VORN_GUARDED_BY(mutex_) = true;
  std::string error_ VORN_GUARDED_BY(mutex_);
  std::shared_ptr<PolicyGuard> guard_;
  std::unique_ptr<FileWatch> watch_;  // last: its thread uses the others
};

PolicyFile::PolicyFile(std::string path, PolicyOptions options, std::chrono::milliseconds interval)
    : impl_(std::make_unique<Impl>(std::move(path))) {
  guard_ = std::make_shared<PolicyGuard>(impl_->read(), std::move(options));
  impl_->watch(guard_, interval);
}

PolicyFile::~PolicyFile() = default;

bool PolicyFile::reload() { return impl_->look(); }

std::string PolicyFile::error() const { return impl_->error(); }

}  // namespace VornSdkRpc
