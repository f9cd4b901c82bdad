#include "remote/strands.h"

#include <atomic>
#include <map>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace mw::remote {
namespace {

struct Call {
  explicit Call(int given) : number(given) {}
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  /// Without a stack as deep as its queue is long: a runner that stands still for a while finds thousands in it.
  ~Call() {
    for (auto rest = std::move(next); rest && rest.use_count() == 1;) rest = std::exchange(rest->next, nullptr);
  }
  const int number;
  std::shared_ptr<Call> next;
};
using CallStrands = Strands<int, Call>;
using Entry = CallStrands::Entry;

Entry enter(CallStrands& strands, int key, int number, std::size_t most = 10) {
  auto call = std::make_shared<Call>(number);
  const Entry entry = strands.enter(key, call, most);
  EXPECT_EQ(call != nullptr, entry == Entry::Refused) << "what is refused is the caller's";
  return entry;
}

std::vector<int> all(const CallStrands& strands) {
  std::vector<int> numbers;
  strands.forEach([&](int, const std::shared_ptr<Call>& call) { numbers.push_back(call->number); });
  return numbers;
}

TEST(Strands, RunOneKeysCallsOneAfterAnotherAndShowThem) {
  using testing::ElementsAre;
  CallStrands strands;
  EXPECT_EQ(enter(strands, 1, 10), Entry::Begins);
  EXPECT_EQ(enter(strands, 1, 11), Entry::Follows);
  const auto first = strands.next(1, nullptr);
  EXPECT_EQ(enter(strands, 1, 12), Entry::Follows);
  EXPECT_THAT(all(strands), ElementsAre(10, 11, 12));
  const auto second = strands.next(1, first.get());
  EXPECT_THAT(all(strands), ElementsAre(10, 11, 12)) << "until the batch has ended";
  const auto third = strands.next(1, second.get());
  EXPECT_THAT((std::vector{first->number, second->number, third->number}), ElementsAre(10, 11, 12));
  EXPECT_THAT(all(strands), ElementsAre(12));
  EXPECT_EQ(strands.next(1, third.get()), nullptr);
  EXPECT_THAT(all(strands), testing::IsEmpty());
  EXPECT_EQ(enter(strands, 1, 13), Entry::Begins);
}

TEST(Strands, RefuseMoreKeysThanTheyMayAndNoCallOfAKnownOne) {
  CallStrands strands;
  EXPECT_EQ(enter(strands, 1, 10, 2), Entry::Begins);
  EXPECT_EQ(enter(strands, 2, 20, 2), Entry::Begins);
  EXPECT_EQ(enter(strands, 3, 30, 2), Entry::Refused);
  EXPECT_EQ(enter(strands, 2, 21, 2), Entry::Follows);
  EXPECT_EQ(strands.next(1, strands.next(1, nullptr).get()), nullptr);
  EXPECT_EQ(enter(strands, 3, 30, 2), Entry::Begins);
}

TEST(Strands, KeepTheOrderWhileSeveralThreadsEnterRunAndLook) {
  constexpr int kCalls = 20'000;
  CallStrands strands;
  std::map<int, std::vector<int>> ran{{1, {}}, {2, {}}};
  std::map<int, std::atomic<int>> inside;
  for (const int key : {1, 2}) inside[key] = 0;
  const auto run = [&](int key) {
    for (auto call = strands.next(key, nullptr); call; call = strands.next(key, call.get())) {
      EXPECT_EQ(inside.at(key)++, 0);
      ran.at(key).push_back(call->number);
      --inside.at(key);
    }
  };
  std::atomic<bool> isOver{false};
  std::thread looking([&] {
    while (!isOver) strands.forEach([](int key, const auto& call) { EXPECT_GE(call->number, key - key); });
  });
  std::vector<std::thread> threads;
  for (const int key : {1, 2}) {
    // One enters, and whichever finds the strand idle runs it: as the thread that reads and one that it wakes.
    threads.emplace_back([&, key] {
      std::thread runner;
      for (int i = 0; i < kCalls; ++i) {
        if (enter(strands, key, i) != Entry::Begins) continue;
        if (runner.joinable()) runner.join();
        runner = std::thread(run, key);
      }
      if (runner.joinable()) runner.join();
    });
  }
  for (auto& thread : threads) thread.join();
  isOver = true;
  looking.join();
  for (const auto& [key, numbers] : ran) {
    ASSERT_EQ(numbers.size(), std::size_t{kCalls});
    for (int i = 0; i < kCalls; ++i) ASSERT_EQ(numbers[static_cast<std::size_t>(i)], i);
  }
}

}  // namespace
}  // namespace mw::remote
