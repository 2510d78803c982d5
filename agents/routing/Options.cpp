#include "agents/routing/Options.h"

#include <VornSdkRpc/Argv.h>
#include <grp.h>
#include <toml++/toml.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string_view>

namespace routing_agent {

namespace {

using Values = std::vector<std::string>;  // never empty; one, unless the option may be repeated

// One option, on the command line and in the configuration file.
struct Option {
  std::string_view name;      // with dashes; a key of the file has none
  std::string_view argument;  // what the help calls its value; empty for a switch. A number in the
                              // file for NUMBER and SECONDS, and a text for all others
  std::string_view help;      // its lines
  // Throws UsageError, without the option's name.
  void (*set)(Options& options, const Values& values);
  bool repeats = false;
  bool inFile = true;
};

int number(const std::string& text, int min, int max) {
  int result = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
  if (error != std::errc() || end != text.data() + text.size() || result < min || result > max) {
    throw UsageError("takes a number from " + std::to_string(min) + " to " + std::to_string(max));
  }
  return result;
}

mode_t mode(const std::string& text) {
  unsigned result = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result, 8);
  if (error != std::errc() || end != text.data() + text.size() || result > 0777)
    throw UsageError("takes permissions in octal, such as 0660");
  return result;
}

gid_t group(const std::string& name) {
  if (const ::group* const found = getgrnam(name.c_str())) return found->gr_gid;
  if (name.find_first_not_of("0123456789") == name.npos)
    return static_cast<gid_t>(number(name, 0, std::numeric_limits<int>::max()));
  throw UsageError("names a group that is not there: " + name);
}

LogFormat logFormat(const std::string& name) {
  if (name == "text") return LogFormat::kText;
  if (name == "json") return LogFormat::kJson;
  throw UsageError("is text or json");
}

void checkPlace(const std::string& place) try {
  checkAccountingPlace(place);
} catch (const std::invalid_argument& error) {
  throw UsageError(error.what());
}

// In the order of the help.
const Option kOptions[] = {
    {"--listen", "ADDRESS",
     "where to listen: HOST:PORT or unix:PATH; may be given again, and\n"
     "adds to the sockets that the service manager hands over\n"
     "(default: 127.0.0.1:50051 where there are none)",
     [](Options& options, const Values& values) { options.listen = values; }, true},
    {"--socket-mode", "MODE",
     "permissions of the Unix sockets that the agent makes, in octal,\n"
     "such as 0660 (default: 0600)",
     [](Options& options, const Values& values) { options.sockets.mode = mode(values[0]); }},
    {"--socket-group", "NAME", "their group, a name or a number (default: the agent's)",
     [](Options& options, const Values& values) { options.sockets.group = group(values[0]); }},
    {"--netns", "NAME", "listen in this network namespace, as `ip netns` knows it",
     [](Options& options, const Values& values) { options.netns = values[0]; }},
    {"--program-kernel", "",
     "program IP routes into the kernel of that namespace as well,\n"
     "and remove them at a clean stop; one agent a namespace does",
     [](Options& options, const Values&) { options.programKernel = true; }},
    {"--kernel-grace", "SECONDS",
     "how long routes of an earlier run that are still in the kernel\n"
     "are kept for clients to set them again (default: 60)",
     [](Options& options, const Values& values) {
       options.kernelGrace = std::chrono::seconds(number(values[0], 0, 86400));
     }},
    {"--keep-routes", "", "leave the routes in the kernel at a clean stop as well",
     [](Options& options, const Values&) { options.keepRoutes = true; }},
    {"--state", "FILE",
     "keep what clients have set in this file, so that it is there\n"
     "again after a restart, also after a kill (default: it is not)",
     [](Options& options, const Values& values) { options.stateFile = values[0]; }},
    {"--step-ms", "NUMBER",
     "programming 64 changes takes this long, as on slow\n"
     "hardware (default: 0)",
     [](Options& options, const Values& values) {
       options.stepTime = std::chrono::milliseconds(number(values[0], 0, 1000));
     }},
    {"--backlog-mib", "NUMBER",
     "mebibytes of changes that may wait to be programmed; then\n"
     "streams are held up and single changes refused (default: 64)",
     [](Options& options, const Values& values) {
       options.backlogMib = static_cast<std::size_t>(number(values[0], 1, 1 << 20));
     }},
    {"--table-mib", "NUMBER",
     "mebibytes that routes and all else that is set may take, about;\n"
     "what would be added beyond that is refused; 0 is any number\n"
     "(default: 0)",
     [](Options& options, const Values& values) {
       options.tableMib = static_cast<std::size_t>(number(values[0], 0, 1 << 20));
     }},
    {"--tls-cert", "FILE", "the agent's certificate, its private key, and the authorities",
     [](Options& options, const Values& values) { options.identity.tlsCert = values[0]; }},
    {"--tls-key", "FILE", "whose client certificates are accepted, all PEM: TCP callers",
     [](Options& options, const Values& values) { options.identity.tlsKey = values[0]; }},
    {"--client-ca", "FILE", "then need TLS with a client certificate",
     [](Options& options, const Values& values) { options.identity.clientCa = values[0]; }},
    {"--client-crl", "FILE", "lists of revoked client certificates, PEM",
     [](Options& options, const Values& values) { options.identity.revoked = values[0]; }},
    {"--policy", "FILE",
     "who may call what, in gRPC's authorization format; this and the\n"
     "TLS files are read again when they change (default: everybody\n"
     "everything)",
     [](Options& options, const Values& values) { options.identity.policy = values[0]; }},
    {"--policy-dry-run", "", "the policy denies nothing, and only tells what it would",
     [](Options& options, const Values&) { options.identity.policyDryRun = true; }},
    {"--local-credentials", "",
     "callers on a loopback address are told apart by what they say\n"
     "they are (on a Unix socket, the kernel proves who they are)",
     [](Options& options, const Values&) { options.identity.loopback = true; }},
    {"--keepalive-ms", "NUMBER",
     "a peer that has been silent for so long is pinged, and given up\n"
     "when it does not answer within a second (default: 10000)",
     [](Options& options, const Values& values) {
       options.keepalive = std::chrono::milliseconds(number(values[0], 100, 3600000));
     }},
    {"--grace", "SECONDS",
     "what SIGTERM and SIGINT give the calls in progress: new ones are\n"
     "refused at once, and the second signal stops the agent at once\n"
     "(default: 0)",
     [](Options& options, const Values& values) {
       options.grace = std::chrono::seconds(number(values[0], 0, 86400));
     }},
    {"--peer-connections", "NUMBER",
     "connections that one address, or one user of a Unix socket, may\n"
     "have open; 0 is any number (default: 256)",
     [](Options& options, const Values& values) {
       options.peerConnections = static_cast<std::size_t>(number(values[0], 0, 1 << 20));
     }},
    {"--accounting", "WHERE",
     "where the record of every call goes: line, a line of the log;\n"
     "json:FILE; journal, with a field each; may be given again\n"
     "(default: line)",
     [](Options& options, const Values& values) {
       for (const auto& place : values)
         checkPlace(place);
       options.accounting.to = values;
     },
     true},
    {"--accounting-mib", "NUMBER",
     "mebibytes that records may take; beyond that the oldest that\n"
     "are not written yet are lost, and counted; 0 is any number\n"
     "(default: 0)",
     [](Options& options, const Values& values) {
       options.accounting.memoryMib = static_cast<std::size_t>(number(values[0], 0, 1 << 20));
     }},
    {"--accounting-history-mib", "NUMBER",
     "mebibytes of records that are kept for those who watch them\n"
     "(default: 4)",
     [](Options& options, const Values& values) {
       options.accounting.historyMib = static_cast<std::size_t>(number(values[0], 0, 1 << 20));
     }},
    {"--no-accounting", "", "make no record of calls",
     [](Options& options, const Values&) { options.accounting.to.clear(); }},
    {"--metrics", "ADDRESS",
     "serve figures for Prometheus over HTTP on HOST:PORT, or on PORT\n"
     "of 127.0.0.1",
     [](Options& options, const Values& values) { options.figures.address = values[0]; }},
    {"--metrics-file", "FILE", "write them every 10 s to this file, for the node exporter",
     [](Options& options, const Values& values) { options.figures.file = values[0]; }},
    {"--log", "FILE",
     "write the log to this file, - for standard error (default:\n"
     "syslog where there is one, standard error otherwise)",
     [](Options& options, const Values& values) { options.log = values[0]; }},
    {"--log-format", "FORMAT",
     "text, or json: a JSON object a line, of the log and of the trace\n"
     "(default: text)",
     [](Options& options, const Values& values) { options.logFormat = logFormat(values[0]); }},
    {"--trace", "SETTING",
     "trace levels by name, on standard error, such as\n"
     "\"GrpcServer/8,Routing-service/8\"",
     [](Options& options, const Values& values) { options.trace = values[0]; }},
    {"--check-config", "",
     "say whether the agent could start with these options and\n"
     "files, and exit",
     [](Options& options, const Values&) { options.checkConfig = true; }, false, false},
    {"--version", "", "print the version and exit",
     [](Options& options, const Values&) { options.version = true; }, false, false},
    {"--help", "", "this text; so does -h",
     [](Options& options, const Values&) { options.help = true; }, false, false},
};

void apply(const Option& option, const Values& values, const std::string& name,
           Options& options) try {
  option.set(options, values);
} catch (const UsageError& error) {
  throw UsageError(name + " " + error.what());
}

// ------------------------------------------------------------------------------------------------
// The command line

// The value of an option, which is removed; empty when it isn't there.
std::string value(std::vector<char*>& arguments, std::string_view option) {
  const auto before = arguments.size();
  const std::string_view found = VornSdkRpc::argv::getOptionValue(arguments, option, {});
  const bool given = arguments.size() != before;
  if (given && (found.empty() || found.starts_with("--"))) {
    throw UsageError(std::string(option) + " needs a value");
  }
  return std::string(found);
}

Values valuesOf(const Option& option, std::vector<char*>& arguments) {
  Values values;
  if (option.argument.empty()) {
    if (VornSdkRpc::argv::isOptionPresent(arguments, option.name)) values.emplace_back();
    return values;
  }
  do {
    std::string given = value(arguments, option.name);
    if (given.empty()) break;
    values.push_back(std::move(given));
  } while (option.repeats);
  return values;
}

// ------------------------------------------------------------------------------------------------
// The configuration file

[[noreturn]] void refuse(const std::string& source, const toml::source_region& place,
                         const std::string& why) {
  throw UsageError(source + ":" + std::to_string(place.begin.line) + ": " + why);
}

std::string scalarOf(const Option& option, const toml::node& node) {
  if (option.argument == "NUMBER" || option.argument == "SECONDS") {
    const auto integer = node.value_exact<std::int64_t>();
    if (!integer) throw UsageError("takes a number");
    return std::to_string(*integer);
  }
  const auto text = node.value_exact<std::string>();
  if (!text) throw UsageError("takes a text in double quotes");
  if (text->empty()) throw UsageError("needs a value");
  if (text->find('\0') != std::string::npos) throw UsageError("has a NUL in it");
  return *text;
}

// Empty for a switch that is off.
Values valuesOf(const Option& option, const toml::node& node) {
  if (option.argument.empty()) {
    const auto on = node.value_exact<bool>();
    if (!on) throw UsageError("takes true or false");
    return *on ? Values{""} : Values{};
  }
  const auto* list = node.as_array();
  if (!list || !option.repeats) return {scalarOf(option, node)};
  Values values;
  for (const auto& element : *list)
    values.push_back(scalarOf(option, element));
  if (values.empty()) throw UsageError("needs a value");
  return values;
}

std::string contentsOf(const std::string& file) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(file, error)) {
    throw UsageError("cannot read " + file + ": " +
                     (error ? error.message() : "it is no regular file"));
  }
  std::ifstream in(file, std::ios::binary);
  std::string text(std::istreambuf_iterator<char>(in), {});
  if (!in) throw UsageError("cannot read " + file + ": " + std::generic_category().message(errno));
  return text;
}

}  // namespace

void parseConfig(std::string_view text, const std::string& source, Options& options) {
  toml::table table;
  try {
    table = toml::parse(text);
  } catch (const toml::parse_error& error) {
    refuse(source, error.source(), std::string(error.description()));
  }
  for (const auto& [key, node] : table) {
    const std::string name(key.str());
    const auto option = std::ranges::find_if(
        kOptions, [&](const Option& one) { return one.inFile && one.name.substr(2) == name; });
    if (option == std::end(kOptions)) refuse(source, key.source(), "unknown key " + name);
    try {
      const Values values = valuesOf(*option, node);
      if (!values.empty()) option->set(options, values);
    } catch (const UsageError& error) {
      refuse(source, key.source(), name + " " + error.what());
    }
  }
}

Options parseOptions(int argc, char** argv) {
  auto arguments = VornSdkRpc::argv::vectorize(argc, argv);
  Options options;
  if (const std::string file = value(arguments, "--config"); !file.empty()) {
    parseConfig(contentsOf(file), file, options);
  }
  options.help = VornSdkRpc::argv::isOptionPresent(arguments, "-h");
  for (const Option& option : kOptions) {
    const Values values = valuesOf(option, arguments);
    if (!values.empty()) apply(option, values, std::string(option.name), options);
  }
  if (arguments.size() > 1) throw UsageError(std::string("unknown option ") + arguments[1]);
  return options;
}

std::string version() { return "routing_agent " ROUTING_AGENT_VERSION "\n"; }

std::string help() {
  constexpr std::size_t kColumn = 23;
  std::string text =
      "Keeps routing tables and serves them over gRPC.\n\n"
      "usage: routing_agent [OPTION...]\n\n"
      "  --config FILE        read options from this file, in TOML: a key is an option\n"
      "                       without its dashes, a switch is true or false; the command\n"
      "                       line replaces what it says\n";
  for (const Option& option : kOptions) {
    std::string line = "  " + std::string(option.name);
    if (!option.argument.empty()) line.append(" ").append(option.argument);
    if (line.size() >= kColumn - 1) line += "\n";
    const auto begin = line.rfind('\n') + 1;
    line.append(kColumn - (line.size() - begin), ' ');
    for (const char c : option.help) {
      line += c;
      if (c == '\n') line.append(kColumn, ' ');
    }
    text += line + "\n";
  }
  return text + R"(
SIGINT and SIGTERM stop the agent. SIGHUP has it open its log and record files again, for logrotate,
and read the trace setting of the configuration file. It exits with 0 after a clean stop, with 2 when an
option is wrong or it can't listen, and with 1 when something else fails.
)";
}

}  // namespace routing_agent
