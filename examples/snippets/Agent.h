#pragma once

#include <functional>
#include <string>

#include "examples/snippets/RouteService.h"

namespace snippets {

// What the agent's command line says.
struct Options {
  std::string netns;
  std::string socket;  // of the Unix socket to listen on
};

// Throws vorn::invalid_argument_error when there is not one socket file.
Options parse(int argc, char** argv);

// Serves routes, changes of them and naps until it is stopped by a signal. `client` is called once
// the agent listens, on a thread of its own.
void serve(const Options& options, RouteTable& table, const std::function<void()>& client);

}  // namespace snippets
