#pragma once

#include <vorn/export.h>

#include <cstdint>
#include <exception>
#include <string>

// The SDK's exceptions. Each can be thrown again as what it is through a reference to the base, so
// code that keeps an error for later need not know its type. Type information and virtual tables
// stand once, in the library: an error caught in one shared object is recognised whichever other
// one threw it. Copying may throw std::bad_alloc.
namespace vorn {

class VORN_EXPORT error : public std::exception {
 public:
  error(const error& other);
  error& operator=(const error& other);
  ~error() override;

  // The message, valid as long as this object.
  const char* what() const noexcept override;

  // Throws a copy of this object, of its own dynamic type; when the copy throws, that instead.
  [[noreturn]] virtual void raise() const = 0;

 protected:
  explicit error(std::string message);

 private:
  std::string message_;
};

// An argument that the operation does not take.
class VORN_EXPORT invalid_argument_error : public error {
 public:
  invalid_argument_error(std::string message, std::string argument);
  invalid_argument_error(const invalid_argument_error& other);
  invalid_argument_error& operator=(const invalid_argument_error& other);
  ~invalid_argument_error() override;
  [[noreturn]] void raise() const override;

  const std::string& argument() const noexcept { return argument_; }

 private:
  std::string argument_;
};

// A number outside of the range that the argument allows.
class VORN_EXPORT invalid_range_error : public invalid_argument_error {
 public:
  invalid_range_error(std::string message, std::string argument, std::uint64_t value);
  invalid_range_error(const invalid_range_error& other);
  invalid_range_error& operator=(const invalid_range_error& other);
  ~invalid_range_error() override;
  [[noreturn]] void raise() const override;

  std::uint64_t value() const noexcept { return value_; }

 private:
  std::uint64_t value_;
};

// A configuration that can't be used.
class VORN_EXPORT configuration_error : public error {
 public:
  explicit configuration_error(std::string message);
  configuration_error(const configuration_error& other);
  configuration_error& operator=(const configuration_error& other);
  ~configuration_error() override;
  [[noreturn]] void raise() const override;
};

// An agent that has no configuration.
class VORN_EXPORT unconfigured_agent_error : public configuration_error {
 public:
  unconfigured_agent_error(std::string message, std::string agent_name);
  unconfigured_agent_error(const unconfigured_agent_error& other);
  unconfigured_agent_error& operator=(const unconfigured_agent_error& other);
  ~unconfigured_agent_error() override;
  [[noreturn]] void raise() const override;

  const std::string& agent_name() const noexcept { return agent_name_; }

 private:
  std::string agent_name_;
};

// A feature that this device or release does not have.
class VORN_EXPORT unsupported_error : public error {
 public:
  unsupported_error(std::string message, std::string feature);
  unsupported_error(const unsupported_error& other);
  unsupported_error& operator=(const unsupported_error& other);
  ~unsupported_error() override;
  [[noreturn]] void raise() const override;

  const std::string& feature() const noexcept { return feature_; }

 private:
  std::string feature_;
};

// An operation that needs a lock held for its scope, called without one.
class VORN_EXPORT no_scoped_lock_obtained_error : public error {
 public:
  explicit no_scoped_lock_obtained_error(std::string message);
  no_scoped_lock_obtained_error(const no_scoped_lock_obtained_error& other);
  no_scoped_lock_obtained_error& operator=(const no_scoped_lock_obtained_error& other);
  ~no_scoped_lock_obtained_error() override;
  [[noreturn]] void raise() const override;
};

}  // namespace vorn
