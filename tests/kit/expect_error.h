#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

/// Runs `action`, which must fail with a runtime error, and gives its text, which must be one line.
inline std::string errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), testing::Not(testing::HasSubstr("\n")));
    return error.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return {};
}
