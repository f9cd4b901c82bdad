#include <libmw/trackable.h>

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

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

struct SelfDropping {
  Lifetime lifetime;
  ~SelfDropping() { lifetime.destroy(); }
};

TEST(Lifetime, ACallbackMayDropTheLastReferenceToItsOwner) {
  auto owner = std::make_shared<SelfDropping>();
  const std::function<bool()> callback = owner->lifetime.track([&owner] { owner.reset(); });
  EXPECT_TRUE(callback());
  EXPECT_EQ(owner, nullptr);
  EXPECT_FALSE(callback());
}

TEST(Lifetime, DestroyWaitsForACallbackOnAnotherThread) {
  std::promise<void> entered;
  std::promise<void> release;
  bool hasReturned = false;
  Lifetime lifetime;
  auto callback = lifetime.track([&] {
    entered.set_value();
    release.get_future().wait();
    hasReturned = true;
  });
  std::thread caller(std::ref(callback));
  entered.get_future().wait();
  std::thread releaser([&] { release.set_value(); });
  lifetime.destroy();
  EXPECT_TRUE(hasReturned);
  caller.join();
  releaser.join();
}

}  // namespace
