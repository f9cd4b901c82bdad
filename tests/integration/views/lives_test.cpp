#include "far_memory.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

// The memory in another process, which is killed, frozen and started again, and those who view it.

namespace HX {
namespace {

using namespace std::chrono_literals;

class FarViews : public kit::FarMemoryFixture {
 protected:
  void run() { FarMemoryFixture::run({"--no-journal"}); }
};

TEST_F(FarViews, AreOfNoOtherLifeOfTheBrokerHoweverOftenItIsKilled) {
  run();
  join();
  auto number = memory().view<int>("Count");
  auto text = memory().view<std::string>("Text");
  for (int life = 1; life <= 4; ++life) {
    SCOPED_TRACE(life);
    EXPECT_EQ(number.read().state, ViewState::Absent);
    std::uint64_t revision = 0;
    for (int i = 0; i < 50; ++i) {
      const int value = life * 1000 + i;
      memory().insertData("Count", value);
      memory().insertData("Text", std::to_string(value));
      EXPECT_EQ(number.read().value(), value);
      EXPECT_EQ(text.read().value(), std::to_string(value));
      EXPECT_GT(number.read().revision, revision);
      revision = number.read().revision;
    }
    kill();
    await([&] { return number.read().state == ViewState::Disconnected; });
    EXPECT_FALSE(number.read().isFresh(1h));
    EXPECT_FALSE(number.alive(1h));
    await([&] { return text.read().state == ViewState::Disconnected; });
    run();
    await([&] { return number.read().state != ViewState::Disconnected; });
    await([&] { return text.read().state != ViewState::Disconnected; });
    await([&] { return broker_->getProxy("HXMemory") != nullptr; });
  }
}

TEST_F(FarViews, AreNotFreshWhileTheBrokerIsFrozenAndAreAgainLater) {
  run();
  join();
  auto view = memory().view<int>("Key", {.aliveWithin = 200ms});
  memory().insertData("Key", 1);
  await([&] { return view.read().isFresh(1h); });
  process_->send(SIGSTOP);
  await([&] { return !view.read().isFresh(1h) && !view.alive(200ms); });
  EXPECT_EQ(view.read().last(), 1);
  process_->send(SIGCONT);
  await([&] { return view.read().isFresh(1h); });
}

/// A writer that is killed in the middle of publishing leaves the last whole value, and no reader ever sees another one
/// than was written. KORVO_ROUNDS lets it go on for longer.
TEST_F(FarViews, AreWholeWhateverIsKilledWheneverItIs) {
  const char* const wanted = std::getenv("KORVO_ROUNDS");
  const int rounds = wanted ? std::stoi(wanted) : 4;
  std::mt19937 random(1);
  run();
  join();
  auto view = memory().view<std::string>("Letters");
  std::atomic<bool> isOver{false};
  std::thread writer([&, own = memory()]() mutable {
    for (int i = 0; !isOver; ++i) {
      try {
        own.insertData("Letters", std::string(600, static_cast<char>('a' + i % 26)));
      } catch (const std::exception&) {  // There is no broker just now.
        std::this_thread::yield();
      }
    }
  });
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE(round);
    kit::Process reader(kit::korvo({"hz", "Letters", "--view"}));
    std::uint64_t revision = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(20 + random() % 100);
    while (std::chrono::steady_clock::now() < end) {
      const auto& seen = view.read();
      if (seen.isReconnected) revision = 0;
      if (!seen.isPresent()) continue;
      EXPECT_GE(seen.revision, revision);
      revision = seen.revision;
      EXPECT_EQ(seen.value(), std::string(600, seen.value().at(0)));
    }
    if (round % 3 == 0) {
      reader.send(SIGKILL);
      continue;
    }
    kill();
    await([&] { return view.read().state == ViewState::Disconnected; });
    EXPECT_FALSE(view.read().isFresh(1h));
    run();
    await([&] { return view.read().isPresent(); });
  }
  isOver = true;
  writer.join();
}

/// Longer than it takes until it is given up, and its cell given to another key.
TEST_F(FarViews, OfAFrozenViewerShowNoOtherKeyWhenItGoesOn) {
  run();
  join();
  memory().insertData("Arm/Target", 0.5);
  kit::Process viewer({TEST_CONTROLLER});
  ASSERT_TRUE(viewer.waitFor("move to 0.5"));
  viewer.send(SIGSTOP);
  const auto views = [&] { return broker_->getProxy("HXViews")->call<HXValue>("report")["views"].getSize(); };
  await([&] { return views() == 0; });
  std::vector<HX::View<double>> others;
  for (int i = 0; i < 3; ++i) {
    const std::string key = "Other" + std::to_string(i);
    memory().insertData(key, 7.0 + i);
    others.push_back(memory().view<double>(key));
  }
  for (int i = 0; i < 1000; ++i) memory().insertData("Other" + std::to_string(i % 3), 10.0 + i);
  memory().insertData("Arm/Target", 0.75);
  viewer.send(SIGCONT);
  EXPECT_TRUE(viewer.waitFor("move to 0.75"));
  viewer.send(SIGTERM);
  const auto shown = viewer.finish().out;
  EXPECT_THAT(shown, testing::MatchesRegex("(stand still: [a-z ]+\n|move to 0.5\n|move to 0.75\n)+"));
}

TEST_F(FarViews, OfAKilledViewerAreTakenBackWithWhatItWaitsFor) {
  run();
  join();
  memory().insertData("Key", 1);
  {
    kit::Process viewer(kit::korvo({"hz", "Key", "--view"}));
    ASSERT_TRUE(viewer.waitFor("writes"));
    const auto report = broker_->getProxy("HXViews")->call<HXValue>("report");
    ASSERT_EQ(report["views"].getSize(), 1U);
    EXPECT_THAT(report["views"].asList().front()["viewer"].toString(), testing::HasSubstr("korvo hz"));
    viewer.send(SIGKILL);
    viewer.finish();
  }
  await([&] { return broker_->getProxy("HXViews")->call<HXValue>("report")["views"].getSize() == 0; });
  memory().insertData("Key", 2);
  EXPECT_EQ(kit::runKorvo({"get", "--view", "Key"}).out, "2\n");
  const auto absent = kit::runKorvo({"get", "--view", "Nothing"});
  EXPECT_EQ(absent.out, "");
  EXPECT_THAT(absent.err, testing::HasSubstr("Nothing: no value in the view: the memory has no such key"));
}

}  // namespace
}  // namespace HX
