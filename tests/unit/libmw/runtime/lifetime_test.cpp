#include <libmw/trackable.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>

#include <gtest/gtest.h>

namespace {

using mw::Lifetime;

TEST(Lifetime, TrackedFunctionsRunWhileTheOwnerLives) {
  auto lifetime = std::make_unique<Lifetime>();
  int calls = 0;
  const std::function<bool(int)> add = lifetime->track([&](int count) { calls += count; });
  const std::function<std::optional<int>()> number = lifetime->track([] { return 5; });
  const std::function<int()> strict =
      lifetime->track([] { return 6; }, []() -> int { throw std::runtime_error("gone"); });
  EXPECT_TRUE(add(2));
  EXPECT_EQ(number(), 5);
  EXPECT_EQ(strict(), 6);
  lifetime.reset();
  EXPECT_FALSE(add(3));
  EXPECT_EQ(number(), std::nullopt);
  EXPECT_THROW(strict(), std::runtime_error);
  EXPECT_EQ(calls, 2);
}

TEST(Lifetime, ACallbackMayDestroyTheOwnerAndItself) {
  auto owner = std::make_optional<Lifetime>();
  std::function<bool()> callback = owner->track([&] {
    owner.reset();
    callback = nullptr;
  });
  callback();
  EXPECT_FALSE(owner);
}

}  // namespace
