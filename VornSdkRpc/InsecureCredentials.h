#pragma once

#include <grpcpp/security/auth_metadata_processor.h>
#include <grpcpp/security/server_credentials.h>
#include <vorn/export.h>

#include <memory>

namespace VornSdkRpc {

// Credentials without transport security whose calls pass a processor all the same, so that an
// address without TLS can have an identity check or a policy too. (gRPC's own
// InsecureServerCredentials() take none: they abort the process.) The processor sees every call of
// every service and may refuse it; a call that it refuses reaches no service and no interceptor.
// gRPC calls it on any thread and waits for it there, so IsBlocking() must be false:
// std::invalid_argument otherwise. An exception of its own refuses the call with INTERNAL.
//
// Without a processor, calls pass until SetAuthMetadataProcessor() sets one, which is to be done
// before the server is built.
VORN_EXPORT std::shared_ptr<grpc::ServerCredentials> insecureServerCredentials(
    std::shared_ptr<grpc::AuthMetadataProcessor> processor = nullptr);

}  // namespace VornSdkRpc
