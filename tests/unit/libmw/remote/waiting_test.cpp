#include "remote/waiting.h"

#include "remote/channel.h"
#include "remote/outputbatch.h"
#include "runtime/threadwait.h"

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include <gmock/gmock.h>

namespace mw::remote {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

/// Writes down what is done with it. Whoever reads it does not find anything.
class ReadableChannel final : public Channel, public CallerReading {
 public:
  void start(const std::shared_ptr<ChannelSink>& /*sink*/) override {}
  void send(Message& /*message*/, Sending /*when*/) override {}
  void flush() override { note("flush"); }
  void post(Work /*work*/) override {}
  void end(const std::string& /*reason*/) override {}
  const std::string& peer() const override { return name_; }
  std::chrono::milliseconds silence() const override { return {}; }
  CallerReading* callerReading() override { return this; }

  bool beginReading() override { return note("begin"); }
  void read(int /*wakeFile*/, std::chrono::steady_clock::time_point /*deadline*/) override {
    if (onRead) onRead();
    note("read");
  }
  void endReading() override { note("end"); }
  void expectMore() override { note("more"); }

  std::function<void()> onRead;
  std::vector<std::string> done;

 private:
  bool note(const char* what) {
    done.emplace_back(what);
    return true;
  }
  const std::string name_ = "the peer";
};

/// Each test on a thread that has not called anybody yet.
class Waiting : public testing::Test {
 protected:
  template <class Body>
  static void onThread(Body&& body) {
    std::thread(body).join();
  }
  static const detail::FutureStateBase& stateOf(const Promise<int>& promise) {
    return detail::PromiseAccess::stateOf(promise);
  }
  static bool handOver(const Caller& caller, const std::function<void()>& task) {
    auto copy = task;
    return runInChain(caller, &domain, copy);
  }
  static inline const int domain = 0;
};

TEST_F(Waiting, ReadsTheChannelItselfAndGivesItBack) {
  onThread([] {
    const auto channel = std::make_shared<ReadableChannel>();
    Promise<int> promise;
    chainOfThisThread();
    const detail::AboutToWait scope;
    const auto expectation = expectAnswer(channel, &domain, Calling::Waits, stateOf(promise));
    EXPECT_TRUE(beginReadingAnswer());
    channel->onRead = [&] { promise.setValue(7); };
    EXPECT_EQ(promise.future().value(), 7);
    EXPECT_THAT(channel->done, ElementsAre("begin", "read", "end"));
  });
}

TEST_F(Waiting, GivesATurnBackThatItDoesNotUse) {
  onThread([] {
    const auto channel = std::make_shared<ReadableChannel>();
    const Promise<int> promise;
    chainOfThisThread();
    {
      const detail::AboutToWait scope;
      const auto expectation = expectAnswer(channel, &domain, Calling::Waits, stateOf(promise));
      beginReadingAnswer();
    }
    EXPECT_THAT(channel->done, ElementsAre("begin", "end"));
    const auto other = std::make_shared<ReadableChannel>();
    const auto expectation = expectAnswer(channel, &domain, Calling::MayWait, stateOf(promise));
    EXPECT_FALSE(beginReadingAnswer()) << "it may never come to read";
  });
}

TEST_F(Waiting, ServesTheCallsOfItsChainInBetweenWithoutTheTurn) {
  onThread([] {
    const auto channel = std::make_shared<ReadableChannel>();
    Promise<int> promise;
    const Caller caller = chainOfThisThread().caller;
    const detail::AboutToWait scope;
    const auto expectation = expectAnswer(channel, &domain, Calling::Waits, stateOf(promise));
    beginReadingAnswer();
    const auto self = std::this_thread::get_id();
    ASSERT_TRUE(handOver(caller, [&, self] {
      EXPECT_EQ(std::this_thread::get_id(), self);
      EXPECT_THAT(channel->done, ElementsAre("begin", "end")) << "others may read while it runs";
      promise.setValue(1);
    }));
    EXPECT_EQ(promise.future().value(), 1);
  });
}

TEST_F(Waiting, IsRegisteredForAsLongAsItMayBeCalledBack) {
  onThread([] {
    const auto channel = std::make_shared<ReadableChannel>();
    Promise<int> promise;
    const Caller caller = chainOfThisThread().caller;
    const auto nothing = [] {};
    EXPECT_FALSE(handOver(caller, nothing));
    {
      const auto expectation = expectAnswer(channel, &domain, Calling::MayWait, stateOf(promise));
      EXPECT_TRUE(handOver(caller, nothing));
      EXPECT_FALSE(handOver({caller.endpoint, caller.thread + 1}, nothing)) << "another chain";
    }
    EXPECT_FALSE(handOver(caller, nothing));
    expectAnswer(channel, &domain, Calling::MakesMore, stateOf(promise));
    EXPECT_FALSE(handOver(caller, nothing));
    // While it waits for whatever it be.
    bool isTaken = false;
    channel->onRead = [&] { isTaken = handOver(caller, [&] { promise.setValue(2); }); };
    EXPECT_EQ(promise.future().value(), 2);
    EXPECT_TRUE(isTaken);
  });
}

TEST_F(Waiting, LeavesToOthersWhatItDoesNotComeTo) {
  std::promise<std::thread::id> done;
  onThread([&] {
    const Promise<int> promise;
    const Caller caller = chainOfThisThread().caller;
    const auto channel = std::make_shared<ReadableChannel>();
    const auto expectation = expectAnswer(channel, &domain, Calling::MayWait, stateOf(promise));
    ASSERT_TRUE(handOver(caller, [&] { done.set_value(std::this_thread::get_id()); }));
    auto by = done.get_future();
    ASSERT_EQ(by.wait_for(20s), std::future_status::ready);
    EXPECT_NE(by.get(), std::this_thread::get_id());
  });
}

TEST_F(Waiting, KeepsNoChannelAndWaitsThoughItHasGone) {
  onThread([] {
    auto channel = std::make_shared<ReadableChannel>();
    const std::weak_ptr<ReadableChannel> weak = channel;
    Promise<int> promise;
    chainOfThisThread();
    const auto expectation = expectAnswer(channel, &domain, Calling::MayWait, stateOf(promise));
    channel.reset();
    EXPECT_TRUE(weak.expired());
    std::thread finisher([&] { promise.setValue(3); });
    EXPECT_EQ(promise.future().value(), 3);
    finisher.join();
  });
}

TEST_F(Waiting, FlushesWhatItHoldsBackOnceForEachChannel) {
  onThread([] {
    const std::vector channels{std::make_shared<ReadableChannel>(), std::make_shared<ReadableChannel>()};
    Message message;
    {
      const OutputBatch batch(true);
      for (const std::size_t which : {0U, 1U, 0U}) OutputBatch::send(channels[which], message);
      EXPECT_THAT(channels[0]->done, ElementsAre());
      OutputBatch::flushAll();
      OutputBatch::send(channels[1], message);
    }
    EXPECT_THAT(channels[0]->done, ElementsAre("flush"));
    EXPECT_THAT(channels[1]->done, ElementsAre("flush", "flush"));
  });
}

}  // namespace
}  // namespace mw::remote
