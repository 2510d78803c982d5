#pragma once

#include <vorn/export.h>

#include <string_view>
#include <vector>

// Picks an agent's own options out of its command line, and leaves the rest to be handed on.
//
//   auto args = VornSdkRpc::argv::vectorize(argc, argv);
//   const auto name = VornSdkRpc::argv::getOptionValue(args, "--name", "agent");
//   const bool verbose = VornSdkRpc::argv::isOptionPresent(args, "--verbose");
//
// An element is an option when it is the same text, byte for byte: there are no prefixes, and an
// option and its value are two elements. The first such element counts; the others keep their
// order.
namespace VornSdkRpc::argv {

// The first `count` pointers of an argument array, the process's name included. Throws
// std::length_error when the count is negative.
VORN_EXPORT std::vector<char*> vectorize(int count, char** arguments);

// The element behind the option, whatever it looks like; both are removed. It is a view of the
// process's own argument. Returns `defaultValue` when the option is absent, and when it is the last
// element, which is then removed all the same.
VORN_EXPORT std::string_view getOptionValue(std::vector<char*>& arguments, std::string_view option,
                                            std::string_view defaultValue);

// Whether the option is there; the first one is removed.
VORN_EXPORT bool isOptionPresent(std::vector<char*>& arguments, const std::string_view& option);

}  // namespace VornSdkRpc::argv
