#include "model.h"

#include "player.h"
#include "real_memory.h"
#include "sanitized.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <rapidcheck.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace HX::model {
namespace {

// The same sequences each time, of which the first thousands find nearly all; tools/soak looks at others. A sanitizer
// makes a call twenty times as dear.
constexpr const char* kParameters =
    kit::kSanitized ? "seed=1 max_success=400 max_size=200" : "seed=1 max_success=4000 max_size=200";

rc::Gen<Call> anyCall() {
  static const std::vector<std::size_t> weighted = [] {
    std::vector<std::size_t> methods;
    for (std::size_t i = 0; i < std::size(kMethods); ++i) methods.insert(methods.end(), kMethods[i].weight, i);
    return methods;
  }();
  // The first places come oftener, so that calls meet each other.
  const auto place = [](std::size_t limit, std::size_t skew) {
    return rc::gen::map(rc::gen::inRange<std::size_t>(0, limit + skew),
                        [skew](std::size_t i) { return i - std::min(i, skew); });
  };
  const auto method = rc::gen::map(place(weighted.size(), 0), [](std::size_t i) { return weighted[i]; });
  return rc::gen::construct<Call>(method, place(kKeys, 6), place(kServices, 3), place(kValues, 0), place(kNumbers, 0));
}

/// All that was the same, and what follows in each.
std::string difference(const std::vector<std::string>& expected, const std::vector<std::string>& seen) {
  const auto [wanted, was] = std::mismatch(expected.begin(), expected.end(), seen.begin(), seen.end());
  return fmt::format("    {}\nexpected {}\nbut was  {}\n", fmt::join(expected.begin(), wanted, "\n    "),
                     wanted == expected.end() ? "nothing more" : *wanted, was == seen.end() ? "nothing more" : *was);
}

TEST(Memory, DoesWhatTheModelDoesInEverySequenceOfCalls) {
  ::setenv("RC_PARAMS", kParameters, 0);
  const auto calls = rc::gen::container<Calls>(anyCall());
  EXPECT_TRUE(rc::check([&] {
    Calls sequence;
    for (std::size_t i = 0; i < kOffered; ++i) sequence.push_back({.method = methodNamed("offer"), .service = i});
    const Calls made = *calls;
    sequence.insert(sequence.end(), made.begin(), made.end());
    for (const Call& question : allQuestions()) sequence.push_back(question);
    const auto expected = Player::play<Model>(sequence);
    const auto seen = Player::play<RealMemory>(sequence);
    if (expected != seen) RC_FAIL(difference(expected, seen));
  }));
}

}  // namespace
}  // namespace HX::model
