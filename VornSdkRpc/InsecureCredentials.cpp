#include <VornSdkRpc/InsecureCredentials.h>

#include <grpc/grpc.h>
#include <grpc/grpc_security.h>

#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace VornSdkRpc {

namespace {

using Processor = std::shared_ptr<grpc::AuthMetadataProcessor>;

// A connection's properties, as a processor reads and adds them.
class Connection : public grpc::AuthContext {
 public:
  explicit Connection(grpc_auth_context* context) : context_(context) {}

  bool IsPeerAuthenticated() const override {
    return grpc_auth_context_peer_is_authenticated(context_) != 0;
  }
  std::vector<grpc::string_ref> GetPeerIdentity() const override {
    return valuesOf(grpc_auth_context_peer_identity(context_));
  }
  std::string GetPeerIdentityPropertyName() const override {
    const char* const name = grpc_auth_context_peer_identity_property_name(context_);
    return name == nullptr ? "" : name;
  }
  std::vector<grpc::string_ref> FindPropertyValues(const std::string& name) const override {
    return valuesOf(grpc_auth_context_find_properties_by_name(context_, name.c_str()));
  }
  grpc::AuthPropertyIterator begin() const override {
    auto next = grpc_auth_context_property_iterator(context_);
    const auto* const first = grpc_auth_property_iterator_next(&next);
    return Iterator(first, &next);
  }
  grpc::AuthPropertyIterator end() const override { return Iterator(); }
  void AddProperty(const std::string& key, const grpc::string_ref& value) override {
    grpc_auth_context_add_property(context_, key.c_str(), value.data(), value.size());
  }
  bool SetPeerIdentityPropertyName(const std::string& name) override {
    return grpc_auth_context_set_peer_identity_property_name(context_, name.c_str()) != 0;
  }

 private:
  // gRPC's iterator, which only classes that derive from it can make.
  struct Iterator : grpc::AuthPropertyIterator {
    Iterator() = default;
    Iterator(const grpc_auth_property* property, const grpc_auth_property_iterator* next)
        : AuthPropertyIterator(property, next) {}
  };

  static std::vector<grpc::string_ref> valuesOf(grpc_auth_property_iterator next) {
    std::vector<grpc::string_ref> values;
    while (const auto* property = grpc_auth_property_iterator_next(&next))
      values.emplace_back(property->value, property->value_length);
    return values;
  }

  grpc_auth_context* context_;
};

grpc::string_ref textOf(const grpc_slice& slice) {
  return {reinterpret_cast<const char*>(GRPC_SLICE_START_PTR(slice)), GRPC_SLICE_LENGTH(slice)};
}

// Metadata as gRPC's core takes it; the texts stay the map's.
std::vector<grpc_metadata> metadataOf(const grpc::AuthMetadataProcessor::OutputMetadata& texts) {
  std::vector<grpc_metadata> metadata;
  for (const auto& [key, value] : texts) {
    metadata.push_back({});
    metadata.back().key = grpc_slice_from_static_buffer(key.data(), key.size());
    metadata.back().value = grpc_slice_from_static_buffer(value.data(), value.size());
  }
  return metadata;
}

void process(void* state, grpc_auth_context* context, const grpc_metadata* sent, std::size_t count,
             grpc_process_auth_metadata_done_cb done, void* call) {
  grpc::AuthMetadataProcessor::OutputMetadata consumed;
  grpc::AuthMetadataProcessor::OutputMetadata response;
  grpc::Status status;
  try {
    grpc::AuthMetadataProcessor::InputMetadata metadata;
    for (std::size_t i = 0; i < count; ++i)
      metadata.emplace(textOf(sent[i].key), textOf(sent[i].value));
    Connection connection(context);
    status =
        (*static_cast<Processor*>(state))->Process(metadata, &connection, &consumed, &response);
  } catch (const std::exception&) {
    done(call, nullptr, 0, nullptr, 0, GRPC_STATUS_INTERNAL, "internal error");
    return;
  }
  const auto consumedMetadata = metadataOf(consumed);
  const auto responseMetadata = metadataOf(response);
  done(call, consumedMetadata.data(), consumedMetadata.size(), responseMetadata.data(),
       responseMetadata.size(), static_cast<grpc_status_code>(status.error_code()),
       status.error_message().c_str());
}

void destroy(void* state) { delete static_cast<Processor*>(state); }

class InsecureCredentials : public grpc::ServerCredentials {
 public:
  ~InsecureCredentials() override { grpc_server_credentials_release(credentials_); }
  InsecureCredentials() = default;
  InsecureCredentials(const InsecureCredentials&) = delete;
  InsecureCredentials& operator=(const InsecureCredentials&) = delete;

  void SetAuthMetadataProcessor(const Processor& processor) override {
    if (processor->IsBlocking())
      throw std::invalid_argument("a processor of insecure credentials may not block");
    grpc_server_credentials_set_auth_metadata_processor(
        credentials_, {&process, &destroy, new Processor(processor)});
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): gRPC calls destroy()
  }

 private:
  int AddPortToServer(const std::string& address, grpc_server* server) override {
    return grpc_server_add_http2_port(server, address.c_str(), credentials_);
  }

  grpc_server_credentials* const credentials_ = grpc_insecure_server_credentials_create();
};

}  // namespace

std::shared_ptr<grpc::ServerCredentials> insecureServerCredentials(Processor processor) {
  auto credentials = std::make_shared<InsecureCredentials>();
  if (processor) credentials->SetAuthMetadataProcessor(processor);
  return credentials;
}

}  // namespace VornSdkRpc
