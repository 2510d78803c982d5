// A run of what the agent author's guide quotes: an agent on a Unix socket, one call of every kind,
// and a stop. Exits with 0 when each did as the guide says.
//
//   snippets SOCKET-FILE [--netns NAME] [--trace SETTING]    (writes agent.log, policy.json and
//   calls.json)
#include <iostream>

#include "examples/snippets/Agent.h"
#include "examples/snippets/Calls.h"
#include "examples/snippets/Client.h"

int main(int argc, char** argv) {
  try {
    const auto options = snippets::parse(argc, argv);
    snippets::RouteTable table;
    snippets::serve(options, table, [&] { snippets::callEverything("unix:" + options.socket); });
    snippets::recordCalls("unix:" + options.socket + ".recorded");
    return 0;
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
}
