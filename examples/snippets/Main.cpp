// A run of what the agent author's guide quotes: an agent on a Unix socket, one call of every kind,
// a stop, and a backlog. Exits with 0 when each did as the guide says.
//
//   snippets SOCKET-FILE [--netns NAME] [--trace SETTING]    (writes agent.log and policy.json)
#include <iostream>

#include "examples/snippets/Agent.h"
#include "examples/snippets/Client.h"
#include "examples/snippets/RouteBacklog.h"

namespace {

void drains(snippets::RouteTable& table) {
  const Velm::Ptr<Tarsk::TaskScheduler> scheduler(new Tarsk::TaskScheduler("scheduler"));
  snippets::RouteBacklog backlog(scheduler, table);
  const std::size_t before = table.size();
  for (int i = 0; i < 100; ++i)
    backlog.add({});
  int steps = 0;
  while (scheduler->runOne())
    ++steps;
  snippets::require(steps == 2 && table.after(before).size() == 100,
                    "a backlog is drained in two steps");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const auto options = snippets::parse(argc, argv);
    snippets::RouteTable table;
    snippets::serve(options, table, [&] { snippets::callEverything("unix:" + options.socket); });
    drains(table);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
}
