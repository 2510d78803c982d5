// Whatever words a command line holds: picking an option out of it leaves the others as they were,
// and the routing agent reads it or says why not. Nor does a configuration file matter.

#include <VornSdkRpc/Argv.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agents/routing/Options.h"
#include "fuzz/Require.h"

namespace {

using namespace VornSdkRpc;

using Words = std::vector<std::string>;

Words wordsOf(const std::string& text) {
  Words words{"routing_agent"};
  for (std::size_t begin = 0; begin < text.size();) {
    const auto end = std::min(text.find('\n', begin), text.size());
    words.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return words;
}

std::vector<char*> pointersTo(Words& words) {
  std::vector<char*> pointers;
  for (auto& word : words)
    pointers.push_back(word.data());
  return pointers;
}

// A word may hold a NUL, and ends there.
Words textsOf(const std::vector<char*>& pointers) { return {pointers.begin(), pointers.end()}; }

void checkArgv(Words words) {
  auto pointers = pointersTo(words);
  const Words before = textsOf(pointers);
  const std::string option = before.back();
  const auto place = std::ranges::find(before, option) - before.begin();

  Words expected = before;
  expected.erase(expected.begin() + place);
  auto rest = argv::vectorize(static_cast<int>(pointers.size()), pointers.data());
  require(argv::isOptionPresent(rest, option) && textsOf(rest) == expected);

  std::string value = "default";
  if (place < static_cast<std::ptrdiff_t>(expected.size())) {
    value = expected[static_cast<std::size_t>(place)];
    expected.erase(expected.begin() + place);
  }
  rest = pointers;
  require(argv::getOptionValue(rest, option, "default") == value && textsOf(rest) == expected);

  const std::string absent = option + "x";
  if (std::ranges::find(before, absent) != before.end()) return;
  rest = pointers;
  require(!argv::isOptionPresent(rest, absent) && rest == pointers);
  require(argv::getOptionValue(rest, absent, "default") == "default" && rest == pointers);
}

void checkOptions(Words words) {
  std::erase(words, "--config");  // the file is checkConfig's
  auto pointers = pointersTo(words);
  try {
    const auto options =
        routing_agent::parseOptions(static_cast<int>(pointers.size()), pointers.data());
    require(std::ranges::count(options.listen, "") == 0);
    require(options.stepTime.count() >= 0 && options.stepTime.count() <= 1000);
    require(options.keepalive.count() >= 100);
  } catch (const routing_agent::UsageError& error) {
    require(*error.what() != '\0');
  }
}

void checkConfig(const std::string& text) {
  routing_agent::Options options;
  try {
    routing_agent::parseConfig(text, "config", options);
    require(options.keepalive.count() >= 100);
  } catch (const routing_agent::UsageError& error) {
    require(std::string_view(error.what()).starts_with("config:"));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const Words words = wordsOf(text);
  checkArgv(words);
  checkOptions(words);
  checkConfig(text);
  return 0;
}
