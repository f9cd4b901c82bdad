// What connections leave behind is looked for after each test of a program, when its sessions have gone.

#include <chrono>
#include <cstddef>
#include <functional>
#include <remote/budget.h>
#include <remote/link.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using mw::remote::Budget;

struct Counter {
  std::string what;
  std::function<std::size_t()> read;
};

/// Calls that are pending, leases, the threads that serve and bytes that wait are a link's: they have gone with it.
class NothingLeft final : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo& /*test*/) override {
    const std::vector<Counter> counters{{"links", [] { return mw::remote::Link::count(); }},
                                        {"bytes that have come", [] { return Budget::input().bytes(); }},
                                        {"bytes to send", [] { return Budget::output().bytes(); }}};
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (const auto& [what, read] : counters) {
      while (read() > 0 && std::chrono::steady_clock::now() < end) std::this_thread::yield();
      EXPECT_EQ(read(), 0U) << what << " are left";
    }
  }
};

const bool isListening = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new NothingLeft);
  return true;
}();

}  // namespace
