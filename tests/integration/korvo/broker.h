#pragma once

#include "program.h"

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kit {

/// A broker that others find once this has been made.
class Broker {
 public:
  explicit Broker(std::vector<std::string> options = {}) {
    options.insert(options.begin(), "run");
    process_.emplace(korvo(std::move(options)));
    if (!process_->waitFor(" is running: ")) throw std::runtime_error("the broker did not start");
  }
  Process& operator*() { return *process_; }
  Process* operator->() { return &*process_; }

 private:
  std::optional<Process> process_;
};

/// One command line and what comes of it.
struct Row {
  std::vector<std::string> words;
  testing::Matcher<const std::string&> out = "";
  testing::Matcher<const std::string&> err = "";
  int status = 0;
  std::string input = {};
};

inline void check(const Row& row) {
  SCOPED_TRACE(testing::PrintToString(row.words));
  const auto result = runKorvo(row.words, row.input);
  EXPECT_THAT(result.out, row.out);
  EXPECT_THAT(result.err, row.err);
  EXPECT_EQ(result.status, row.status);
}

/// Whether `words` are answered with `out`, sooner or later.
inline bool isAnswered(const std::vector<std::string>& words, const testing::Matcher<const std::string&>& out) {
  const auto deadline = Process::Clock::now() + std::chrono::seconds(30);
  while (Process::Clock::now() < deadline) {
    if (testing::Matches(out)(runKorvo(words).out)) return true;
  }
  return false;
}

}  // namespace kit
