#pragma once

#include <string>

namespace test {

// What `action` throws, as text.
template <typename Error, typename Action>
std::string thrown(Action action) {
  try {
    action();
  } catch (const Error& error) {
    return error.what();
  }
  return "nothing";
}

}  // namespace test
