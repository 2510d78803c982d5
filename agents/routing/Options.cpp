#include "agents/routing/Options.h"

#include <VornSdkRpc/Argv.h>

#include <charconv>
#include <string_view>

namespace routing_agent {

const char* const kHelp = R"(Keeps routing tables and serves them over gRPC.

usage: routing_agent [OPTION...]

  --listen ADDRESS     where to listen: HOST:PORT or unix:PATH; may be given again
                       (default: 127.0.0.1:50051)
  --netns NAME         listen in this network namespace, as `ip netns` knows it
  --program-kernel     program IP routes into the kernel of that namespace as well,
                       and remove them at a clean stop
  --step-ms NUMBER     programming a step of 64 changes takes this long, as on slow
                       hardware (default: 0)
  --backlog-mib NUMBER
                       mebibytes of changes that may wait to be programmed; then
                       streams are held up and single changes refused (default: 64)
  --tls-cert FILE      the agent's certificate, its private key, and the authorities
  --tls-key FILE       whose client certificates are accepted, all PEM: TCP callers
  --client-ca FILE     then need TLS with a client certificate
  --local-credentials  callers on a loopback address are told apart by gRPC's local
                       credentials, as those on a Unix socket always are
  --keepalive-ms NUMBER
                       a peer that has been silent for so long is pinged, and given up
                       when it does not answer within a second (default: 10000)
  --no-accounting      do not write a log record for every call
  --log FILE           write the log to this file, - for standard error (default:
                       syslog where there is one, standard error otherwise)
  --trace SETTING      trace levels by name, on standard error, such as
                       "GrpcServer/8,Routing-service/8"
  --help               this text

SIGINT and SIGTERM stop the agent. It exits with 0 after a clean stop, with 2 when an
option is wrong or it can't listen, and with 1 when something else fails.
)";

namespace {

// The value of an option that is given at most once more; empty when it isn't.
std::string value(std::vector<char*>& arguments, std::string_view option) {
  const auto before = arguments.size();
  const std::string_view found = VornSdkRpc::argv::getOptionValue(arguments, option, {});
  const bool given = arguments.size() != before;
  if (given && (found.empty() || found.starts_with("--"))) {
    throw UsageError(std::string(option) + " needs a value");
  }
  return std::string(found);
}

// The same for a number; `missing` when it isn't given.
int number(std::vector<char*>& arguments, std::string_view option, int missing, int min, int max) {
  const std::string text = value(arguments, option);
  if (text.empty()) return missing;
  int result = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
  if (error != std::errc() || end != text.data() + text.size() || result < min || result > max) {
    throw UsageError(std::string(option) + " takes a number from " + std::to_string(min) + " to " +
                     std::to_string(max));
  }
  return result;
}

}  // namespace

Options parseOptions(int argc, char** argv) {
  using VornSdkRpc::argv::isOptionPresent;
  auto arguments = VornSdkRpc::argv::vectorize(argc, argv);
  Options options;
  options.help = isOptionPresent(arguments, "--help");
  for (auto address = value(arguments, "--listen"); !address.empty();
       address = value(arguments, "--listen")) {
    options.listen.push_back(address);
  }
  if (options.listen.empty()) options.listen = {"127.0.0.1:50051"};
  options.netns = value(arguments, "--netns");
  options.programKernel = isOptionPresent(arguments, "--program-kernel");
  options.stepTime = std::chrono::milliseconds(number(arguments, "--step-ms", 0, 0, 1000));
  options.backlogMib = static_cast<std::size_t>(number(arguments, "--backlog-mib", 64, 1, 1 << 20));
  options.keepaliveMs = number(arguments, "--keepalive-ms", options.keepaliveMs, 100, 3600000);
  options.identity.tlsCert = value(arguments, "--tls-cert");
  options.identity.tlsKey = value(arguments, "--tls-key");
  options.identity.clientCa = value(arguments, "--client-ca");
  options.identity.loopback = isOptionPresent(arguments, "--local-credentials");
  options.accounting = !isOptionPresent(arguments, "--no-accounting");
  options.log = value(arguments, "--log");
  options.trace = value(arguments, "--trace");
  if (arguments.size() > 1) throw UsageError(std::string("unknown option ") + arguments[1]);
  return options;
}

}  // namespace routing_agent
