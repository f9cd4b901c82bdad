#include "count_allocations.h"

#include <libmw/future.h>
#include <libmw/log.h>
#include <libmw/trackable.h>

#include <array>
#include <cstddef>
#include <string>
#include <utility>

#include <gtest/gtest.h>

// What happens on every call through the middleware must not allocate.

namespace {

template <class F>
std::size_t allocationsOf(F&& work) {
  work();  // what is made once, on first use, does not count
  const auto before = kit::allocationsOfThisThread();
  work();
  return kit::allocationsOfThisThread() - before;
}

using Value = std::array<double, 6>;

TEST(Allocation, NoneForFuturesThatAreReady) {
  EXPECT_GT(allocationsOf([] { const mw::Promise<Value> promise; }), 0U) << "the count works";
  EXPECT_EQ(allocationsOf([] {
              auto future = mw::makeReadyFuture(Value{1});
              const auto moved = std::move(future);
              const auto first = moved.andThen([](const Value& value) { return value[0]; });
              first.then([](const mw::Future<double>& source) { EXPECT_EQ(source.value(), 1); }).wait();
            }),
            0U);
}

TEST(Allocation, NoneForATrackedFunctionOrARecordThatIsNotVisible) {
  const mw::Lifetime lifetime;
  auto tracked = lifetime.track([](int value) { return value; });
  EXPECT_EQ(allocationsOf([&] {
              EXPECT_EQ(tracked(3), 3);
              HX_LOG_AS(Debug, "allocation", "f", std::string(100, 'x'));
              mw::log::debug("allocation", "f", "text");
            }),
            0U);
}

}  // namespace
