#include <Kiv/FileSink.h>
#include <Kiv/Log.h>
#include <VornSdkRpc/CallJson.h>
#include <VornSdkRpc/CallSink.h>
#include <VornSdkRpc/InstallAccounting.h>
#include <grpcpp/support/server_interceptor.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>

#include "bench/EchoServers.h"

namespace bench {

namespace {

using grpc::experimental::InterceptionHookPoints;

class LineInterceptor : public grpc::experimental::Interceptor {
 public:
  LineInterceptor(grpc::experimental::ServerRpcInfo* info, spdlog::logger& logger)
      : info_(info), logger_(logger) {}

  void Intercept(grpc::experimental::InterceptorBatchMethods* methods) override {
    if (methods->QueryInterceptionHookPoint(InterceptionHookPoints::PRE_SEND_STATUS)) {
      logger_.info("peer: {}, rpc: {}, status: {}", info_->server_context()->peer(),
                   info_->method(), static_cast<int>(methods->GetSendStatus().error_code()));
    }
    methods->Proceed();
  }

 private:
  grpc::experimental::ServerRpcInfo* info_;
  spdlog::logger& logger_;
};

class LineInterceptorFactory : public grpc::experimental::ServerInterceptorFactoryInterface {
 public:
  explicit LineInterceptorFactory(const std::string& file)
      : logger_(spdlog::basic_logger_mt<spdlog::async_factory>("accounting", file, true)) {}

  grpc::experimental::Interceptor* CreateServerInterceptor(
      grpc::experimental::ServerRpcInfo* info) override {
    return new LineInterceptor(info, *logger_);
  }

 private:
  std::shared_ptr<spdlog::logger> logger_;
};

void logTo(const std::string& file) {
  Kiv::platformLogger().sinks() = {std::make_shared<Kiv::FileSink>(file)};
}

}  // namespace

void accountThroughLibrary(grpc::ServerBuilder& builder, const std::string& file) {
  logTo(file);
  VornSdkRpc::installAccounting(builder);
}

Recording::Recording(grpc::ServerBuilder& builder, const std::string& to, bool metrics) {
  const auto colon = to.find(':');
  const auto file = to.substr(colon + 1);
  if (to.substr(0, colon) == "json") {
    calls_.add(std::make_unique<VornSdkRpc::CallJsonFile>(file));
  } else {
    logTo(file);
    calls_.add(VornSdkRpc::accountingLines());
  }
  if (metrics) metrics_.count(calls_);
  calls_.install(builder);
}

void accountThroughSpdlog(grpc::ServerBuilder& builder, const std::string& file) {
  std::vector<std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface>> creators;
  creators.push_back(std::make_unique<LineInterceptorFactory>(file));
  builder.experimental().SetInterceptorCreators(std::move(creators));
}

}  // namespace bench
