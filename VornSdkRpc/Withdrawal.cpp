#include <VornSdkRpc/Withdrawal.h>

#include <grpcpp/server_context.h>

#include <exception>
#include <utility>
#include <vector>

namespace VornSdkRpc {

namespace {

constexpr char kCertificate[] = GRPC_X509_PEM_CERT_PROPERTY_NAME;
constexpr char kChain[] = GRPC_X509_PEM_CERT_CHAIN_PROPERTY_NAME;
constexpr char kRefusal[] = "the client certificate is no longer accepted";

// More than a server has clients; then they are verified anew.
constexpr std::size_t kVerdictsMax = 10000;

grpc::string_ref first(const std::vector<grpc::string_ref>& values) {
  return values.empty() ? grpc::string_ref() : values.front();
}

grpc::string_ref first(const grpc_auth_context* connection, const char* name) {
  auto values = grpc_auth_context_find_properties_by_name(connection, name);
  const auto* const value = grpc_auth_property_iterator_next(&values);
  return value ? grpc::string_ref(value->value, value->value_length) : grpc::string_ref();
}

bool isAccepted(grpc_call* call, Accepted& accepted) {
  auto* const connection = grpc_call_auth_context(call);
  if (connection == nullptr) return true;
  const bool is = accepted.accepts(first(connection, kCertificate), first(connection, kChain));
  grpc_auth_context_release(connection);
  return is;
}

}  // namespace

bool Accepted::accepts(const grpc::string_ref& certificate, const grpc::string_ref& chain) {
  if (certificate.empty()) return true;
  const vorn::lock_guard lock(mutex_);
  const auto [verdict, added] =
      verdicts_.try_emplace(std::string(certificate.data(), certificate.size()));
  if (!added) return verdict->second;
  const bool accepted =
      set_->accepts({certificate.data(), certificate.size()}, {chain.data(), chain.size()});
  verdict->second = accepted;
  if (verdicts_.size() > kVerdictsMax) verdicts_.clear();
  return accepted;
}

std::size_t Withdrawal::withdraw(std::shared_ptr<const CertificateSet> set) {
  const auto accepted = std::make_shared<Accepted>(std::move(set));
  std::vector<grpc_call*> calls;
  {
    const vorn::lock_guard lock(mutex_);
    accepted_ = accepted;
    any_ = true;
    calls.assign(calls_.begin(), calls_.end());
    for (grpc_call* call : calls)
      grpc_call_ref(call);
  }
  std::size_t ended = 0;
  for (grpc_call* call : calls) {
    if (!isAccepted(call, *accepted)) {
      grpc_call_cancel_with_status(call, GRPC_STATUS_UNAUTHENTICATED, kRefusal, nullptr);
      ++ended;
    }
    grpc_call_unref(call);
  }
  return ended;
}

grpc::Status Withdrawal::admit(const grpc::AuthContext& connection) const {
  if (!any_) return grpc::Status::OK;
  const bool accepted =
      this->accepted()->accepts(first(connection.FindPropertyValues(kCertificate)),
                                first(connection.FindPropertyValues(kChain)));
  if (accepted) return grpc::Status::OK;
  return {grpc::StatusCode::UNAUTHENTICATED, kRefusal};
}

std::shared_ptr<Accepted> Withdrawal::accepted() const {
  const vorn::lock_guard lock(mutex_);
  return accepted_;
}

void Withdrawal::add(grpc_call* call) {
  const vorn::lock_guard lock(mutex_);
  calls_.insert(call);
  grpc_call_ref(call);
}

void Withdrawal::drop(grpc_call* call) {
  {
    const vorn::lock_guard lock(mutex_);
    calls_.erase(call);
  }
  grpc_call_unref(call);
}

namespace {

class Withdrawing : public grpc::AuthMetadataProcessor {
 public:
  Withdrawing(std::shared_ptr<const Withdrawal> withdrawal,
              std::shared_ptr<grpc::AuthMetadataProcessor> processor)
      : withdrawal_(std::move(withdrawal)), processor_(std::move(processor)) {}

  bool IsBlocking() const override { return processor_ && processor_->IsBlocking(); }

  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                       OutputMetadata* consumed, OutputMetadata* response) override try {
    auto status = withdrawal_->admit(*connection);
    if (!status.ok() || !processor_) return status;
    return processor_->Process(metadata, connection, consumed, response);
  } catch (const std::exception&) {
    return {grpc::StatusCode::INTERNAL, "internal error"};
  }

 private:
  const std::shared_ptr<const Withdrawal> withdrawal_;
  const std::shared_ptr<grpc::AuthMetadataProcessor> processor_;
};

// From a call's beginning until gRPC destroys it with the call.
class Tracked : public grpc::experimental::Interceptor {
 public:
  Tracked(std::shared_ptr<Withdrawal> withdrawal, grpc::experimental::ServerRpcInfo* info)
      : withdrawal_(std::move(withdrawal)), info_(info) {}
  ~Tracked() override {
    if (call_) withdrawal_->drop(call_);
  }
  Tracked(const Tracked&) = delete;
  Tracked& operator=(const Tracked&) = delete;

  void Intercept(grpc::experimental::InterceptorBatchMethods* methods) override {
    if (!call_ && methods->QueryInterceptionHookPoint(
                      grpc::experimental::InterceptionHookPoints::POST_RECV_INITIAL_METADATA)) {
      call_ = info_->server_context()->c_call();
      if (call_) withdrawal_->add(call_);
    }
    methods->Proceed();
  }

 private:
  const std::shared_ptr<Withdrawal> withdrawal_;
  grpc::experimental::ServerRpcInfo* const info_;
  grpc_call* call_ = nullptr;
};

class Tracking : public grpc::experimental::ServerInterceptorFactoryInterface {
 public:
  explicit Tracking(std::shared_ptr<Withdrawal> withdrawal) : withdrawal_(std::move(withdrawal)) {}

  grpc::experimental::Interceptor* CreateServerInterceptor(
      grpc::experimental::ServerRpcInfo* info) override {
    return new Tracked(withdrawal_, info);
  }

 private:
  const std::shared_ptr<Withdrawal> withdrawal_;
};

}  // namespace

std::shared_ptr<grpc::AuthMetadataProcessor> withdrawing(
    std::shared_ptr<const Withdrawal> withdrawal,
    std::shared_ptr<grpc::AuthMetadataProcessor> processor) {
  return std::make_shared<Withdrawing>(std::move(withdrawal), std::move(processor));
}

std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface> tracking(
    std::shared_ptr<Withdrawal> withdrawal) {
  return std::make_unique<Tracking>(std::move(withdrawal));
}

}  // namespace VornSdkRpc
