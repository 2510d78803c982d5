#include <VornSdkRpc/Argv.h>

#include <algorithm>
#include <stdexcept>

namespace VornSdkRpc::argv {

namespace {

// The string_view comparison looks at the lengths first.
auto findOption(std::vector<char*>& arguments, std::string_view option) {
  return std::ranges::find_if(arguments, [&](const char* argument) { return option == argument; });
}

}  // namespace

std::vector<char*> vectorize(int count, char** arguments) {
  if (count < 0) throw std::length_error("cannot create std::vector larger than max_size()");
  return {arguments, arguments + count};
}

std::string_view getOptionValue(std::vector<char*>& arguments, std::string_view option,
                                std::string_view defaultValue) {
  auto place = findOption(arguments, option);
  if (place == arguments.end()) return defaultValue;
  place = arguments.erase(place);
  if (place == arguments.end()) return defaultValue;
  const std::string_view value = *place;
  arguments.erase(place);
  return value;
}

bool isOptionPresent(std::vector<char*>& arguments, const std::string_view& option) {
  const auto place = findOption(arguments, option);
  if (place == arguments.end()) return false;
  arguments.erase(place);
  return true;
}

}  // namespace VornSdkRpc::argv
