// Everything of these classes is defined here and nowhere else, so that an agent's shared objects,
// whatever symbols they hide, all use the library's type information and virtual tables.
#include <vorn/error.h>

#include <utility>

namespace vorn {

error::error(std::string message) : message_(std::move(message)) {}
error::error(const error& other) = default;
error& error::operator=(const error& other) = default;
error::~error() = default;
const char* error::what() const noexcept { return message_.c_str(); }

invalid_argument_error::invalid_argument_error(std::string message, std::string argument)
    : error(std::move(message)), argument_(std::move(argument)) {}
invalid_argument_error::invalid_argument_error(const invalid_argument_error& other) = default;
invalid_argument_error& invalid_argument_error::operator=(const invalid_argument_error& other) =
    default;
invalid_argument_error::~invalid_argument_error() = default;
void invalid_argument_error::raise() const { throw *this; }

invalid_range_error::invalid_range_error(std::string message, std::string argument,
                                         std::uint64_t value)
    : invalid_argument_error(std::move(message), std::move(argument)), value_(value) {}
invalid_range_error::invalid_range_error(const invalid_range_error& other) = default;
invalid_range_error& invalid_range_error::operator=(const invalid_range_error& other) = default;
invalid_range_error::~invalid_range_error() = default;
void invalid_range_error::raise() const { throw *this; }

configuration_error::configuration_error(std::string message) : error(std::move(message)) {}
configuration_error::configuration_error(const configuration_error& other) = default;
configuration_error& configuration_error::operator=(const configuration_error& other) = default;
configuration_error::~configuration_error() = default;
void configuration_error::raise() const { throw *this; }

unconfigured_agent_error::unconfigured_agent_error(std::string message, std::string agent_name)
    : configuration_error(std::move(message)), agent_name_(std::move(agent_name)) {}
unconfigured_agent_error::unconfigured_agent_error(const unconfigured_agent_error& other) = default;
unconfigured_agent_error& unconfigured_agent_error::operator=(
    const unconfigured_agent_error& other) = default;
unconfigured_agent_error::~unconfigured_agent_error() = default;
void unconfigured_agent_error::raise() const { throw *this; }

unsupported_error::unsupported_error(std::string message, std::string feature)
    : error(std::move(message)), feature_(std::move(feature)) {}
unsupported_error::unsupported_error(const unsupported_error& other) = default;
unsupported_error& unsupported_error::operator=(const unsupported_error& other) = default;
unsupported_error::~unsupported_error() = default;
void unsupported_error::raise() const { throw *this; }

no_scoped_lock_obtained_error::no_scoped_lock_obtained_error(std::string message)
    : error(std::move(message)) {}
no_scoped_lock_obtained_error::no_scoped_lock_obtained_error(
    const no_scoped_lock_obtained_error& other) = default;
no_scoped_lock_obtained_error& no_scoped_lock_obtained_error::operator=(
    const no_scoped_lock_obtained_error& other) = default;
no_scoped_lock_obtained_error::~no_scoped_lock_obtained_error() = default;
void no_scoped_lock_obtained_error::raise() const { throw *this; }

}  // namespace vorn
