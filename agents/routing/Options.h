#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "agents/routing/Accounting.h"
#include "agents/routing/Figures.h"
#include "agents/routing/Identity.h"
#include "agents/routing/LogFormat.h"

// What the agent is told at its start: by its command line, and by a configuration file whose keys
// are the command line's options without the dashes.
namespace routing_agent {

// Who may open the Unix sockets that the agent makes.
struct SocketOptions {
  mode_t mode = 0600;
  std::optional<gid_t> group;  // none: the agent's own

  bool operator==(const SocketOptions&) const = default;
};

struct Options {
  // Addresses, as gRPC writes them. None: the sockets that the service manager hands over, or else
  // 127.0.0.1:50051.
  std::vector<std::string> listen;
  SocketOptions sockets;
  std::string netns;  // network namespace to listen in; empty: the agent's own
  IdentityOptions identity;
  AccountingOptions accounting;
  FiguresOptions figures;
  bool programKernel = false;
  std::chrono::seconds kernelGrace{60};   // how long what was found in the kernel is kept
  bool keepRoutes = false;                // leave the routes in the kernel when the agent ends
  std::string stateFile;                  // keeps what clients have set; empty: nothing does
  std::chrono::milliseconds stepTime{0};  // what programming a step takes
  std::size_t backlogMib = 64;            // mebibytes of changes that may wait to be programmed
  std::size_t tableMib = 0;               // mebibytes that the tables may take; 0: any number
  // Silence after which a peer is asked whether it lives.
  std::size_t peerConnections = 256;  // of one address or local user; 0: any number
  std::chrono::milliseconds keepalive{10000};
  std::chrono::milliseconds grace{0};  // what calls in progress are given when the agent is stopped
  // File of the platform log, "-" for standard error; empty: the platform's default.
  std::string log;
  LogFormat logFormat = LogFormat::kText;
  std::string trace;         // trace setting
  bool help = false;         // print help() and exit
  bool version = false;      // print version() and exit
  bool checkConfig = false;  // say whether the agent could start like this, and exit

  bool operator==(const Options&) const = default;

  // The same, with the default trace setting.
  Options withoutTrace() const {
    Options others = *this;
    others.trace.clear();
    return others;
  }
};

// A command line or a configuration file that can't be followed. what() is one line for the user.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The text of --help, and that of --version.
std::string help();
std::string version();

// Reads the command line and, where it names one with --config, the configuration file. What the
// command line says replaces what the file says. Throws UsageError.
Options parseOptions(int argc, char** argv);

// Reads the text of a configuration file into `options`. `source` is what errors call it; they name
// its line as well. Throws UsageError.
void parseConfig(std::string_view text, const std::string& source, Options& options);

}  // namespace routing_agent
