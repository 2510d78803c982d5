#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "agents/routing/Identity.h"

namespace routing_agent {

// What the command line says.
struct Options {
  std::vector<std::string> listen;  // addresses, as gRPC writes them
  std::string netns;                // network namespace to listen in; empty: the agent's own
  IdentityOptions identity;
  bool accounting = true;
  bool programKernel = false;
  std::chrono::milliseconds stepTime{0};  // what programming a step takes
  std::size_t backlogMib = 64;            // mebibytes of changes that may wait to be programmed
  int keepaliveMs = 10000;                // silence after which a peer is asked whether it lives
  // File of the platform log, "-" for standard error; empty: the platform's default.
  std::string log;
  std::string trace;  // trace setting
  bool help = false;
};

// A command line that can't be followed. what() is one line for the user.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The text of --help.
extern const char* const kHelp;

// Reads the command line. Throws UsageError.
Options parseOptions(int argc, char** argv);

}  // namespace routing_agent
