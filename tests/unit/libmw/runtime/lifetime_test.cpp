#include <libmw/trackable.h>

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

using mw::Lifetime;

TEST(Lifetime, TrackedFunctionsRunWhileTheOwnerLives) {
  Lifetime lifetime;
  int calls = 0;
  const std::function<bool(int)> add = lifetime.track([&](int count) { calls += count; });
  const std::function<std::optional<std::string>()> name = lifetime.track([] { return std::string("door"); });
  EXPECT_TRUE(add(2));
  EXPECT_EQ(name(), "door");

  lifetime.destroy();

  EXPECT_TRUE(lifetime.isDestroyed());
  EXPECT_FALSE(add(3));
  EXPECT_EQ(name(), std::nullopt);
  EXPECT_EQ(calls, 2);
}

TEST(Lifetime, TheCallerDecidesWhatHappensWhenTheOwnerHasGone) {
  auto lifetime = std::make_unique<Lifetime>();
  const std::function<int(int)> twice = lifetime->track([](int value) { return 2 * value; },
                                                        []() -> int { throw std::runtime_error("module has gone"); });
  EXPECT_EQ(twice(4), 8);
  lifetime.reset();
  EXPECT_THROW(twice(4), std::runtime_error);
}

struct OwnerTrackedWhileConstructed {
  Lifetime lifetime;
  int calls = 0;
  explicit OwnerTrackedWhileConstructed(std::function<bool()>& registered) {
    registered = lifetime.track([this] { ++calls; });
    registered();
  }
};

TEST(Lifetime, IsValidInTheOwnersConstructor) {
  std::function<bool()> registered;
  {
    const OwnerTrackedWhileConstructed owner(registered);
    EXPECT_EQ(owner.calls, 1);
  }
  EXPECT_FALSE(registered());
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
